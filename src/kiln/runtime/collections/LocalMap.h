// A map that one stage owns.
#pragma once

#include <cstddef>
#include <map>

#include "kiln/platform/Value.h"
#include "kiln/runtime/collections/Column.h"
#include "kiln/runtime/collections/KeySpace.h"

namespace KilnEmServer {

/// A map owned by a stage, for most keys that the stage knows. It has no subscribers, so its values may be
/// changed in place. A value never moves.
template <class K, class V>
class LocalMap {
 public:
  using Key = K;

#ifdef KILN_ORDERED_COLLECTIONS
  LocalMap() = default;
  ~LocalMap() = default;
#else
  LocalMap() {
    keys_.columnIs(values_);
  }
  ~LocalMap() {
    clear();
    keys_.columnDel(values_);
  }
#endif
  LocalMap(const LocalMap&) = delete;
  LocalMap& operator=(const LocalMap&) = delete;

  [[nodiscard]] std::size_t size() const {
    return values_.size();
  }
#ifdef KILN_ORDERED_COLLECTIONS
  [[nodiscard]] V* find(const K& key) {
    const auto at = values_.find(key);
    return at == values_.end() ? nullptr : &at->second;
  }
  /// The value under `key`; a default one is added if there is none.
  V& obtain(const K& key) {
    return values_[key];
  }
  void del(const K& key) {
    values_.erase(key);
  }
  void clear() {
    values_.clear();
  }
  template <class Visitor>
  void forEach(Visitor&& visit) const {
    for (const auto& [key, value] : values_) visit(key, value);
  }

 private:
  std::map<K, V> values_;
#else
  [[nodiscard]] V* find(const K& key) {
    const auto handle = keys_.find(key, [this](auto candidate) { values_.prefetch(candidate); });
    return handle == KeySpace<K>::kNone ? nullptr : values_.find(handle);
  }
  /// The value under `key`; a default one is added if there is none.
  V& obtain(const K& key) {
    const auto handle = keys_.obtain(key, 0, [this](auto candidate) { values_.prefetch(candidate); });
    if (V* present = values_.find(handle)) return *present;
    keys_.useLast();
    return values_.emplace(handle);
  }
  void del(const K& key) {
    const auto handle = keys_.find(key);
    if (handle == KeySpace<K>::kNone || values_.find(handle) == nullptr) return;
    values_.erase(handle);
    keys_.release(handle);
  }
  void clear() {
    for (auto handle = values_.next(0); handle != Column<V>::kNone; handle = values_.next(handle + 1)) {
      values_.erase(handle);
      keys_.release(handle);
    }
  }
  /// Visits every key and value; the map must not change during the visit.
  template <class Visitor>
  void forEach(Visitor&& visit) const {
    for (auto handle = values_.next(0); handle != Column<V>::kNone; handle = values_.next(handle + 1)) {
      visit(keys_.key(handle), *values_.find(handle));
    }
  }
  [[nodiscard]] const ColumnPlaces& places() const {
    return values_;
  }

 private:
  KeySpace<K>& keys_ = KeySpace<K>::instance();
  Column<V> values_;
#endif

 public:
  [[nodiscard]] const V* find(const K& key) const {
    return const_cast<LocalMap*>(this)->find(key);
  }
};

}  // namespace KilnEmServer
