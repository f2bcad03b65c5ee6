// One run of a small scenario, choice by choice.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kiln/runtime/stage/StateDigest.h"
#include "sim/Choice.h"
#include "sim/Run.h"
#include "sim/SmallScenario.h"

namespace KilnSim {

/// The numbers of tasks by name and instance, the same in every process of an exploration: assigned at the
/// first request.
class TaskNumbers {
 public:
  virtual std::uint16_t numberOf(std::string_view name, std::string_view instance) = 0;

 protected:
  ~TaskNumbers() = default;
};

/// Runs a scenario under given choices, observed by the judge.
///
/// The default order is a function of the state alone. Of the ready tasks, the one with the greatest priority
/// runs first, and among these the one whose stage is the first in the stage map; then the oldest answer of
/// the first table is delivered; then the next operation is applied. A task that was made to yield runs after
/// one other choice; a task whose slice changed nothing runs after all others.
class ScheduleRun {
 public:
  /// `fromReady`: the start of the first server is not explored. Each operation is written to the descriptor
  /// `record` before it is executed; -1 for none.
  ScheduleRun(const SmallScenario& scenario, bool fromReady, TaskNumbers& numbers, int record = -1);
  ScheduleRun(const ScheduleRun&) = delete;
  ScheduleRun& operator=(const ScheduleRun&) = delete;

  /// The possible choices, the default first; never empty.
  [[nodiscard]] const std::vector<Choice>& choices() const { return choices_; }
  /// Whether the default is that no work is left.
  [[nodiscard]] bool ended() const { return choices_.front().kind == Choice::Kind::end; }
  /// The variable aspects of a slice.
  struct Slice {
    std::size_t items = 0;     ///< at which the policy was asked whether to yield
    std::size_t writes = 0;    ///< issued to a table
    bool othersReady = false;  ///< other steps were possible when it began, or when it ended
  };
  /// Takes this choice, which must be one of choices() except for the items of its slice and the refused
  /// write.
  Slice take(const Choice& choice);

  [[nodiscard]] bool failed() const { return run_.failed(); }
  [[nodiscard]] const std::string& wrong() const { return run_.wrong(); }
  /// Of all state on which the rest of the run depends.
  [[nodiscard]] const KilnEmServer::StateDigest& digest() const { return digest_; }
  /// Whether the last slice changed nothing.
  [[nodiscard]] bool unchanged() const { return idleSlices_ != 0; }
  /// How many more writes may be refused.
  [[nodiscard]] unsigned refusalsLeft() const { return left_.refusals; }
  /// Of the published statuses and the entries of the tables.
  [[nodiscard]] KilnEmServer::StateDigest::Value outcome();
  /// Withdraws every request and checks that nothing is left. To be called at most once, when ended().
  void withdrawEverything();
  [[nodiscard]] KilnAgent::EmbeddedAgent& agent() { return run_.agent(); }
  /// The stage whose task ran last, or whose operation was answered; or the name of a task of no stage.
  [[nodiscard]] const std::string& lastStage() const { return lastStage_; }

 private:
  using Task = KilnPlatform::Task;
  struct Ready {
    Task* task;
    std::size_t rank;
    std::uint16_t number;
  };

  void record(const KilnAgent::Operation& operation) const;
  void apply(const KilnAgent::Operation& operation);
  void settleByDefault();
  [[nodiscard]] std::size_t rankOf(const Task& task) const;
  void findChoices();
  void findReady();
  void addTasks();
  void addAnswers();
  void addOperation();
  void addTroubles();
  [[nodiscard]] bool otherStepThan(const Choice& choice) const;
  Slice runTask(const Choice& choice);
  void giveAnswer(const Choice& choice);
  void applyNext();
  void judgeIfQuiet();
  void takeDigest();

  SmallScenario scenario_;
  TaskNumbers& numbers_;
  int record_;
  Tally tally_;
  Run run_;
  std::vector<std::string> stageOrder_;
  std::vector<Ready> ready_;  ///< in default order
  std::vector<Choice> choices_;
  KilnEmServer::StateDigest digest_;
  bool exploring_ = false;
  std::size_t next_ = 0;  ///< index into the scenario's operations
  Troubles left_;
  std::size_t idleSlices_ = 0;  ///< consecutive slices that changed nothing
  std::string lastStage_;
  std::uint16_t yielded_ = 0;  ///< number of the task that was just made to yield; 0 for none
};

}  // namespace KilnSim
