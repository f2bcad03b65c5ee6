// Runs every schedule of a small scenario.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kiln/runtime/stage/StateDigest.h"

namespace KilnSim {

struct ExploreOptions {
  unsigned deviations = ~0U;   ///< from the default order, at most; unlimited unless given
  bool asTested = false;       ///< at most as many as the scenario itself says
  bool fromReady = false;      ///< the start of the first server is not explored
  unsigned jobs = 1;           ///< processes that run at a time
  unsigned budgetSeconds = 0;  ///< after which it stops; 0 does not
  std::string frontier;        ///< a file in which what was explored outlives the process; empty for none
  unsigned proveEvery = 0;     ///< of so many merges one is continued and compared; 0 for none
  bool reduced = true;         ///< leaves out what only changes the order of independent steps
  bool merged = true;          ///< cuts off states that were seen
  std::string out;             ///< where the shortest failing schedule is written; empty for none
};

/// What an exploration found. Besides the time, a function of the scenario and the options.
struct Explored {
  bool exhausted = false;  ///< every schedule was run; otherwise those up to `bound` deviations
  unsigned bound = 0;
  bool complete = false;        ///< the budget sufficed for a bound; `bound` is the last one
  std::uint64_t schedules = 0;  ///< that were run, until their end or a state that was seen
  std::uint64_t states = 0;
  std::uint64_t branches = 0;  ///< choices other than the default that were tried, up to the bound
  std::uint64_t leftOut = 0;   ///< choices that the reduction left out
  /// States in which nothing happens unless an operation is applied, or the server has just been replaced; in
  /// ascending order.
  std::vector<KilnEmServer::StateDigest::Value> landmarks;
  /// The different final statuses and tables, each by its digest, in ascending order.
  std::vector<KilnEmServer::StateDigest::Value> ends;
  std::uint64_t proved = 0;  ///< merges that were continued and compared
  std::string failure;       ///< empty if all held
  double seconds = 0;
};

/// Explores the scenario in this file. Throws InputError if it cannot.
Explored explore(const std::string& file, const ExploreOptions& options);

/// The figures in one line.
std::string textOf(const Explored& explored);

}  // namespace KilnSim
