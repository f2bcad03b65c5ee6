// Which orders of steps need not be tried, since the steps have nothing to do with each other.
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

/// Finds out what the steps of a run read and write, and what they make possible.
///
/// What a step wrote is seen in the state's digest, part by part. What it may have read is what its stage
/// declares; a task that belongs to no stage, and a stage that reads more, may have read everything. Which
/// tasks are ready follows from the parts and is left out, and so is the judge, which looks at the same
/// things from outside.
class FootprintRecorder {
 public:
  explicit FootprintRecorder(ExploredSpace& space) : space_(space) {}
  /// A step is about to be taken.
  void before(const ScheduleRun& run);
  /// It was taken, by this choice.
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
  std::set<std::uint32_t> possible_;  ///< steps, before the one that is taken
  std::map<std::string, std::size_t> numbers_;
  std::size_t partCount_ = 0;
  std::map<std::uint32_t, NumberSet> reads_;  ///< by step, as long as there are so many parts
};

/// Compares what is known of the steps that were made so far.
class Reduction {
 public:
  explicit Reduction(const ExploredSpace& space);
  /// False if the step can as well be made later: no step that is possible in its state, and has to do with
  /// the default one or the next operation, directly or through others of them, has to do with it or with
  /// what may follow from it. True where the server may be replaced.
  [[nodiscard]] bool needed(const Branch& branch) const;

 private:
  using Steps = std::set<std::uint32_t>;
  [[nodiscard]] Steps neededIn(std::uint32_t state) const;
  /// Whether `step`, or one that it makes possible, sooner or later, has to do with `other`.
  [[nodiscard]] bool concerns(std::uint32_t step, std::uint32_t other) const;

  const ExploredSpace& space_;
  std::map<std::uint32_t, Steps> possible_;  ///< steps other than the default, by state
  Steps troubled_;                           ///< states in which the server may be replaced
  std::vector<Steps> follow_;                ///< the step and all that it may make possible
  mutable std::uint32_t state_ = kNone;
  mutable Steps needed_;  ///< in this state
};

}  // namespace KilnSim
