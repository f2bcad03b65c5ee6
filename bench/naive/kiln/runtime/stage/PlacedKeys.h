// Sets of keys, each with an index of its own.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kiln/platform/Value.h"
#include "kiln/runtime/collections/Collection.h"
#include "kiln/runtime/stage/LocalState.h"

namespace KilnEmServer {

template <class K>
using KeyPlaces = LocalCollection<K, std::uint32_t>;

template <class K>
class PlacedKeys {
 public:
  explicit PlacedKeys(const KeyPlaces<K>& /*places*/) {}
  [[nodiscard]] bool empty() const { return keys_.empty(); }
  void add(const K& key) { keys_.is(key, {}); }
  void remove(const K& key) { keys_.del(key); }
  const K* scanNext(KilnPlatform::ScanCursor<K>& cursor) const { return keys_.scanNext(cursor); }

 private:
  SparseCollection<K, KilnPlatform::Unit> keys_;
};

}  // namespace KilnEmServer
