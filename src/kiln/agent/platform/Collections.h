// The agent's own collections: implemented by the server's library, owned by their publishers.
#pragma once

#include <cstddef>
#include <memory>

#include "kiln/platform/Collection.h"
#include "kiln/runtime/collections/Collection.h"

namespace KilnAgent {

/// Notified before each change of a collection, with the values before and after; null if there is none. It
/// must not change the collection.
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

/// `group`: collections that hold mostly the same keys have the same group.
template <class K, class V>
std::unique_ptr<KilnPlatform::KeyedCollection<K, V>> makeCollection(std::size_t group = 0) {
  return std::make_unique<AgentCollection<K, V>>(group);
}

// For collections that makeCollection created.

/// Drops every subscriber without notifying it, as if the subscribing process had died.
template <class K, class V>
void forgetSubscribers(const KilnPlatform::KeyedCollection<K, V>& collection) {
  static_cast<const AgentCollection<K, V>&>(collection).forgetSubscribers();
}

/// Sets the one watcher, which must outlive the collection or be replaced; null for none.
template <class K, class V>
void watch(const KilnPlatform::KeyedCollection<K, V>& collection, ChangeWatcher<K, V>* watcher) {
  static_cast<const AgentCollection<K, V>&>(collection).watcherIs(watcher);
}

}  // namespace KilnAgent
