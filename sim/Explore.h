// Runs every schedule of a small scenario.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kiln/runtime/stage/StateDigest.h"

namespace KilnSim {

struct ExploreOptions {
  unsigned deviations = ~0U;   ///< maximum from the default order; unlimited by default
  bool asTested = false;       ///< maximum is that of the scenario itself
  bool fromReady = false;      ///< the start of the first server is not explored
  unsigned jobs = 1;           ///< processes that run at a time
  unsigned budgetSeconds = 0;  ///< after which it stops; 0 for no limit
  std::string frontier;  ///< a file that stores the explored space beyond the process's life; empty for none
  unsigned proveEvery = 0;  ///< one in so many merges is continued and compared; 0 for none
  bool reduced = true;      ///< leaves out choices that only change the order of independent steps
  bool merged = true;       ///< stops at states that were seen before
  std::string out;          ///< the file for the shortest failing schedule; empty for none
};

/// The result of an exploration. Except for the time, a function of the scenario and the options.
struct Explored {
  bool exhausted = false;  ///< every schedule was run; otherwise those up to `bound` deviations
  unsigned bound = 0;
  bool complete = false;        ///< the budget sufficed for a bound; `bound` is the last one
  std::uint64_t schedules = 0;  ///< run to their end or to a state that was seen before
  std::uint64_t states = 0;
  std::uint64_t branches = 0;  ///< tried choices other than the default, up to the bound
  std::uint64_t leftOut = 0;   ///< choices that the reduction left out
  /// States in which nothing happens without an operation, or in which the server has just been replaced; in
  /// ascending order.
  std::vector<KilnEmServer::StateDigest::Value> landmarks;
  /// The different final statuses and tables, each by its digest, in ascending order.
  std::vector<KilnEmServer::StateDigest::Value> ends;
  std::uint64_t proved = 0;  ///< merges that were continued and compared
  std::string failure;       ///< empty if all checks passed
  double seconds = 0;
};

/// Explores the scenario in this file. Throws InputError if it cannot.
Explored explore(const std::string& file, const ExploreOptions& options);

/// The figures in one line.
std::string textOf(const Explored& explored);

}  // namespace KilnSim
