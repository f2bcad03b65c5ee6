// Runs a plan under the judge.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/scenario/Scenario.h"
#include "sim/Marks.h"
#include "sim/Plan.h"
#include "sim/Watch.h"

namespace KilnSim {

/// Counters over runs.
struct Tally {
  std::uint64_t steps = 0;     ///< operations, in addition to those that only run tasks
  std::uint64_t tasks = 0;     ///< runs of tasks
  std::uint64_t quiet = 0;     ///< moments at which everything was compared with the recompute
  std::uint64_t restarts = 0;  ///< new servers over the state of an earlier one
  std::uint64_t faults =
      0;  ///< writes refused, answers held or overtaken, domains withdrawn, crashes, losses
};

/// The result of a run.
struct Verdict {
  std::string wrong;     ///< the failed check; empty if all passed
  std::size_t at = 0;    ///< the operation after which it failed
  std::size_t step = 0;  ///< the same, counted in steps
  std::vector<std::uint64_t>
      digests;                    ///< of everything observed from outside, at each quiet moment and the end
  std::vector<std::size_t> idle;  ///< operations without effect, because the agent's state did not allow them
  std::vector<KilnAgent::Operation>
      expected;  ///< required statuses and table entries that were missing or wrong
};

/// One run: an agent of its own under the judge.
class Run {
 public:
  /// Adds to `tally`. If `marks` is not null, everything is traced, and `marks` counts the traces.
  Run(const Plan& plan, Tally& tally, Marks* marks);

  /// False if the agent's state did not allow the operation.
  bool execute(const KilnAgent::Operation& operation);
  /// Runs one slice of a ready task; the chip refuses this write of it, if any.
  void runSlice(KilnPlatform::Task& task, KilnPlatform::YieldPolicy& policy,
                std::optional<std::uint32_t> refused);
  /// No task is ready: compares everything with the required state.
  void judge();
  /// Fills in the failed check and the observations.
  void finish(Verdict& verdict);
  [[nodiscard]] bool failed() const { return !wrong_.empty(); }
  [[nodiscard]] const std::string& wrong() const { return wrong_; }
  [[nodiscard]] KilnAgent::EmbeddedAgent& agent() { return agent_; }
  [[nodiscard]] const Watch& watch() const { return watch_; }

 private:
  template <class T>
  bool executeOne(const T& operation);
  template <class T>
  void countFault(const T& operation);
  KilnAgent::SoftTable& tableOf(TableTag type) { return agent_.chip().table(type); }
  void note(const std::string& wrong) { wrong_ += wrong; }
  void noteObserved();
  void settle();
  [[nodiscard]] bool allAnswered() const;
  void setAsideUnanswered(const Wanted& wanted, Outcome& expected, Outcome& found);
  [[nodiscard]] std::string domainsWronglyAllotted(const Wanted& wanted, const Outcome& found) const;
  [[nodiscard]] std::set<std::string> afterReconciliation() const;
  [[nodiscard]] std::string incomplete() const;
  [[nodiscard]] std::string leftovers() const;
  void expect(const Outcome& expected, const Outcome& found);

  Tally& tally_;
  KilnAgent::Ref<Marks> marks_;
  KilnAgent::EmbeddedAgent agent_;
  KilnAgent::Scenario scenario_;
  Watch watch_;
  std::set<std::string> stageNames_;  ///< of the stage map, which is the same for every server
  std::string wrong_;
  std::vector<KilnAgent::Operation> expected_;
  std::vector<std::uint64_t> digests_;
};

/// Runs a plan on an agent of its own. `progress` is called before each step. Adds to `tally`; if `marks` is
/// not null, everything is traced, and `marks` counts the traces.
Verdict run(const Plan& plan, Tally& tally, Marks* marks,
            const std::function<void(std::size_t step)>& progress = {});

}  // namespace KilnSim
