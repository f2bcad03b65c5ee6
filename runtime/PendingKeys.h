// The keys that changed and were not handled yet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/Assert.h"
#include "runtime/KeySpace.h"

namespace KilnEmServer {

/// A queue in which a key stands at most once, in the order in which keys came. Its memory is bounded by
/// twice the greatest number of distinct keys that ever stood in it at once, and a bit per key of the type.
template <class K>
class PendingKeys {
 public:
  PendingKeys() = default;
  ~PendingKeys() { clear(); }
  PendingKeys(const PendingKeys&) = delete;
  PendingKeys& operator=(const PendingKeys&) = delete;

  /// Adds the key at the end unless it stands in the queue. `arrival` grows from call to call. True where
  /// added.
  bool add(const K& key, std::uint64_t arrival) {
    const std::uint32_t handle = keys_.acquire(key);
    if (!standing_.set(handle)) {
      keys_.release(handle);
      return false;
    }
    queue_.push_back({handle, arrival});
    return true;
  }
  [[nodiscard]] bool empty() const { return head_ == queue_.size(); }
  [[nodiscard]] std::size_t size() const { return queue_.size() - head_; }
  /// Arrival of the first key; the queue must not be empty.
  [[nodiscard]] std::uint64_t headArrival() const { return queue_[head_].arrival; }

  /// Takes the first key out. From then on a change of it stands in the queue again.
  K pop() {
    KILN_ASSERT(!empty());
    const std::uint32_t handle = queue_[head_++].handle;
    const K key = keys_.key(handle);
    standing_.reset(handle);
    keys_.expect(handle);
    keys_.release(handle);
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
    while (!empty()) (void)pop();
  }

 private:
  static constexpr std::size_t kCompactFrom = 64;
  struct Item {
    std::uint32_t handle;
    std::uint64_t arrival;
  };
  /// A bit per handle.
  class Bits {
   public:
    /// True where the bit was not set.
    bool set(std::uint32_t handle) {
      if (handle / 64 >= words_.size()) words_.resize(handle / 64 + 1);
      std::uint64_t& word = words_[handle / 64];
      const std::uint64_t bit = std::uint64_t{1} << (handle % 64);
      if ((word & bit) != 0) return false;
      word |= bit;
      return true;
    }
    void reset(std::uint32_t handle) { words_[handle / 64] &= ~(std::uint64_t{1} << (handle % 64)); }

   private:
    std::vector<std::uint64_t> words_;
  };

  KeySpace<K>& keys_ = KeySpace<K>::instance();
  std::vector<Item> queue_;
  std::size_t head_ = 0;
  Bits standing_;
};

}  // namespace KilnEmServer
