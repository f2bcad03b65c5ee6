#include "program/RefusedKeys.h"

namespace KilnEmServer {

RefusedKeys::RefusedKeys(Stage& stage, Retrying& owner)
    : OwnWork(stage, "refusedKeys"), owner_(owner), waiting_(stage) {}

void RefusedKeys::add(const EmHwKey& hwKey, bool roomSince) {
  remove(hwKey);
  waiting_.byOrder.emplace(++lastOrder_, hwKey);
  waiting_.orderOf.obtain(hwKey) = lastOrder_;
  if (!roomSince) return;
  const bool wasDue = hasPending();
  if (immediate_.add(hwKey, stage_.arrivals()) && !wasDue) dueIs();
}

void RefusedKeys::remove(const EmHwKey& hwKey) {
  const Order* order = waiting_.orderOf.find(hwKey);
  if (order == nullptr) return;
  waiting_.byOrder.erase(*order);
  waiting_.orderOf.del(hwKey);
  if (waiting_.byOrder.empty()) removals_ = 0;
}

void RefusedKeys::removalAnswered() {
  if (waiting_.byOrder.empty()) return;
  const bool wasDue = hasPending();
  ++removals_;
  if (!wasDue) dueIs();
}

void RefusedKeys::allDue() {
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
      !waiting_.byOrder.empty() && (removals_ != 0 || waiting_.byOrder.begin()->first <= dueUpTo_);
  return immediate_.size() + std::size_t{firstDue};
}

void RefusedKeys::handleNext() {
  EmHwKey hwKey;
  if (!immediate_.empty()) {
    hwKey = immediate_.pop();
    if (waiting_.orderOf.find(hwKey) == nullptr) return;  // written or removed since
  } else {
    const auto first = waiting_.byOrder.begin();
    if (first->first > dueUpTo_) --removals_;
    hwKey = first->second;
  }
  remove(hwKey);
  owner_.retry(hwKey);
}

}  // namespace KilnEmServer
