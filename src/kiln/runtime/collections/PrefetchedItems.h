// Prefetching for lists of keys that are looked up one after the other in one collection.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "kiln/runtime/collections/KeySpace.h"

namespace KilnEmServer {

/// Calls `visit(item)` for each item of a list, in order. The value that `collection` has under the item's
/// key, `keyOf(item)`, is prefetched into the cache before the item is visited.
template <class C, class Item, class KeyOf, class Visit>
void forEachPrefetched(const C& collection, std::span<const Item> items, KeyOf&& keyOf, Visit&& visit) {
  using Keys = KeySpace<typename C::Key>;
  constexpr std::size_t kTogether = 64;  // small enough that prefetched lines are still in the cache
  const Keys& keys = Keys::instance();
  std::array<std::uint32_t, kTogether> hashes;
  while (!items.empty()) {
    const auto some = items.first(std::min(items.size(), kTogether));
    items = items.subspan(some.size());
    for (std::size_t at = 0; at < some.size(); ++at) hashes[at] = keys.prefetchIndex(keyOf(some[at]));
    for (std::size_t at = 0; at < some.size(); ++at) {
      const auto handle = keys.prefetchFound(hashes[at], keyOf(some[at]));
      if (handle != Keys::kNone) collection.prefetch(handle);
    }
    for (const Item& item : some) visit(item);
  }
}

/// Prefetches keys of a collection that are announced one by one, each some time before its lookup. An
/// announcement prefetches the key's place in the index immediately, and the stored value when the next key
/// is announced, or immediately if `next` is set. The value of the last key of a list is not prefetched.
template <class C>
class KeyPrefetcher {
 public:
  void prefetch(const C& collection, const typename C::Key& key, bool next) {
    using Keys = KeySpace<typename C::Key>;
    const Keys& keys = Keys::instance();
    const std::uint32_t hash = keys.prefetchIndex(key);
    const auto handle = keys.prefetchFound(next ? hash : std::exchange(hash_, hash));
    if (handle != Keys::kNone) collection.prefetch(handle);
  }

 private:
  std::uint32_t hash_ = 0;  ///< of the last announced key
};

}  // namespace KilnEmServer
