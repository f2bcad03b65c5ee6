// A map that one stage owns.
#pragma once

#include <cstddef>
#include <unordered_map>

#include "kiln/platform/Value.h"

namespace KilnEmServer {

template <class K, class V>
class LocalMap {
 public:
  using Key = K;
  [[nodiscard]] std::size_t size() const { return values_.size(); }
  [[nodiscard]] const V* find(const K& key) const {
    const auto at = values_.find(key);
    return at == values_.end() ? nullptr : &at->second;
  }
  [[nodiscard]] V* find(const K& key) {
    const auto at = values_.find(key);
    return at == values_.end() ? nullptr : &at->second;
  }
  V& obtain(const K& key) { return values_[key]; }
  void del(const K& key) { values_.erase(key); }
  void clear() { values_.clear(); }
  template <class Visitor>
  void forEach(Visitor&& visit) const {
    for (const auto& [key, value] : values_) visit(key, value);
  }

 private:
  std::unordered_map<K, V, KilnPlatform::ValueHash<K>> values_;
};

}  // namespace KilnEmServer
