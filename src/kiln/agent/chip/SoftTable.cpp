#include "kiln/agent/chip/SoftTable.h"

#include <algorithm>
#include <array>
#include <memory>

#include "kiln/agent/platform/CooperativeScheduler.h"
#include "kiln/platform/Assert.h"
#include "kiln/program/EmSwTableWriterSm.h"

namespace KilnAgent {

void ChangeSubscribers::remove(Asic::ChangeSubscriber& subscriber) {
  std::erase(subscribers_, &subscriber);
}

void ChangeSubscribers::notify() {
  const std::vector<Asic::ChangeSubscriber*> notified = subscribers_;
  for (Asic::ChangeSubscriber* subscriber : notified) {
    if (std::find(subscribers_.begin(), subscribers_.end(), subscriber) != subscribers_.end()) {
      subscriber->handleChange();
    }
  }
}

std::uint64_t PendingHwWrites::begin(std::size_t operations) {
  const bool was = pendingHwWrites();
  operations_ += operations;
  const std::uint64_t first = begun_ + 1;
  begun_ += operations;
  if (pendingHwWrites() != was) subscribers_.notify();
  return first;
}

bool PendingHwWrites::takeRefused() {
  if (!writesToRefused_) return false;
  if (*writesToRefused_ != 0) {
    --*writesToRefused_;
    return false;
  }
  writesToRefused_.reset();
  return true;
}

void PendingHwWrites::end(std::size_t operations) {
  KILN_ASSERT(operations <= operations_);
  const bool was = pendingHwWrites();
  operations_ -= operations;
  if (pendingHwWrites() != was) subscribers_.notify();
}

SoftTable::SoftTable(const Setting& setting)
    : stem_(setting.stem),
      capacity_(setting.capacity),
      random_(setting.random),
      pending_(*setting.pending),
      room_(*setting.room),
      task_(
          setting.scheduler, 0, "SoftChip-" + std::string(setting.stem),
          [](void* self) { static_cast<SoftTable*>(self)->runAnswers(); }, this, kAgentPatience) {}

void SoftTable::watcherIs(TableWatcher& watcher, bool on) {
  std::erase(watchers_, &watcher);
  if (on) watchers_.push_back(&watcher);
}

std::uint64_t SoftTable::beginOperation(bool isWrite) {
  ++(isWrite ? operations_.writes : operations_.removals);
  refusesThis_ = isWrite && pending_.takeRefused();
  return pending_.begin(1);
}

void SoftTable::deliver(std::uint64_t number, EntryState outcome, ResponseHandler&& handler) {
  if (mode_ == AnswerMode::hold) {
    held_.emplace_back(number, outcome, std::move(handler));
  } else if (insideCall_) {
    Answer answer(number, outcome, std::move(handler));
    call(answer);
  } else {
    due_.emplace_back(number, outcome, std::move(handler));
    task_.scheduleTask();
  }
}

void SoftTable::call(Answer& answer) {
  static const auto handleOf = [](EntryState state) {
    return std::make_shared<const Asic::OrderedSwTable::EntryHandle>(state);
  };
  static const std::array<Ref<const Asic::OrderedSwTable::EntryHandle>, 5> handles = {
      handleOf(EntryState::unknown_), handleOf(EntryState::pending_), handleOf(EntryState::refused_),
      handleOf(EntryState::noResource_), handleOf(EntryState::success_)};
  const EntryState outcome = settle(answer.number).value_or(answer.outcome);
  for (TableWatcher* watcher : watchers_) watcher->handleAnswered(answer.number);
  answer.handler(handles[static_cast<std::size_t>(outcome)]);
  pending_.end(1);
}

SoftTable::Answer SoftTable::takeFront(Answers& answers) {
  Answer answer = std::move(answers.front());
  answers.pop_front();
  return answer;
}

void SoftTable::runAnswers() {
  if (draining_ != 0) pending_.end(std::exchange(draining_, 0));
  const bool shuffled = random_ != nullptr && !due_.empty();
  std::size_t dueNow = shuffled ? 1 + randomBelow(*random_, due_.size()) : due_.size();
  while (!released_.empty() || dueNow != 0) {
    if (!released_.empty()) {
      Answer answer = takeFront(released_);
      call(answer);
    } else {
      if (shuffled) std::swap(due_.front(), due_[randomBelow(*random_, due_.size())]);
      --dueNow;
      Answer answer = takeFront(due_);
      call(answer);
    }
    task_.scheduler()->taskWorkCountInc(1);
    if (task_.scheduler()->taskShouldYield()) break;
  }
  if (released_.empty() && due_.empty()) return;
  task_.scheduler()->taskWorkPendingIs(released_.size() + due_.size());
  task_.scheduleTask();
}

void SoftTable::answerModeIs(AnswerMode mode) {
  mode_ = mode;
  if (mode != AnswerMode::hold) answer(Order::fifo, held_.size());
}

void SoftTable::answer(Order order, std::size_t count, std::size_t skip) {
  for (; count != 0 && skip < held_.size(); --count) {
    const std::size_t at = order == Order::lifo ? held_.size() - 1 - skip : skip;
    released_.push_back(std::move(held_[at]));
    held_.erase(held_.begin() + static_cast<std::ptrdiff_t>(at));
  }
  if (!released_.empty()) task_.scheduleTask();
}

void SoftTable::serverEnded() {
  applyIssued();
  forgetIssued();
  pending_.end(held_.size());
  held_.clear();
  unclaimAll();
}

void SoftTable::serverDied() {
  forgetTableSubscribers();
  pending_.end(due_.size() + released_.size() + std::exchange(dropped_, 0) + std::exchange(draining_, 0));
  due_.clear();
  released_.clear();
  serverEnded();
}

void SoftTable::reconcileComplete() {
  const std::size_t dropped = dropUnclaimed();
  dropped_ += dropped;
  if (dropped != 0) pending_.begin(dropped);
}

void SoftTable::commit() {
  draining_ += std::exchange(dropped_, 0);
  if (draining_ != 0 || !due_.empty()) task_.scheduleTask();
}

void SoftTable::noteState(KilnEmServer::StateDigest& digest) const {
  digest.begin(std::string(task_.name()));
  digest.add(std::tie(capacity_, mode_, applies_, insideCall_, dropped_, draining_));
  for (const Answers* answers : {&due_, &released_, &held_}) noteAnswers(digest, *answers);
}

// The operation itself is described by the handler that waits for the answer.
void SoftTable::noteAnswers(KilnEmServer::StateDigest& digest, const Answers& answers) const {
  for (const Answer& answer : answers) {
    digest.add(answer.outcome);
    digest.add(KilnEmServer::EmSwTableWriterSm::noteAnswer(digest, answer.handler));
    digest.add(rankOf(answer));
  }
  digest.add(answers.size());
}

std::size_t SoftTable::rankOf(const Answer& answer) const {
  using Writer = KilnEmServer::EmSwTableWriterSm;
  const KilnEmServer::EmHwKey* key = Writer::keyOf(answer.handler);
  std::size_t rank = 0;
  for (const Answers* answers : {&due_, &released_, &held_}) {
    for (const Answer& other : *answers) {
      const KilnEmServer::EmHwKey* otherKey = Writer::keyOf(other.handler);
      const bool sameKey = key == nullptr || otherKey == nullptr || *key == *otherKey;
      if (sameKey && other.number < answer.number) ++rank;
    }
  }
  return rank;
}

}  // namespace KilnAgent
