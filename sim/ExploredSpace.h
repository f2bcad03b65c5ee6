// The data that the processes of an exploration share: states, choices still to be followed, failures.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include "kiln/runtime/stage/StateDigest.h"
#include "sim/Choice.h"
#include "sim/ScheduleRun.h"

namespace KilnSim {

using StateValue = KilnEmServer::StateDigest::Value;

/// A set of small numbers.
class NumberSet {
 public:
  static constexpr std::size_t kMost = 512;
  void add(std::size_t number) { words_[number / 64] |= std::uint64_t{1} << (number % 64); }
  void add(const NumberSet& other) {
    for (std::size_t i = 0; i < std::size(words_); ++i) words_[i] |= other.words_[i];
  }
  [[nodiscard]] bool empty() const {
    return std::all_of(std::begin(words_), std::end(words_), [](auto word) { return word == 0; });
  }
  [[nodiscard]] bool has(std::size_t number) const { return (words_[number / 64] >> (number % 64) & 1) != 0; }
  void addAll() { std::fill(std::begin(words_), std::end(words_), ~std::uint64_t{0}); }
  [[nodiscard]] bool meets(const NumberSet& other) const {
    std::uint64_t both = 0;
    for (std::size_t i = 0; i < std::size(words_); ++i) both |= words_[i] & other.words_[i];
    return both != 0;
  }

 private:
  std::uint64_t words_[kMost / 64] = {};
};

/// The effects of a step, or of all slices of a task so far.
struct Footprint {
  NumberSet read;     ///< parts of the state that it may have read
  NumberSet written;  ///< parts that it changed
  NumberSet enabled;  ///< steps that were possible after it and not before, by ExploredSpace::stepNumber
  [[nodiscard]] bool meets(const Footprint& other) const {
    return written.meets(other.written) || written.meets(other.read) || read.meets(other.written);
  }
  void add(const Footprint& other) {
    read.add(other.read);
    written.add(other.written);
    enabled.add(other.enabled);
  }
};

inline constexpr std::uint32_t kNone = ~std::uint32_t{0};

/// A state that was reached, and the default step from it.
struct State {
  StateValue value;
  std::uint32_t schedule = kNone;  ///< the schedule that reached it first
  std::uint32_t position = 0;      ///< steps that this one had made then
  std::uint32_t next = kNone;      ///< the state after the default step
  Choice step;                     ///< the default
  std::uint8_t bound = 0;          ///< least known number of deviations with which it is reached
  /// No task is ready and every operation is answered; or the server has just been replaced.
  bool landmark = false;
};

/// A choice other than the default in a state.
struct Branch {
  std::uint32_t state = kNone;
  Choice choice;
  bool taken = false;  ///< whether a schedule takes it
};

/// The default order except for some deviations: the one at `position`, and the earlier ones of `parent`.
struct Schedule {
  std::uint32_t parent = kNone;
  std::uint32_t position = 0;
  std::uint32_t firstChild = kNone;  ///< of those to be followed now, in the order of positions
  std::uint32_t sibling = kNone;
  std::uint32_t state = kNone;   ///< in which it deviates last
  std::uint32_t target = kNone;  ///< the state that follows; of the first schedule, the first one
  std::uint8_t bound = 0;        ///< number of its deviations
  bool followed = false;         ///< whether it was followed; otherwise it is to be followed now
  Choice choice;
};

/// A failure of a schedule, after so many of its steps.
struct Failure {
  std::uint32_t schedule = kNone;
  std::uint32_t position = 0;
  char text[1000] = {};
};

/// Final statuses and tables that differ from the other ends, and a schedule that leads there.
struct End {
  StateValue outcome;
  std::uint32_t schedule = kNone;
  std::uint32_t position = 0;
};

/// An array that grows in shared memory.
template <class T>
struct SharedArray {
  T* items = nullptr;
  std::uint32_t* size = nullptr;
  std::uint32_t most = 0;
  [[nodiscard]] T& operator[](std::uint32_t at) const { return items[at]; }
};

/// Memory shared by all processes that are forked from its creator. If a file is named, the memory is stored
/// there and outlives the processes.
class ExploredSpace final : public TaskNumbers {
 public:
  /// `subject` identifies the exploration. Throws InputError if the file cannot be used, is used by another
  /// process, or belongs to another exploration.
  ExploredSpace(const std::string& file, const StateValue& subject);
  ~ExploredSpace();
  ExploredSpace(const ExploredSpace&) = delete;
  ExploredSpace& operator=(const ExploredSpace&) = delete;

  struct Header;
  [[nodiscard]] Header& header() const { return *header_; }

  /// The number of the state, and whether it is new.
  std::pair<std::uint32_t, bool> stateOf(const StateValue& value, std::uint32_t schedule,
                                         std::uint32_t position);
  [[nodiscard]] State& state(std::uint32_t number) const { return states_[number]; }
  [[nodiscard]] std::uint32_t states() const { return *states_.size; }
  void addBranch(std::uint32_t state, const Choice& choice);
  [[nodiscard]] Branch& branch(std::uint32_t number) const { return branches_[number]; }
  [[nodiscard]] std::uint32_t branches() const { return *branches_.size; }
  std::uint32_t addSchedule(const Schedule& schedule);
  [[nodiscard]] Schedule& schedule(std::uint32_t number) const { return schedules_[number]; }
  [[nodiscard]] std::uint32_t schedules() const { return *schedules_.size; }
  void addFailure(std::uint32_t schedule, std::uint32_t position, std::string_view text);
  [[nodiscard]] const Failure& failure(std::uint32_t number) const { return failures_[number]; }
  [[nodiscard]] std::uint32_t failures() const { return *failures_.size; }
  void addEnd(const StateValue& outcome, std::uint32_t schedule, std::uint32_t position);
  [[nodiscard]] const End& end(std::uint32_t number) const { return ends_[number]; }
  [[nodiscard]] std::uint32_t ends() const { return *ends_.size; }

  std::uint16_t numberOf(std::string_view name, std::string_view instance) override;
  /// The number of a part of the state.
  std::size_t partNumber(std::string_view name);
  /// The number of a table's answers, of an operation or of a task: below NumberSet::kMost.
  static std::uint32_t stepNumber(const Choice& choice) {
    if (choice.kind == Choice::Kind::answer) return choice.which;
    return choice.kind == Choice::Kind::operation ? kMostTables + choice.which
                                                  : kMostTables + kMostOperations + choice.which;
  }
  static bool isOperation(std::uint32_t step) {
    return step >= kMostTables && step < kMostTables + kMostOperations;
  }
  [[nodiscard]] const Footprint& footprint(std::uint32_t step) const { return footprints_[step]; }
  void addFootprint(std::uint32_t step, const Footprint& footprint);
  /// One more than the greatest number of a step.
  [[nodiscard]] std::uint32_t steps() const { return kMostTables + kMostOperations + *tasks_.size + 1; }
  /// The schedules that are added from now on are to be followed in this batch.
  void beginBatch();
  /// Drops what was found since beginBatch().
  void revertBatch();

  /// The progress of the processes.
  struct Header {
    std::uint64_t magic;
    StateValue subject;  ///< the scenario, the options and this program
    std::atomic<int> freeCores;
    std::atomic<std::uint64_t> followed;  ///< schedules that were run
    std::atomic<std::uint64_t> proved;    ///< merges that were compared
    std::atomic<bool> stop;               ///< the budget is used up
    std::atomic<bool> full;               ///< the shared memory is full
    std::uint32_t bound;                  ///< of the schedules that are being followed
    std::uint32_t firstFollowed;          ///< of them
    std::uint32_t statesBefore;           ///< number of states when the batch began
    std::uint32_t branchesBefore;
    std::uint64_t followedBefore;
    std::uint64_t provedBefore;
    std::atomic<int> lockedBy;  ///< the process that has the lock; 0 for none
    std::uint32_t sizes[9];
  };

 private:
  class Lock;
  struct Name {
    std::uint64_t high, low;
  };
  template <class T>
  SharedArray<T> array(std::uint32_t most, std::size_t sizeAt);
  static constexpr std::uint32_t kMostTables = 16;
  static constexpr std::uint32_t kMostOperations = 32;
  std::uint32_t* slotOf(const StateValue& value) const;
  std::uint32_t numberOfName(const SharedArray<Name>& names, std::string_view a, std::string_view b);

  void open(const std::string& file);

  int file_ = -1;
  char* memory_ = nullptr;
  std::size_t used_ = 0;
  Header* header_ = nullptr;
  SharedArray<State> states_;
  SharedArray<std::uint32_t> slots_;  ///< numbers of states, from 1, by their value
  SharedArray<Branch> branches_;
  SharedArray<Schedule> schedules_;
  SharedArray<Failure> failures_;
  SharedArray<End> ends_;
  SharedArray<Name> tasks_;
  SharedArray<Name> parts_;
  SharedArray<Footprint> footprints_;
};

}  // namespace KilnSim
