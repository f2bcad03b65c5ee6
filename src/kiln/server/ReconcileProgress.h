// How far a server has come after its start, as data.
#pragma once

#include <string>
#include <vector>

#include "kiln/runtime/stage/ReconciliationCounts.h"

namespace KilnEmServer {

/// What reconciliation did to one output so far.
struct OutputProgress {
  std::string output;
  bool ready = false;
  ReconciliationCounts counts;
};

/// One stage of the stage map.
struct StageProgress {
  std::string stage;
  bool complete = false;
  /// What it waits for: a collection, another stage, one of its own scans; nothing if it is complete.
  std::vector<std::string> waitsFor;
  std::vector<OutputProgress> outputs;
};

}  // namespace KilnEmServer
