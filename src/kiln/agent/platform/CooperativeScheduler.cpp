#include "kiln/agent/platform/CooperativeScheduler.h"

#include <limits>

#include "kiln/platform/Assert.h"

namespace KilnAgent {

CooperativeScheduler::CooperativeScheduler(std::unique_ptr<KilnPlatform::YieldPolicy> policy,
                                           std::optional<std::uint64_t> seed)
    : policy_(std::move(policy), counters_.yields), seed_(seed) {
  if (seed) shuffle_.emplace(*seed);
}

CooperativeScheduler::Queue& CooperativeScheduler::queueOf(const Task& task) {
  auto at = queues_.begin();
  while (at != queues_.end() && at->priority > task.priority()) ++at;
  if (at != queues_.end() && at->priority == task.priority()) [[likely]]
    return *at;
  return *queues_.emplace(at, task.priority());
}

void CooperativeScheduler::schedule(Task& task) {
  if (task.ready) return;
  Queue& queue = queueOf(task);
  const std::uint64_t deadline = task.patience() == 0 ? kNoDeadline : counters_.slices + task.patience();
  const std::uint64_t order = nextOrder_++;
  task.ready = true;
  task.readySince = queue.first + queue.slots.size();
  if (queue.slots.full()) queue.slots.set_capacity(2 * queue.slots.size() + 8);
  queue.slots.push_back({&task, deadline, order});
  ++queue.live;
  ++ready_;
  if (deadline != kNoDeadline) deadlines_.emplace(std::pair(deadline, order), &task);
}

void CooperativeScheduler::cancel(Task& task) {
  if (running_ == &task) running_ = nullptr;
  if (!task.ready) return;
  Queue& queue = queueOf(task);
  release(queue, queue.slots[task.readySince - queue.first]);
  while (!queue.slots.empty() && queue.slots.front().task == nullptr) {
    queue.slots.pop_front();
    ++queue.first;
  }
}

void CooperativeScheduler::release(Queue& queue, Slot& slot) {
  if (slot.deadline != kNoDeadline) deadlines_.erase({slot.deadline, slot.order});
  slot.task->ready = false;
  slot.task = nullptr;
  --queue.live;
  --ready_;
}

CooperativeScheduler::Task* CooperativeScheduler::takeFrom(Queue& queue) {
  while (true) {
    const std::size_t chosen = shuffle_ ? randomBelow(*shuffle_, queue.slots.size()) : 0;
    if (chosen != 0) {
      std::swap(queue.slots[chosen], queue.slots.front());
      if (Task* moved = queue.slots[chosen].task) moved->readySince = queue.first + chosen;
      if (Task* moved = queue.slots.front().task) moved->readySince = queue.first;
    }
    Task* task = queue.slots.front().task;
    if (task != nullptr) release(queue, queue.slots.front());
    queue.slots.pop_front();
    ++queue.first;
    if (task != nullptr) return task;
  }
}

CooperativeScheduler::Task* CooperativeScheduler::takeNext() {
  if (!deadlines_.empty() && deadlines_.begin()->first.first <= counters_.slices) {
    Task* task = deadlines_.begin()->second;
    cancel(*task);
    return task;
  }
  for (Queue& queue : queues_) {
    if (queue.live != 0) return takeFrom(queue);
  }
  return nullptr;
}

bool CooperativeScheduler::runOne() {
  KILN_ASSERT(running_ == nullptr && "a slice does not run other slices");
  Task* task = takeNext();
  if (task == nullptr) return false;
  runTaken(*task, policy_.present() ? &policy_ : nullptr);
  return true;
}

void CooperativeScheduler::runSlice(Task& task, KilnPlatform::YieldPolicy* policy) {
  KILN_ASSERT(running_ == nullptr && "a slice does not run other slices");
  KILN_ASSERT(task.ready);
  cancel(task);
  runTaken(task, policy != nullptr ? policy : policy_.present() ? &policy_ : nullptr);
}

void CooperativeScheduler::runTaken(Task& task, KilnPlatform::YieldPolicy* policy) {
  ++counters_.slices;
  workPending_ = 0;
  running_ = &task;
  sliceBegins(policy);
  task.run();
  sliceEnds();
  running_ = nullptr;
}

std::size_t CooperativeScheduler::run(std::size_t slices) {
  std::size_t done = 0;
  while (done < slices && runOne()) ++done;
  return done;
}

void CooperativeScheduler::runUntilIdle() {
  run(std::numeric_limits<std::size_t>::max());
}

void CooperativeScheduler::forgetAll() {
  for (Queue& queue : queues_) {
    for (Slot& slot : queue.slots) {
      if (slot.task != nullptr) release(queue, slot);
    }
    queue.first += queue.slots.size();
    queue.slots.clear();
  }
}

}  // namespace KilnAgent
