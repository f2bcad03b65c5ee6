// Keys by handle. A key that stands in several collections is stored and hashed once; each collection files
// its values under the key's handle.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "platform/Assert.h"
#include "platform/Value.h"
#include "runtime/HandleIndex.h"
#include "runtime/PagedArray.h"

namespace KilnEmServer {

/// All keys of one type that stand in any collection or pending list of this thread. A handle is valid as
/// long as somebody holds a use of it.
template <class K>
class KeySpace {
 public:
  using Handle = std::uint32_t;
  static constexpr Handle kNone = HandleIndex::kNone;

  /// This thread's space. It lives as long as the thread, so that collections of any lifetime may use it.
  static KeySpace& instance() {
    static thread_local auto* const space = new KeySpace;
    return *space;
  }

  /// The handle of a key, or kNone where nobody uses the key.
  [[nodiscard]] Handle find(const K& key) const {
    if (isLast(key)) return last_;
    const Handle found = lookUp(hashOf(key), key);
    if (found != kNone) last_ = found;
    return found;
  }
  /// The handle of a key, with one more use.
  Handle acquire(const K& key) {
    if (!isLast(key)) {
      const std::uint32_t hash = hashOf(key);
      const Handle found = lookUp(hash, key);
      last_ = found != kNone ? found : add(hash, key);
    }
    ++slots_[last_].uses;
    return last_;
  }
  /// Gives a use back. The last one frees the handle.
  void release(Handle handle) {
    Slot& slot = slots_[handle];
    KILN_ASSERT(slot.uses != 0);
    if (--slot.uses == 0) free(handle);
  }
  /// The key of a handle that is in use.
  [[nodiscard]] const K& key(Handle handle) const { return slots_[handle].key; }
  /// The key is about to be looked up in several collections.
  void expect(Handle handle) const { last_ = handle; }
  /// Keys in use.
  [[nodiscard]] std::size_t size() const { return index_.size(); }

 private:
  struct Slot {
    K key;
    std::uint32_t hash;
    std::uint32_t uses;
  };

  KeySpace() = default;

  static std::uint32_t hashOf(const K& key) {
    return static_cast<std::uint32_t>(KilnPlatform::hashValue(key));
  }
  static bool sameKey(const K& a, const K& b) {
    // A copy has the same bytes, and that is quicker to see than that all fields are equal.
    if constexpr (std::is_trivially_copyable_v<K>) {
      if (std::memcmp(&a, &b, sizeof(K)) == 0) return true;
    }
    return a == b;
  }
  [[nodiscard]] bool isLast(const K& key) const { return last_ != kNone && sameKey(slots_[last_].key, key); }
  [[nodiscard]] Handle lookUp(std::uint32_t hash, const K& key) const {
    return index_.find(hash, [&](Handle handle) { return sameKey(slots_[handle].key, key); });
  }

  Handle add(std::uint32_t hash, const K& key) {
    Handle handle = static_cast<Handle>(slots_.size());
    if (free_.empty()) {
      slots_.emplace_back(key, hash, 0U);
    } else {
      handle = free_.back();
      free_.pop_back();
      slots_[handle] = {key, hash, 0};
    }
    index_.insert(hash, handle);
    return handle;
  }
  void free(Handle handle) {
    index_.erase(slots_[handle].hash, handle);
    if (last_ == handle) last_ = kNone;
    if (index_.size() == 0) {
      last_ = kNone;
      index_.clear();
      slots_.clear();
      free_ = {};
      return;
    }
    if constexpr (!std::is_trivially_destructible_v<K>) slots_[handle].key = K{};
    free_.push_back(handle);
  }

  PagedArray<Slot> slots_;
  std::vector<Handle> free_;
  HandleIndex index_;
  mutable Handle last_ = kNone;  ///< the key that was looked up last is looked up again more often than not
};

}  // namespace KilnEmServer
