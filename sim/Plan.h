// The plan of a simulation: a list of operations, and how the scheduler orders and slices the work in
// between.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/scenario/Operation.h"

namespace KilnSim {

/// A whole run, which is a pure function of the plan.
struct Plan {
  std::uint64_t seed = 0;        ///< of the order of tasks and answers, if it is drawn
  bool shuffled = true;          ///< whether it is drawn
  std::uint32_t yieldEvery = 0;  ///< items per slice; 0 never yields
  std::vector<KilnAgent::Operation> operations;
  std::size_t withdrawnFrom = 0;  ///< index of the first operation that is part of withdrawing everything
};

/// Kinds of runs. `mixed` draws its weights; each of the others stresses one part of the server.
constexpr std::array<std::string_view, 6> kProfiles = {"mixed",   "calm",    "storm",
                                                       "restart", "domains", "tables"};

/// The plan of a seed: `steps` operations, in addition to those that only run tasks, and the withdrawal of
/// everything. An empty `profile` is drawn from the seed, too.
Plan drawPlan(std::uint64_t seed, std::size_t steps, std::string_view profile = {});

/// The plan of a scenario that minimize() wrote. Throws InputError if it is no such scenario.
Plan readPlan(const std::string& path);

/// The options of the agent that runs a plan: the chip of `sim/chip.json`.
KilnAgent::AgentOptions agentOptions(const Plan& plan);

}  // namespace KilnSim
