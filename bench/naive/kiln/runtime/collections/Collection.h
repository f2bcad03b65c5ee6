// Keyed collections written in the obvious way: an unordered map, and a function per subscription.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kiln/platform/Collection.h"
#include "kiln/platform/Value.h"
#include "kiln/runtime/collections/KeySpace.h"
#include "kiln/runtime/trace/Trace.h"

namespace KilnEmServer {

using KilnPlatform::KeyedCollection;
using KilnPlatform::KeyPartition;
using KilnPlatform::KeySubscriber;
using KilnPlatform::ScanCursor;

template <class K>
class SubscriberList {
 public:
  void add(KeySubscriber<K>& subscriber) {
    notified_.emplace_back(&subscriber, [&subscriber](const K& key) { subscriber.handleChange(key); });
  }
  void remove(KeySubscriber<K>& subscriber) {
    std::erase_if(notified_, [&](const auto& notified) { return notified.first == &subscriber; });
  }
  /// Subscribers are not added or removed during a notification.
  void notify(const K& key) const {
    for (const auto& [subscriber, handle] : notified_) handle(key);
  }
  [[nodiscard]] bool changeWaits(const K& key) const {
    return std::any_of(notified_.begin(), notified_.end(),
                       [&](const auto& notified) { return notified.first->changeWaits(key); });
  }
  void forgetAll() { notified_.clear(); }

 private:
  std::vector<std::pair<KeySubscriber<K>*, std::function<void(const K&)>>> notified_;
};

template <class K, class V>
class NaiveCollection final : public KeyedCollection<K, V> {
 public:
  explicit NaiveCollection(std::size_t /*group*/ = 0) {}
  [[nodiscard]] const V* find(const K& key) const override {
    const auto at = entries_.find(key);
    return at == entries_.end() ? nullptr : &at->second;
  }
  [[nodiscard]] std::size_t size() const override { return entries_.size(); }
  bool is(const K& key, const V& value) override {
    const auto [at, inserted] = entries_.try_emplace(key, value);
    if (!inserted) {
      if (at->second == value) return false;
      at->second = value;
    }
    subscribers_.notify(K(key));
    return true;
  }
  void isAgain(const K& key, const V& value) {
    if (is(key, value)) return;
    entries_.find(key)->second = value;
    subscribers_.notify(K(key));
  }
  bool del(const K& key) override {
    const K deleted = key;
    if (entries_.erase(key) == 0) return false;
    subscribers_.notify(deleted);
    return true;
  }
  /// Starts again if the order changed since the last call, or the last key was removed.
  const K* scanNext(ScanCursor<K>& cursor) const override {
    auto at = entries_.begin();
    if (cursor.last && cursor.index == entries_.bucket_count()) {
      if (const auto last = entries_.find(*cursor.last); last != entries_.end()) at = std::next(last);
    }
    if (at == entries_.end()) return nullptr;
    cursor.index = entries_.bucket_count();
    cursor.last = at->first;
    return &at->first;
  }
  void subscribe(KeySubscriber<K>& subscriber) const override { subscribers_.add(subscriber); }
  void unsubscribe(KeySubscriber<K>& subscriber) const override { subscribers_.remove(subscriber); }
  [[nodiscard]] bool changeWaits(const K& key) const { return subscribers_.changeWaits(key); }
  void forgetSubscribers() const { subscribers_.forgetAll(); }

 private:
  std::unordered_map<K, V, KilnPlatform::ValueHash<K>> entries_;
  mutable SubscriberList<K> subscribers_;
};

template <class K, class V>
using Collection = NaiveCollection<K, V>;
template <class K, class V>
using SparseCollection = NaiveCollection<K, V>;

}  // namespace KilnEmServer
