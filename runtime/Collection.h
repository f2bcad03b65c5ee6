// The server's keyed collections. Two implementations stand behind one name: a dense one for use, an ordered
// one for a test build that shows that no stage depends on the representation.
#pragma once

#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "platform/Assert.h"
#include "platform/Collection.h"
#include "platform/Value.h"

namespace KilnEmServer {

using KilnPlatform::KeyedCollection;
using KilnPlatform::KeySubscriber;
using KilnPlatform::ScanCursor;

/// The subscribers of one collection. Subscribers may come and go while they are being notified: one that
/// goes is not called any more, one that comes is called from the next change on.
template <class K>
class SubscriberList {
 public:
  ~SubscriberList() {
    for (const auto* subscriber : subscribers_) KILN_ASSERT(subscriber == nullptr);
  }

  void add(KeySubscriber<K>& subscriber) { subscribers_.push_back(&subscriber); }
  void remove(KeySubscriber<K>& subscriber) {
    for (auto& slot : subscribers_) {
      if (slot == &subscriber) {
        slot = nullptr;
        break;
      }
    }
    if (depth_ == 0) std::erase(subscribers_, nullptr);
  }
  void notify(const K& key) {
    if (subscribers_.empty()) return;
    ++depth_;
    const std::size_t count = subscribers_.size();
    for (std::size_t i = 0; i < count; ++i) {
      if (subscribers_[i] != nullptr) subscribers_[i]->handleChange(key);
    }
    if (--depth_ == 0) std::erase(subscribers_, nullptr);
  }
  [[nodiscard]] bool empty() const { return subscribers_.empty(); }
  /// Forgets every subscriber without telling it: for the simulation of a process that died.
  void forgetAll() { subscribers_.clear(); }

 private:
  std::vector<KeySubscriber<K>*> subscribers_;
  int depth_ = 0;
};

/// A hash collection whose entries lie in one array, with an index beside it. A deletion moves the last entry
/// into the hole. A walk goes from the array's end to its begin: an entry only ever moves to a lower place,
/// so what was not visited yet stays ahead of the cursor.
template <class K, class V>
class DenseCollection final : public KeyedCollection<K, V> {
 public:
  DenseCollection() : index_(0, IndexHash{this}, IndexEqual{this}) {}

  [[nodiscard]] const V* find(const K& key) const override {
    const auto at = index_.find(Probe{&key});
    return at == index_.end() ? nullptr : &entries_[*at].value;
  }
  [[nodiscard]] std::size_t size() const override { return entries_.size(); }

  bool is(const K& key, const V& value) override {
    const auto at = index_.find(Probe{&key});
    if (at != index_.end()) {
      Entry& entry = entries_[*at];
      if (entry.value == value) return false;
      entry.value = value;
      const K changed = entry.key;
      subscribers_.notify(changed);
      return true;
    }
    const K inserted = key;
    entries_.push_back(Entry{key, value});
    index_.insert(static_cast<std::uint32_t>(entries_.size() - 1));
    subscribers_.notify(inserted);
    return true;
  }

  bool del(const K& key) override {
    const auto at = index_.find(Probe{&key});
    if (at == index_.end()) return false;
    const K deleted = key;
    const std::uint32_t hole = *at;
    index_.erase(at);
    const auto last = static_cast<std::uint32_t>(entries_.size() - 1);
    if (hole != last) {
      index_.erase(last);
      entries_[hole] = std::move(entries_[last]);
      index_.insert(hole);
    }
    entries_.pop_back();
    subscribers_.notify(deleted);
    return true;
  }

  void delAll() override {
    while (!entries_.empty()) {
      const K key = entries_.back().key;
      del(key);
    }
  }

  std::optional<K> scanNext(ScanCursor<K>& cursor) const override {
    if (!cursor.started) {
      cursor.started = true;
      cursor.index = entries_.size();
    }
    if (cursor.index > entries_.size()) cursor.index = entries_.size();
    if (cursor.index == 0) return std::nullopt;
    return entries_[--cursor.index].key;
  }

  void subscribe(KeySubscriber<K>& subscriber) const override { subscribers_.add(subscriber); }
  void unsubscribe(KeySubscriber<K>& subscriber) const override { subscribers_.remove(subscriber); }
  /// Forgets every subscriber without telling it: for the simulation of a process that died.
  void forgetSubscribers() const { subscribers_.forgetAll(); }

 private:
  struct Entry {
    K key;
    [[no_unique_address]] V value;
  };
  struct Probe {
    const K* key;
  };
  struct IndexHash {
    using is_avalanching = void;
    using is_transparent = void;
    const DenseCollection* owner;
    std::size_t operator()(std::uint32_t at) const {
      return KilnPlatform::hashValue(owner->entries_[at].key);
    }
    std::size_t operator()(Probe probe) const { return KilnPlatform::hashValue(*probe.key); }
  };
  struct IndexEqual {
    using is_transparent = void;
    const DenseCollection* owner;
    bool operator()(std::uint32_t a, std::uint32_t b) const { return a == b; }
    bool operator()(Probe a, std::uint32_t b) const { return *a.key == owner->entries_[b].key; }
    bool operator()(std::uint32_t a, Probe b) const { return owner->entries_[a].key == *b.key; }
  };

  std::vector<Entry> entries_;
  boost::unordered_flat_set<std::uint32_t, IndexHash, IndexEqual> index_;
  mutable SubscriberList<K> subscribers_;
};

/// The second implementation: kept sorted by key, walked from the least key up.
template <class K, class V>
class OrderedCollection final : public KeyedCollection<K, V> {
 public:
  OrderedCollection() = default;

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
    const K changed = at->first;
    subscribers_.notify(changed);
    return true;
  }

  bool del(const K& key) override {
    const K deleted = key;
    if (entries_.erase(key) == 0) return false;
    subscribers_.notify(deleted);
    return true;
  }

  void delAll() override {
    while (!entries_.empty()) {
      const K key = entries_.begin()->first;
      del(key);
    }
  }

  std::optional<K> scanNext(ScanCursor<K>& cursor) const override {
    const auto at = cursor.last ? entries_.upper_bound(*cursor.last) : entries_.begin();
    if (at == entries_.end()) return std::nullopt;
    cursor.last = at->first;
    return at->first;
  }

  void subscribe(KeySubscriber<K>& subscriber) const override { subscribers_.add(subscriber); }
  void unsubscribe(KeySubscriber<K>& subscriber) const override { subscribers_.remove(subscriber); }
  /// Forgets every subscriber without telling it: for the simulation of a process that died.
  void forgetSubscribers() const { subscribers_.forgetAll(); }

 private:
  std::map<K, V> entries_;
  mutable SubscriberList<K> subscribers_;
};

#ifdef KILN_ORDERED_COLLECTIONS
template <class K, class V>
using Collection = OrderedCollection<K, V>;
#else
template <class K, class V>
using Collection = DenseCollection<K, V>;
#endif

}  // namespace KilnEmServer
