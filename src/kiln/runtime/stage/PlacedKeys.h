// Disjoint key sets that share one position column.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kiln/platform/Collection.h"
#include "kiln/runtime/collections/KeySpace.h"
#include "kiln/runtime/collections/PagedArray.h"
#include "kiln/runtime/stage/LocalState.h"

namespace KilnEmServer {

/// The position of a key in the array of its set. It is not part of the state: the sets define which keys
/// they have.
struct KeyPlace {
  std::uint32_t at = 0;
  void noteState(StateDigest& /*digest*/) const {}
};
/// The positions of the keys of several sets; a local state of the stage that has the sets.
template <class K>
using KeyPlaces = LocalCollection<K, KeyPlace>;

/// One of the sets that share their `KeyPlaces`: an array of keys, in which a removal moves the last one into
/// the hole. With the shared column a set needs no index of its own, whose cells would be scattered in
/// memory.
template <class K>
class PlacedKeys {
 public:
  /// `places` must outlive the set, or be cleared when the set is no longer used.
  explicit PlacedKeys(KeyPlaces<K>& places) : places_(places) {}
  ~PlacedKeys() {
    for (std::size_t at = 0; at < handles_.size(); ++at) keys_.release(handles_[at]);
  }
  PlacedKeys(const PlacedKeys&) = delete;
  PlacedKeys& operator=(const PlacedKeys&) = delete;

  [[nodiscard]] bool empty() const { return handles_.empty(); }
  [[nodiscard]] std::size_t size() const { return handles_.size(); }

  /// Adds a key that is in none of the other sets, unless it is in this one.
  void add(const K& key) {
    if (places_.has(key)) return;
    const auto handle = keys_.acquire(key);
    places_.is(key, {static_cast<std::uint32_t>(handles_.size())});
    handles_.emplace_back(handle);
  }
  /// Removes a key if it is in this set; it must be in none of the others.
  void remove(const K& key) {
    const KeyPlace* found = places_.find(key);
    if (found == nullptr) return;
    const std::uint32_t place = found->at;
    places_.del(key);
    const auto removed = handles_[place];
    const auto last = handles_.back();
    handles_.pop_back();
    if (last != removed) {
      handles_[place] = last;
      keys_.setLast(last);
      places_.is(keys_.key(last), {place});
    }
    keys_.release(removed);
  }
  /// The next key of a walk from the end of the array to its begin, or null: keys that were not visited yet
  /// stay ahead of the cursor, whatever is added and removed.
  const K* scanNext(KilnPlatform::ScanCursor<K>& cursor) const {
    if (!cursor.started) {
      cursor.started = true;
      cursor.index = handles_.size();
    }
    if (cursor.index > handles_.size()) cursor.index = handles_.size();
    if (cursor.index == 0) return nullptr;
    const auto handle = handles_[--cursor.index];
    keys_.setLast(handle);
    return &keys_.key(handle);
  }

 private:
  KeySpace<K>& keys_ = KeySpace<K>::instance();
  KeyPlaces<K>& places_;
  PagedArray<typename KeySpace<K>::Handle> handles_;
};

}  // namespace KilnEmServer
