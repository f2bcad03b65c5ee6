// Partial-order reduction: leaves out orders of independent steps.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "sim/ExploredSpace.h"
#include "sim/ScheduleRun.h"

namespace KilnSim {

/// Records what the steps of a run read and write, and which steps they enable.
///
/// The parts that a step wrote follow from the state's digest. The parts that it may have read are those that
/// its stage declares; a task of no stage, and a stage that declares that it reads more, may have read
/// everything. The ready tasks follow from the parts and are left out, and so is the judge, which only
/// observes.
class FootprintRecorder {
 public:
  explicit FootprintRecorder(ExploredSpace& space) : space_(space) {}
  /// A step is about to be taken.
  void before(const ScheduleRun& run);
  /// The step of this choice was taken.
  void after(ScheduleRun& run, const Choice& choice);

 private:
  using Parts = std::vector<KilnEmServer::StateDigest::Part>;
  void addWritten(const Parts& parts, NumberSet& written);
  [[nodiscard]] const NumberSet& readsOf(ScheduleRun& run, std::uint32_t step);
  void addReads(ScheduleRun& run, NumberSet& reads);
  void addReadsInside(ScheduleRun& run, Footprint& footprint);
  void addReadsOf(const KilnEmServer::StageBase& stage, const Parts& parts, NumberSet& reads);
  [[nodiscard]] std::size_t numberOf(const std::string& part);

  ExploredSpace& space_;
  Parts before_;
  std::set<std::uint32_t> possible_;  ///< steps that are possible before the next one
  std::map<std::string, std::size_t> numbers_;
  std::size_t partCount_ = 0;
  std::map<std::uint32_t, NumberSet> reads_;  ///< by step, valid for this number of parts
};

/// Compares the footprints of the steps taken so far.
class Reduction {
 public:
  explicit Reduction(const ExploredSpace& space);
  /// False if the step can be taken later with the same result. That is the case if no step that is possible
  /// in its state, and that depends on the default step or the next operation, directly or transitively,
  /// depends on this step or on a step that may follow from it. True if the server may be replaced.
  [[nodiscard]] bool needed(const Branch& branch) const;

 private:
  using Steps = std::set<std::uint32_t>;
  [[nodiscard]] Steps neededIn(std::uint32_t state) const;
  /// Whether `step`, or a step that it may enable sooner or later, depends on `other`.
  [[nodiscard]] bool concerns(std::uint32_t step, std::uint32_t other) const;

  const ExploredSpace& space_;
  std::map<std::uint32_t, Steps> possible_;  ///< steps other than the default, by state
  Steps troubled_;                           ///< states in which the server may be replaced
  std::vector<Steps> follow_;                ///< the step and all that it may enable
  mutable std::uint32_t state_ = kNone;
  mutable Steps needed_;  ///< in this state
};

}  // namespace KilnSim
