// Random runs of the whole server: sequences of operations drawn from a seed, and a runner that compares what
// everybody can see of the server with the recompute whenever it is quiet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/EmbeddedAgent.h"
#include "agent/Operation.h"

namespace KilnTests {

/// One operation, and how many tasks run after it, which is never enough to become quiet on purpose.
struct Step {
  KilnAgent::Operation operation;
  std::size_t slicesAfter = 0;
};

/// How a run goes.
struct RunSetting {
  std::uint64_t seed = 0;          ///< of the operations
  bool shuffled = true;            ///< whether tasks and answers are shuffled, from the same seed
  std::uint32_t yieldEvery = 0;    ///< items per slice; 0 never yields
  bool answersInsideCall = false;  ///< whether some tables answer inside the call that writes
  bool tablesRefuse = false;       ///< whether tables refuse writes for a while, and one of them is small
  bool tablesHold = false;         ///< whether tables hold answers back for a while
  bool domainsAutomatic = false;   ///< whether VLAN domains are allotted automatically for a while
  std::size_t steps = 150;
  std::string* trace = nullptr;  ///< takes the whole trace, at its most detailed level; may be null
};

/// The setting under a number: numbers that follow each other cover all of them.
RunSetting settingOf(std::uint64_t seed);

/// The operations of a run, which end with a settle.
std::vector<Step> drawSteps(const RunSetting& setting);

/// What happened in runs besides their outcome.
struct Tally {
  std::uint64_t quiet = 0;         ///< moments at which the outcome was compared
  std::uint64_t coalesced = 0;     ///< changes that found their key waiting already
  std::uint64_t staleAnswers = 0;  ///< answers of tables that a newer request had overtaken
  std::uint64_t scanPauses = 0;    ///< initial scans that yielded
  std::uint64_t restarts = 0;      ///< new servers over what another one left
};

/// What stood at the end of a run, before all was withdrawn.
struct FinalState {
  std::string outcome;  ///< statuses, tables and the domains that are asked for, each row in a line
  std::string dump;     ///< the agent's dump, as far as it does not depend on the order of tasks
};

/// Runs steps, then destroys the quiet server, or lets it crash, and creates it again. Returns what that
/// changed for features or hardware, empty where nothing.
std::string restartAfter(const RunSetting& setting, const std::vector<Step>& steps, bool crash);

/// The dump without the row that tells how often the hardware was written.
std::string dumpWithoutHardware(const KilnAgent::EmbeddedAgent& agent);

/// Runs steps on an agent of their own. Returns what is wrong, empty where nothing is.
std::string runSteps(const RunSetting& setting, const std::vector<Step>& steps, Tally& tally,
                     FinalState* finalState = nullptr);

}  // namespace KilnTests
