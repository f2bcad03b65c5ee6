#include "kiln/program/RefusedKeys.h"

#include <utility>

namespace KilnEmServer {

RefusedKeys::RefusedKeys(Stage& stage, Retrying& owner, Ref<TableRoom> room)
    : WorkQueue(stage, "refusedKeys"), owner_(owner), room_(std::move(room)), waiting_(stage) {
  room_->waitingIs(*this);
}

void RefusedKeys::add(const EmHwKey& hwKey, std::uint32_t issuedAt) {
  remove(hwKey);
  const Order order = ++lastOrder_;
  if (waiting_.spare) {
    waiting_.spare.key() = order;
    waiting_.spare.mapped() = hwKey;
    waiting_.byOrder.insert(std::move(waiting_.spare));
  } else {
    waiting_.byOrder.emplace(order, hwKey);
  }
  waiting_.orderOf.obtain(hwKey) = order;
  if (issuedAt == moment()) return;
  const bool wasDue = hasPending();
  if (immediate_.add(hwKey, stage_.arrivals()) && !wasDue) dueIs();
}

void RefusedKeys::remove(const EmHwKey& hwKey) {
  const Order* order = waiting_.orderOf.find(hwKey);
  if (order == nullptr) return;
  waiting_.spare = waiting_.byOrder.extract(*order);
  waiting_.orderOf.del(hwKey);
  if (waiting_.byOrder.empty()) departures_ = 0;
}

void RefusedKeys::handleDeparture() {
  if (waiting_.byOrder.empty()) return;
  const bool wasDue = hasPending();
  ++departures_;
  if (!wasDue) dueIs();
}

void RefusedKeys::allDue() {
  ++completions_;
  const bool wasDue = hasPending();
  dueUpTo_ = lastOrder_;
  if (!wasDue && hasPending()) dueIs();
}

void RefusedKeys::dueIs() {
  arrival_ = stage_.arrivals();
  stage_.noteArrival(*this, true);
}

std::size_t RefusedKeys::pendingCount() const {
  const bool firstDue =
      !waiting_.byOrder.empty() && (departures_ != 0 || waiting_.byOrder.begin()->first <= dueUpTo_);
  return immediate_.size() + std::size_t{firstDue};
}

// Orders are compared with each other and with the last one that is due. The number of departures is compared
// for equality with the moments of unanswered writes, and described with these.
void RefusedKeys::noteState(StateDigest& digest) const {
  InputBase::noteState(digest);
  digest.add(departures_);
  for (const auto& [order, hwKey] : waiting_.byOrder) digest.add(order <= dueUpTo_);
  immediate_.forEach([&](const EmHwKey& hwKey, Arrival /*arrival*/) { digest.add(hwKey); });
  digest.add(immediate_.size());
}

void RefusedKeys::handleNext() {
  EmHwKey hwKey;
  if (!immediate_.empty()) {
    hwKey = immediate_.pop();
    if (waiting_.orderOf.find(hwKey) == nullptr) return;  // written or removed in the meantime
  } else {
    const auto first = waiting_.byOrder.begin();
    if (first->first > dueUpTo_) --departures_;
    hwKey = first->second;
  }
  remove(hwKey);
  owner_.retry(hwKey);
}

}  // namespace KilnEmServer
