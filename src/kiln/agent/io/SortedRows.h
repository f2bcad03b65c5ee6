// A collection's content in the order of its keys, for output.
#pragma once

#include <algorithm>
#include <utility>
#include <vector>

#include "kiln/platform/Collection.h"

namespace KilnAgent {

/// Copies of all keys and values, the least key first.
template <class K, class V>
std::vector<std::pair<K, V>> sortedRows(const KilnPlatform::KeyedCollection<K, V>& collection) {
  std::vector<std::pair<K, V>> rows;
  rows.reserve(collection.size());
  KilnPlatform::forEachIn(collection, [&](const K& key, const V& value) { rows.emplace_back(key, value); });
  std::sort(rows.begin(), rows.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  return rows;
}

}  // namespace KilnAgent
