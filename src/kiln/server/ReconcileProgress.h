// How far a server has come after its start, as data.
#pragma once

#include <string>
#include <vector>

#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

class DependencyManagerSm;
class Wiring;

/// What reconciliation did to one output so far.
struct OutputProgress {
  std::string output;
  bool ready = false;
  OutputBase::ReconciliationCounts counts;
};

/// One stage of the stage map.
struct StageProgress {
  std::string stage;
  bool complete = false;
  /// What it waits for: a collection, another stage, one of its own scans; nothing if it is complete.
  std::vector<std::string> waitsFor;
  std::vector<OutputProgress> outputs;
};

/// The rows of the stage map, in its order.
std::vector<StageProgress> progressOf(const Wiring& wiring, const DependencyManagerSm& manager,
                                      const DependencyStatus& dependencyStatus);

}  // namespace KilnEmServer
