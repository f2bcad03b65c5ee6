// The keys that changed and are not handled yet: a queue of keys, and a set of those in the queue.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_set>
#include <utility>

#include "kiln/platform/Value.h"
#include "kiln/runtime/collections/KeySpace.h"

namespace KilnEmServer {

using Arrival = std::uint32_t;
inline constexpr Arrival kFirstArrival = 0;
inline bool isBefore(Arrival a, Arrival b) {
  return static_cast<std::int32_t>(a - b) < 0;
}

template <class K>
class PendingKeys {
 public:
  bool add(const K& key, Arrival arrival) {
    if (!standing_.insert(key).second) return false;
    queue_.emplace_back(key, arrival);
    return true;
  }
  [[nodiscard]] bool empty() const { return queue_.empty(); }
  [[nodiscard]] std::size_t size() const { return queue_.size(); }
  [[nodiscard]] bool has(const K& key) const { return standing_.contains(key); }
  [[nodiscard]] Arrival headArrival() const { return queue_.front().second; }
  template <class Visitor>
  void forEach(Visitor&& visit) const {
    for (const auto& [key, arrival] : queue_) visit(key, arrival);
  }
  [[nodiscard]] KeyUse<K> take() { return KeyUse<K>(pop()); }
  K pop() {
    const K key = queue_.front().first;
    queue_.pop_front();
    standing_.erase(key);
    return key;
  }
  template <class Fetch>
  void prefetchFar(Fetch&& /*fetch*/) const {}
  template <class Fetch>
  void prefetchNear(Fetch&& /*fetch*/) const {}
  void clear() {
    queue_.clear();
    standing_.clear();
  }

 private:
  std::deque<std::pair<K, Arrival>> queue_;
  std::unordered_set<K, KilnPlatform::ValueHash<K>> standing_;
};

}  // namespace KilnEmServer
