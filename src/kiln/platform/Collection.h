// Keyed collections with change notification: the shape in which everything is published.
#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace KilnPlatform {

/// Divides the keys of a type into partitions: one small number, computed from the key. A subscriber selects
/// its partitions once, when it subscribes. Specialised per key type.
template <class K>
struct KeyPartition {
  static constexpr std::size_t kCount = 1;
  /// Below kCount.
  static constexpr std::size_t of(const K& /*key*/) { return 0; }
  /// Keys whose partitions have the same group are stored together. Below kGroups.
  static constexpr std::size_t kGroups = 1;
  static constexpr std::size_t groupOf(std::size_t /*partition*/) { return 0; }
};

/// Partitions of the keys of a type.
template <class K>
using PartitionSet = std::bitset<KeyPartition<K>::kCount>;

/// Notified of each change of one key. The key is a copy that outlives the call; the collection is consistent
/// when the call is made, and the current value, which may be absent, is to be read from it.
template <class K>
class KeySubscriber {
 public:
  virtual void handleChange(const K& key) = 0;
  /// The selected partitions; read when subscribing. A collection may notify of other keys, too.
  [[nodiscard]] virtual PartitionSet<K> partitions() const { return PartitionSet<K>().set(); }
  /// A key of another partition changed while filters are traced: may trace that, and must do nothing else.
  virtual void traceUnselected(const K& /*key*/) const {}
  /// Whether a change of the key was notified but is not handled yet.
  [[nodiscard]] virtual bool changeWaits(const K& /*key*/) const { return false; }

 protected:
  ~KeySubscriber() = default;
};

/// The resumable position of a walk over a collection. A default one is before the first key. Each collection
/// uses the members that it needs; a cursor belongs to the collection that moved it.
template <class K>
struct ScanCursor {
  bool started = false;
  std::size_t index = 0;
  std::optional<K> last;
  /// Groups of partitions that the walk may leave out: a collection that stores keys by group can skip them.
  std::bitset<KeyPartition<K>::kGroups> skipped;
  std::size_t skippedBelow = 0;
};

/// Can prefetch what it stores under a key that will be looked up soon.
class Prefetchable {
 public:
  /// The key with this handle in the thread's key space will be looked up: a collection that stores values by
  /// handle may prefetch the value.
  virtual void prefetch(std::uint32_t /*handle*/) const {}

 protected:
  ~Prefetchable() = default;
};

/// A collection of key to value. Every real change (insert, replace by another value, delete) notifies every
/// subscriber with the key. `is` with an equal value and `del` of an absent key change nothing and notify no
/// subscriber. One thread only.
template <class K, class V>
class KeyedCollection : public Prefetchable {
 public:
  using Key = K;
  using Value = V;

  virtual ~KeyedCollection() = default;

  /// The value under `key`, or null. Valid until the collection's next change.
  [[nodiscard]] virtual const V* find(const K& key) const = 0;
  [[nodiscard]] virtual std::size_t size() const = 0;
  /// Inserts or replaces. True if that changed the collection.
  virtual bool is(const K& key, const V& value) = 0;
  /// Deletes. True if the key was present.
  virtual bool del(const K& key) = 0;
  /// Deletes every key and notifies each, including keys that subscribers insert in the meantime. One walk
  /// per round: restarting the walk for each key would pass over all places that are already empty.
  virtual void delAll() {
    while (!empty()) {
      ScanCursor<K> cursor;
      while (const K* key = scanNext(cursor)) del(*key);
    }
  }

  /// The next key of a walk, or null at its end; valid until the key is deleted. The walk survives every
  /// change made between two calls: a key that is present from the first call to the last is visited at least
  /// once, and each call makes progress. The order is deterministic: the same operations give the same order
  /// everywhere.
  virtual const K* scanNext(ScanCursor<K>& cursor) const = 0;

  /// Adds a subscriber, which must stay alive until it is removed. Subscribing does not change the content,
  /// so a reader may do it.
  virtual void subscribe(KeySubscriber<K>& subscriber) const = 0;
  virtual void unsubscribe(KeySubscriber<K>& subscriber) const = 0;

  [[nodiscard]] bool has(const K& key) const { return find(key) != nullptr; }
  [[nodiscard]] bool empty() const { return size() == 0; }
  /// A copy of the value under `key`.
  [[nodiscard]] std::optional<V> get(const K& key) const {
    const V* value = find(key);
    return value == nullptr ? std::nullopt : std::optional<V>(*value);
  }

 protected:
  KeyedCollection() = default;
  KeyedCollection(const KeyedCollection&) = delete;
  KeyedCollection& operator=(const KeyedCollection&) = delete;
};

/// The address that identifies a collection, whatever its class.
template <class K, class V>
const void* addressOf(const KeyedCollection<K, V>& collection) {
  return &collection;
}

/// Visits every key and value; the collection must not change during the visit.
template <class C, class Visitor>
void forEachIn(const C& collection, Visitor&& visitor) {
  ScanCursor<typename C::Key> cursor;
  while (const auto key = collection.scanNext(cursor)) {
    if (const auto* value = collection.find(*key)) visitor(*key, *value);
  }
}

}  // namespace KilnPlatform
