// No handles: keys are copied and hashed wherever they stand.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/KeyFollower.h"

namespace KilnEmServer {

template <class K>
class KeySpace {
 public:
  using Handle = std::uint32_t;
  static KeySpace& instance() {
    static KeySpace space;
    return space;
  }
  /// Nothing is fetched ahead.
  [[nodiscard]] bool many() const { return false; }
  void prefetch(Handle /*handle*/) const {}
  Handle expectInIndex(const K& /*key*/) const { return 0; }
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

}  // namespace KilnEmServer
