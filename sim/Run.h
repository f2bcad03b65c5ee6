// Runs a plan under the judge.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "agent/EmbeddedAgent.h"
#include "agent/Scenario.h"
#include "sim/Marks.h"
#include "sim/Plan.h"
#include "sim/Watch.h"

namespace KilnSim {

/// What happened in runs, in numbers.
struct Tally {
  std::uint64_t steps = 0;     ///< operations, besides those that only let tasks run
  std::uint64_t tasks = 0;     ///< runs of tasks
  std::uint64_t quiet = 0;     ///< moments at which everything was compared with the recompute
  std::uint64_t restarts = 0;  ///< new servers over what another one left
  std::uint64_t faults =
      0;  ///< writes refused, answers held or overtaken, domains withdrawn, crashes, losses
};

/// How a run ended.
struct Verdict {
  std::string wrong;     ///< what did not hold, empty where all did
  std::size_t at = 0;    ///< the operation after which it did not
  std::size_t step = 0;  ///< the same, counted in steps
  std::vector<std::uint64_t>
      digests;                    ///< of all that was seen from outside, at each quiet moment and the end
  std::vector<std::size_t> idle;  ///< operations that the agent's state did not allow, and that did nothing
  std::vector<KilnAgent::Operation> expected;  ///< what statuses and tables were to hold and did not
};

/// Runs a plan on an agent of its own. `progress` is told each step before it is made. Counts into `tally`,
/// and, unless `marks` is null, which traces were passed.
Verdict run(const Plan& plan, Tally& tally, Marks* marks,
            const std::function<void(std::size_t step)>& progress = {});

}  // namespace KilnSim
