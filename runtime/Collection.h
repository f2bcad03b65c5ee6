// The server's keyed collections. Two implementations stand behind one name: a dense one for use, an ordered
// one for a test build that shows that no stage depends on the representation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "platform/Assert.h"
#include "platform/Collection.h"
#include "platform/Value.h"
#include "runtime/KeySpace.h"
#include "runtime/PagedArray.h"

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

/// A collection whose entries lie in one array, with the place of each key's handle beside it. A deletion
/// moves the last entry into the hole. A walk goes from the array's end to its begin: an entry only ever
/// moves to a lower place, so what was not visited yet stays ahead of the cursor.
template <class K, class V>
class DenseCollection final : public KeyedCollection<K, V> {
 public:
  DenseCollection() = default;
  ~DenseCollection() override {
    for (std::size_t at = 0; at < entries_.size(); ++at) keys_.release(entries_[at].handle);
  }

  [[nodiscard]] const V* find(const K& key) const override {
    const std::uint32_t place = placeOf(keys_.find(key));
    return place == PagedPlaces::kNone ? nullptr : &entries_[place].value;
  }
  [[nodiscard]] std::size_t size() const override { return entries_.size(); }

  bool is(const K& key, const V& value) override {
    const std::uint32_t handle = keys_.acquire(key);
    const std::uint32_t place = places_.at(handle);
    if (place != PagedPlaces::kNone) {
      keys_.release(handle);  // the entry has a use of its own
      Entry& entry = entries_[place];
      if (entry.value == value) return false;
      entry.value = value;
    } else {
      places_.is(handle, static_cast<std::uint32_t>(entries_.size()));
      entries_.emplace_back(handle, value);
    }
    if (!subscribers_.empty()) {
      const K changed = keys_.key(handle);
      subscribers_.notify(changed);
    }
    return true;
  }

  bool del(const K& key) override {
    const std::uint32_t handle = keys_.find(key);
    const std::uint32_t place = placeOf(handle);
    if (place == PagedPlaces::kNone) return false;
    const K deleted = keys_.key(handle);
    places_.del(handle);
    if (place != entries_.size() - 1) {
      entries_[place] = std::move(entries_.back());
      places_.is(entries_[place].handle, place);
    }
    entries_.pop_back();
    if (entries_.empty()) places_.clear();
    keys_.release(handle);
    subscribers_.notify(deleted);
    return true;
  }

  void delAll() override {
    while (!entries_.empty()) {
      const K key = keys_.key(entries_.back().handle);
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
    const std::uint32_t handle = entries_[--cursor.index].handle;
    keys_.expect(handle);
    return keys_.key(handle);
  }

  void subscribe(KeySubscriber<K>& subscriber) const override { subscribers_.add(subscriber); }
  void unsubscribe(KeySubscriber<K>& subscriber) const override { subscribers_.remove(subscriber); }
  /// Forgets every subscriber without telling it: for the simulation of a process that died.
  void forgetSubscribers() const { subscribers_.forgetAll(); }

 private:
  struct Entry {
    std::uint32_t handle;
    [[no_unique_address]] V value;
  };
  [[nodiscard]] std::uint32_t placeOf(std::uint32_t handle) const {
    return handle == KeySpace<K>::kNone ? PagedPlaces::kNone : places_.at(handle);
  }

  KeySpace<K>& keys_ = KeySpace<K>::instance();
  PagedArray<Entry> entries_;
  PagedPlaces places_;
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
