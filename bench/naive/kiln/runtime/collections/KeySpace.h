// No handles: keys are copied and hashed wherever they are stored.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "kiln/runtime/collections/KeyFollower.h"

namespace KilnEmServer {

template <class K>
class KeySpace {
 public:
  using Handle = std::uint32_t;
  static KeySpace& instance() {
    static KeySpace space;
    return space;
  }
  /// Nothing is prefetched.
  [[nodiscard]] bool exceedsCache() const { return false; }
  void prefetch(Handle /*handle*/) const {}
  Handle prefetchIndex(const K& /*key*/) const { return 0; }
  void prefetchEverywhere(const K& /*key*/) const {}
  void followerIs(const KeyFollower<K>& /*follower*/) {}
  void followerDel(const KeyFollower<K>& /*follower*/) {}
};

template <class K>
class KeyUse {
 public:
  explicit KeyUse(const K& key) : key_(key) {}
  KeyUse(const KeyUse&) = delete;
  KeyUse& operator=(const KeyUse&) = delete;
  [[nodiscard]] const K& key() const { return key_; }

 private:
  K key_;
};

template <class K>
class KeyHold {
 public:
  KeyHold() = default;
  explicit KeyHold(const K& key) : key_(key) {}
  explicit operator bool() const { return key_.has_value(); }
  [[nodiscard]] bool is(const K& key) const { return key_ == key; }
  [[nodiscard]] const K& key() const { return *key_; }

 private:
  std::optional<K> key_;
};

}  // namespace KilnEmServer
