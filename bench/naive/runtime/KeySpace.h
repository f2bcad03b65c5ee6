// No handles: keys are copied and hashed wherever they stand.
#pragma once

#include <cstddef>
#include <cstdint>

namespace KilnEmServer {

template <class K>
class KeySpace {
 public:
  using Handle = std::uint32_t;
  static KeySpace& instance() {
    static KeySpace space;
    return space;
  }
  /// None that would be worth fetching ahead.
  [[nodiscard]] std::size_t size() const { return 0; }
  void prefetch(Handle /*handle*/) const {}
  void prefetchEverywhere(Handle /*handle*/) const {}
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
