// The cooperative task scheduler on which every stage runs.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "kiln/platform/Ref.h"

namespace KilnPlatform {

class TaskScheduler;

/// A unit of work that runs in slices on a scheduler. Its owner creates it, keeps it alive and destroys it.
/// Destruction takes it off the scheduler, also during its own run.
class Task {
 public:
  /// Runs one slice for the owner that was given at construction.
  using Run = void (*)(void* owner);

  /// `priority`: the greater number runs first. `patience`: number of runs of other tasks that may pass while
  /// this one is ready, before it runs in spite of its lower priority; 0 waits without limit. `instance`
  /// distinguishes tasks of one name.
  Task(Ref<TaskScheduler> scheduler, int priority, std::string name, Run slice, void* owner,
       std::uint32_t patience = 0, std::string instance = {})
      : scheduler_(std::move(scheduler)),
        name_(std::move(name)),
        instance_(std::move(instance)),
        run_(slice),
        owner_(owner),
        priority_(priority),
        patience_(patience) {}
  inline ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  /// Runs the task again later; does nothing if it is ready already.
  inline void scheduleTask();

  [[nodiscard]] std::string_view name() const { return name_; }
  /// The owner's instance name, if other tasks have the same name; may be empty.
  [[nodiscard]] std::string_view instance() const { return instance_; }
  [[nodiscard]] int priority() const { return priority_; }
  [[nodiscard]] std::uint32_t patience() const { return patience_; }
  [[nodiscard]] const Ref<TaskScheduler>& scheduler() const { return scheduler_; }

  /// For the scheduler: runs one slice.
  void run() { run_(owner_); }
  /// For the scheduler: whether the task is in its ready queue, and since which of its runs.
  bool ready = false;
  std::uint64_t readySince = 0;

 private:
  Ref<TaskScheduler> scheduler_;
  std::string name_;
  std::string instance_;
  Run run_;
  void* owner_;
  int priority_;
  std::uint32_t patience_;
};

/// Decides when a slice has used up its time. Pluggable: a time budget in production, every item in tests.
class YieldPolicy {
 public:
  virtual ~YieldPolicy() = default;
  /// A slice begins. Returns after how many items `ask` is called first; 0 never calls it.
  virtual std::uint32_t sliceBegins() = 0;
  /// `itemsDone` more items were done in this slice. Returns 0 to yield, otherwise after how many items to
  /// call again.
  virtual std::uint32_t ask(std::uint32_t itemsDone) = 0;
};

/// One thread's scheduler. Tasks of one priority run in FIFO order, unless the implementation shuffles them
/// from a seed.
class TaskScheduler {
 public:
  virtual ~TaskScheduler() = default;
  TaskScheduler(const TaskScheduler&) = delete;
  TaskScheduler& operator=(const TaskScheduler&) = delete;

  /// Puts the task into the ready queue of its priority unless it is there.
  virtual void schedule(Task& task) = 0;
  /// Takes the task out of the ready queue; also called for a task that is being destroyed.
  virtual void cancel(Task& task) = 0;
  /// The task whose slice is running, or null between slices.
  [[nodiscard]] virtual const Task* taskCurrentlyRunning() const = 0;
  /// The running task did `items` items in this slice.
  virtual void taskWorkCountInc(std::size_t items) = 0;
  /// About `items` items are left for the running task.
  virtual void taskWorkPendingIs(std::size_t items) = 0;
  /// The scheduler's clock, for time stamps. Simulated schedulers have a simulated one.
  [[nodiscard]] virtual std::chrono::nanoseconds now() const = 0;

  /// To be called after each item of work: whether the running slice has used up its time. False outside any
  /// slice.
  bool taskShouldYield() {
    if (--itemsToAsk_ != 0) [[likely]]
      return false;
    return askPolicy();
  }

 protected:
  TaskScheduler() = default;

  /// For the implementation, around each slice; with a null policy a slice never yields.
  void sliceBegins(YieldPolicy* policy) {
    policy_ = policy;
    itemsGranted_ = policy == nullptr ? 0 : policy->sliceBegins();
    itemsToAsk_ = itemsGranted_;
  }
  void sliceEnds() {
    policy_ = nullptr;
    itemsToAsk_ = 0;
  }

 private:
  bool askPolicy() {
    if (policy_ == nullptr) return false;
    const std::uint32_t next = policy_->ask(itemsGranted_);
    itemsGranted_ = next;
    itemsToAsk_ = next;
    if (next != 0) return false;
    itemsToAsk_ = 1;  // a slice that does not stop is asked to yield again after each item
    itemsGranted_ = 1;
    return true;
  }

  YieldPolicy* policy_ = nullptr;
  std::uint64_t itemsToAsk_ = 0;
  std::uint32_t itemsGranted_ = 0;
};

inline Task::~Task() {
  scheduler_->cancel(*this);
}
inline void Task::scheduleTask() {
  if (!ready) scheduler_->schedule(*this);
}

}  // namespace KilnPlatform
