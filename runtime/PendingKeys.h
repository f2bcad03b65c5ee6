// The keys that changed and were not handled yet.
#pragma once

#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/Assert.h"
#include "platform/Value.h"

namespace KilnEmServer {

/// A queue in which a key stands at most once, in the order in which keys came. Its memory is bounded by
/// twice the greatest number of distinct keys that ever stood in it at once.
template <class K>
class PendingKeys {
 public:
  /// Adds the key at the end unless it stands in the queue. `arrival` grows from call to call. True where
  /// added.
  bool add(const K& key, std::uint64_t arrival) {
    if (!standing_.insert(key).second) return false;
    queue_.push_back({key, arrival});
    return true;
  }
  [[nodiscard]] bool empty() const { return head_ == queue_.size(); }
  [[nodiscard]] std::size_t size() const { return queue_.size() - head_; }
  /// Arrival of the first key; the queue must not be empty.
  [[nodiscard]] std::uint64_t headArrival() const { return queue_[head_].arrival; }

  /// Takes the first key out. From then on a change of it stands in the queue again.
  K pop() {
    KILN_ASSERT(!empty());
    const K key = queue_[head_++].key;
    standing_.erase(key);
    if (head_ == queue_.size()) {
      queue_.clear();
      head_ = 0;
    } else if (head_ > queue_.size() / 2 && head_ >= kCompactFrom) {
      queue_.erase(queue_.begin(), queue_.begin() + static_cast<std::ptrdiff_t>(head_));
      head_ = 0;
    }
    return key;
  }

  void clear() {
    queue_.clear();
    standing_.clear();
    head_ = 0;
  }

 private:
  static constexpr std::size_t kCompactFrom = 64;
  struct Item {
    K key;
    std::uint64_t arrival;
  };
  std::vector<Item> queue_;
  std::size_t head_ = 0;
  boost::unordered_flat_set<K, KilnPlatform::ValueHash<K>> standing_;
};

}  // namespace KilnEmServer
