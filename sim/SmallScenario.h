// A small scenario: its operations, and the choices to explore.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "kiln/agent/scenario/Operation.h"

namespace KilnSim {

/// How often each of these may happen in one run, at moments that the explorer chooses.
struct Troubles {
  unsigned refusals = 0;  ///< writes that the chip refuses
  unsigned restarts = 0;  ///< of the server
  unsigned crashes = 0;   ///< of the server
  unsigned losses = 0;    ///< crashes in which the store loses uncommitted changes
};

inline constexpr std::size_t kMostExplored = 31;

/// A file of operations, of which at most kMostExplored are explored. Its first line is `// explore: KEY
/// VALUE ...`; a line `// explored from here` ends the setup.
struct SmallScenario {
  std::string file;
  Troubles troubles;
  /// Whether statuses and tables at the end may depend on the schedule.
  bool endsDiffer = false;
  unsigned bound = 2;  ///< deviations from the default order up to which the tests explore it
  std::vector<KilnAgent::Operation> setUp;
  std::vector<KilnAgent::Operation> explored;
};

/// Throws InputError if the file is no small scenario.
SmallScenario readSmallScenario(const std::string& file);

}  // namespace KilnSim
