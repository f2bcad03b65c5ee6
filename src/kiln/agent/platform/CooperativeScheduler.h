// The agent's cooperative task scheduler: one thread, deterministic, repeatable from a seed.
#pragma once

#include <boost/circular_buffer.hpp>
#include <boost/container/flat_map.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <utility>
#include <vector>

#include "kiln/platform/TaskScheduler.h"

namespace KilnAgent {

/// A number below `bound` (at least 1), the same on every machine for the same engine state.
inline std::size_t randomBelow(std::mt19937_64& random, std::size_t bound) {
  return static_cast<std::size_t>(random() % bound);
}

/// Maximum number of runs of other tasks for which the agent's own work waits. Its priority is below the
/// stages'. The limit is about one run of each stage, so that tables answer and VLAN domains are allotted
/// under unending load, too.
inline constexpr std::uint32_t kAgentPatience = 64;

/// A ready queue per priority, the greatest priority first. Tasks of one priority run in FIFO order, or with
/// a seed in an order drawn from it. A task whose patience is used up runs before all others.
class CooperativeScheduler final : public KilnPlatform::TaskScheduler {
 public:
  /// Work done since construction.
  struct Counters {
    std::uint64_t slices = 0;  ///< task runs
    std::uint64_t yields = 0;  ///< decisions of the yield policy that a slice must end
    std::uint64_t items = 0;   ///< items of work reported by tasks
  };

  /// With a null `policy` no slice yields. Without a `seed` the order is FIFO.
  explicit CooperativeScheduler(std::unique_ptr<KilnPlatform::YieldPolicy> policy = nullptr,
                                std::optional<std::uint64_t> seed = std::nullopt);

  void schedule(KilnPlatform::Task& task) override;
  void cancel(KilnPlatform::Task& task) override;
  [[nodiscard]] const KilnPlatform::Task* taskCurrentlyRunning() const override { return running_; }
  void taskWorkCountInc(std::size_t items) override { counters_.items += items; }
  void taskWorkPendingIs(std::size_t items) override { workPending_ = items; }
  /// A simulated clock: one microsecond for each slice.
  [[nodiscard]] std::chrono::nanoseconds now() const override {
    return std::chrono::microseconds(counters_.slices);
  }

  /// Runs one slice of one ready task. False if none is ready. Not to be called from within a slice.
  bool runOne();
  /// Runs up to `slices` slices; returns how many it ran.
  std::size_t run(std::size_t slices);
  /// Runs until no task is ready.
  void runUntilIdle();
  /// Runs one slice of this ready task, whatever else is ready. A `policy` other than null replaces the
  /// scheduler's own.
  void runSlice(KilnPlatform::Task& task, KilnPlatform::YieldPolicy* policy = nullptr);
  /// Calls `visitor` with each ready task, in no particular order. It must not schedule or run any.
  template <class Visitor>
  void forEachReady(Visitor&& visitor) const {
    for (const Queue& queue : queues_) {
      for (const Slot& slot : queue.slots) {
        if (slot.task != nullptr) visitor(*slot.task);
      }
    }
  }

  [[nodiscard]] bool idle() const { return ready_ == 0; }
  /// The seed of the order; none if the order is FIFO.
  [[nodiscard]] std::optional<std::uint64_t> seed() const { return seed_; }
  [[nodiscard]] const Counters& counters() const { return counters_; }
  /// Items left to do, as last reported by a task.
  [[nodiscard]] std::size_t workPending() const { return workPending_; }

  /// Drops every ready task without notifying its owner, as if the process had died. The tasks may be
  /// destroyed, or scheduled again, afterwards.
  void forgetAll();

 private:
  using Task = KilnPlatform::Task;

  /// A task's place in a queue; null if the task was cancelled.
  struct Slot {
    Task* task;
    std::uint64_t deadline;  ///< number of runs after which patience is used up, or kNoDeadline
    std::uint64_t order;     ///< unique, ascending by the moment of becoming ready
  };
  /// A ready task's `readySince` is `first` plus its index in `slots`.
  struct Queue {
    explicit Queue(int queuePriority) : priority(queuePriority) {}
    int priority;
    boost::circular_buffer<Slot> slots;
    std::uint64_t first = 0;
    std::size_t live = 0;
  };
  static constexpr std::uint64_t kNoDeadline = ~std::uint64_t{0};

  /// Forwards the policy's answers and counts those that say yield.
  class CountingPolicy final : public KilnPlatform::YieldPolicy {
   public:
    CountingPolicy(std::unique_ptr<KilnPlatform::YieldPolicy> policy, std::uint64_t& yields)
        : policy_(std::move(policy)), yields_(yields) {}
    [[nodiscard]] bool present() const { return policy_ != nullptr; }
    std::uint32_t sliceBegins() override { return policy_->sliceBegins(); }
    std::uint32_t ask(std::uint32_t itemsDone) override {
      const std::uint32_t next = policy_->ask(itemsDone);
      if (next == 0) ++yields_;
      return next;
    }

   private:
    std::unique_ptr<KilnPlatform::YieldPolicy> policy_;
    std::uint64_t& yields_;
  };

  Queue& queueOf(const Task& task);
  Task* takeNext();
  Task* takeFrom(Queue& queue);
  void release(Queue& queue, Slot& slot);
  void runTaken(Task& task, KilnPlatform::YieldPolicy* policy);

  Counters counters_;
  CountingPolicy policy_;
  std::optional<std::uint64_t> seed_;
  std::optional<std::mt19937_64> shuffle_;
  std::vector<Queue> queues_;  ///< the greatest priority first; few
  /// By deadline, then order; few tasks have one.
  boost::container::flat_map<std::pair<std::uint64_t, std::uint64_t>, Task*> deadlines_;
  std::uint64_t nextOrder_ = 0;
  std::size_t ready_ = 0;
  std::size_t workPending_ = 0;
  Task* running_ = nullptr;
};

}  // namespace KilnAgent
