// How far a server has come after its start, as data.
#pragma once

#include <string>
#include <vector>

#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

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
  /// What it waits for: a collection, another stage, one of its own scans; nothing where it is complete.
  std::vector<std::string> waitsFor;
  std::vector<OutputProgress> outputs;
};

/// The stage's outputs that are reconciled.
std::vector<OutputProgress> outputProgress(const StageBase& stage);

}  // namespace KilnEmServer
