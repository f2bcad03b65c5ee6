// The agent's own collections: made by the server's implementation, held by what publishes them.
#pragma once

#include <cstddef>
#include <memory>

#include "kiln/platform/Collection.h"
#include "kiln/runtime/collections/Collection.h"

namespace KilnAgent {

/// Told of each change of a collection before it is made, with the values before and after; null where there
/// is none. It must not change the collection.
template <class K, class V>
class ChangeWatcher {
 public:
  virtual void handleUpcomingChange(const K& key, const V* before, const V* after) = 0;

 protected:
  ~ChangeWatcher() = default;
};

/// A collection that can be watched, and whose subscribers can be forgotten.
template <class K, class V>
class AgentCollection final : public KilnPlatform::KeyedCollection<K, V> {
 public:
  explicit AgentCollection(std::size_t group) : content_(group) {}
  [[nodiscard]] const V* find(const K& key) const override { return content_.find(key); }
  [[nodiscard]] std::size_t size() const override { return content_.size(); }
  bool is(const K& key, const V& value) override {
    if (watcher_ != nullptr) tellWatcher(key, &value);
    return content_.is(key, value);
  }
  bool del(const K& key) override {
    if (watcher_ != nullptr) tellWatcher(key, nullptr);
    return content_.del(key);
  }
  const K* scanNext(KilnPlatform::ScanCursor<K>& cursor) const override { return content_.scanNext(cursor); }
  void subscribe(KilnPlatform::KeySubscriber<K>& subscriber) const override {
    content_.subscribe(subscriber);
  }
  void unsubscribe(KilnPlatform::KeySubscriber<K>& subscriber) const override {
    content_.unsubscribe(subscriber);
  }
  void prefetch(std::uint32_t handle) const override { content_.prefetch(handle); }
  void forgetSubscribers() const { content_.forgetSubscribers(); }
  void watcherIs(ChangeWatcher<K, V>* watcher) const { watcher_ = watcher; }

 private:
  void tellWatcher(const K& key, const V* after) {
    const V* before = content_.find(key);
    if (before == nullptr && after == nullptr) return;
    if (before != nullptr && after != nullptr && *before == *after) return;
    watcher_->handleUpcomingChange(key, before, after);
  }

  KilnEmServer::Collection<K, V> content_;
  mutable ChangeWatcher<K, V>* watcher_ = nullptr;
};

/// Collections of one group hold the same keys, mostly, and those of another group others.
template <class K, class V>
std::unique_ptr<KilnPlatform::KeyedCollection<K, V>> makeCollection(std::size_t group = 0) {
  return std::make_unique<AgentCollection<K, V>>(group);
}

// Of collections that makeCollection made.

/// Drops every subscriber without telling it: as if the process that subscribed had died.
template <class K, class V>
void forgetSubscribers(const KilnPlatform::KeyedCollection<K, V>& collection) {
  static_cast<const AgentCollection<K, V>&>(collection).forgetSubscribers();
}

/// Names the one watcher, which must outlive the collection or be replaced; null for none.
template <class K, class V>
void watch(const KilnPlatform::KeyedCollection<K, V>& collection, ChangeWatcher<K, V>* watcher) {
  static_cast<const AgentCollection<K, V>&>(collection).watcherIs(watcher);
}

}  // namespace KilnAgent
