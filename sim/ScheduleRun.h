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

/// The numbers of tasks by name and instance, the same in every process of an exploration: they are given out
/// by whoever asks first.
class TaskNumbers {
 public:
  virtual std::uint16_t numberOf(std::string_view name, std::string_view instance) = 0;

 protected:
  ~TaskNumbers() = default;
};

/// Runs a scenario under given choices, the judge watching.
///
/// The default order is a function of the state alone. Of the ready tasks the one with the greatest priority
/// runs first, and of these the one whose stage is the first in the stage map; then the oldest answer of the
/// first table is given; then the next operation is applied. A task that was made to yield runs after one
/// other choice; one whose slice changed nothing, after all others.
class ScheduleRun {
 public:
  /// `fromReady`: the start of the first server is not explored either. Each operation is written to `record`
  /// before it is done; -1 for nowhere.
  ScheduleRun(const SmallScenario& scenario, bool fromReady, TaskNumbers& numbers, int record = -1);
  ScheduleRun(const ScheduleRun&) = delete;
  ScheduleRun& operator=(const ScheduleRun&) = delete;

  /// What may be done next, the default first; never empty.
  [[nodiscard]] const std::vector<Choice>& choices() const { return choices_; }
  /// The default is that nothing is left to be done.
  [[nodiscard]] bool ended() const { return choices_.front().kind == Choice::Kind::end; }
  /// What a slice did that could have been otherwise.
  struct Slice {
    std::size_t items = 0;     ///< after which it was asked whether it should yield
    std::size_t writes = 0;    ///< that a table was asked for
    bool othersReady = false;  ///< other steps were possible when it began, or when it ended
  };
  /// Does this, which must be one of the choices, but for the items of its slice and the refused write.
  Slice take(const Choice& choice);

  [[nodiscard]] bool failed() const { return run_.failed(); }
  [[nodiscard]] const std::string& wrong() const { return run_.wrong(); }
  /// Of everything on which the rest of the run depends.
  [[nodiscard]] const KilnEmServer::StateDigest& digest() const { return digest_; }
  /// The last slice changed nothing.
  [[nodiscard]] bool unchanged() const { return idleSlices_ != 0; }
  /// How many more writes may be refused.
  [[nodiscard]] unsigned refusalsLeft() const { return left_.refusals; }
  /// Of the published statuses and the entries of the tables.
  [[nodiscard]] KilnEmServer::StateDigest::Value outcome();
  /// Withdraws every request and sees whether anything is left. To be called when ended() or never.
  void withdrawEverything();
  [[nodiscard]] KilnAgent::EmbeddedAgent& agent() { return run_.agent(); }
  /// The stage whose task ran last, or whose operation was answered; or the name of another task.
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
  std::size_t next_ = 0;  ///< of the scenario's operations
  Troubles left_;
  std::size_t idleSlices_ = 0;  ///< that changed nothing, one after the other
  std::string lastStage_;
  std::uint16_t yielded_ = 0;  ///< number of the task that was made to yield just now; 0 for none
};

}  // namespace KilnSim
