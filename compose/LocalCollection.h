// A collection that belongs to one stage alone.
#pragma once

#include <cstddef>
#include <string_view>

#include "runtime/Collection.h"
#include "runtime/Stage.h"

namespace KilnEmServer {

/// Listed with its size among its stage's local state; nobody else reads or writes it.
template <class K, class V>
class LocalCollection final : public LocalState {
 public:
  LocalCollection(Stage& stage, std::string_view name) : LocalState(stage, name) {}

  /// The value under `key`, or null; valid until the collection's next change.
  [[nodiscard]] const V* find(const K& key) const { return coll_.find(key); }
  [[nodiscard]] bool has(const K& key) const { return coll_.has(key); }
  void is(const K& key, const V& value) { coll_.is(key, value); }
  void del(const K& key) { coll_.del(key); }
  [[nodiscard]] std::size_t size() const override { return coll_.size(); }
  void clear() override { coll_.delAll(); }

 private:
  Collection<K, V> coll_;
};

}  // namespace KilnEmServer
