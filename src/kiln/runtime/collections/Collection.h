// The server's keyed collections. Each name has an implementation by handle for production, and an ordered
// one for a test build that shows that no stage depends on the representation.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "kiln/platform/Assert.h"
#include "kiln/platform/Collection.h"
#include "kiln/platform/Value.h"
#include "kiln/runtime/collections/Column.h"
#include "kiln/runtime/collections/HandleIndex.h"
#include "kiln/runtime/collections/KeySpace.h"
#include "kiln/runtime/collections/PagedArray.h"
#include "kiln/runtime/trace/Trace.h"

namespace KilnEmServer {

using KilnPlatform::KeyedCollection;
using KilnPlatform::KeyPartition;
using KilnPlatform::KeySubscriber;
using KilnPlatform::ScanCursor;

/// The subscribers of one collection. Subscribers may be added and removed during a notification: a removed
/// one is not called any more, an added one is called from the next change on. A change is notified to the
/// subscribers that selected the partition of its key, in the order in which they subscribed.
template <class K>
class SubscriberList {
 public:
  ~SubscriberList() {
    if (lists_ == nullptr) return;
    for (const auto* subscriber : lists_->notified[kAll]) KILN_ASSERT(subscriber == nullptr);
  }

  void add(KeySubscriber<K>& subscriber) {
    if (lists_ == nullptr) lists_ = std::make_unique<Lists>();
    const KilnPlatform::PartitionSet<K> selected = subscriber.partitions();
    for (std::size_t partition = 0; partition < kAll; ++partition) {
      if (selected[partition]) lists_->notified[partition].push_back(&subscriber);
    }
    lists_->notified[kAll].push_back(&subscriber);
  }
  void remove(KeySubscriber<K>& subscriber) {
    if (lists_ == nullptr) return;
    for (List& list : lists_->notified) {
      std::replace(list.begin(), list.end(), &subscriber, static_cast<KeySubscriber<K>*>(nullptr));
    }
    eraseRemoved(*lists_);
  }
  /// `key` outlives the call, whatever the subscribers do.
  void notify(const K& key) {
    if (lists_ != nullptr) notifyOf(*lists_, key);
  }
  /// The same for the key of a handle; the key stays in use during the call.
  void notify(KeySpace<K>& keys, typename KeySpace<K>::Handle handle) {
    if (lists_ == nullptr) return;
    const KeyUse<K> changed = KeyUse<K>::another(keys, handle);
    notifyOf(*lists_, changed.key());
  }
  /// Whether a subscriber has a pending change of the key.
  [[nodiscard]] bool changeWaits(const K& key) const {
    if (lists_ == nullptr) return false;
    const List& notified = lists_->notified[KeyPartition<K>::of(key)];
    return std::any_of(notified.begin(), notified.end(), [&](const KeySubscriber<K>* subscriber) {
      return subscriber != nullptr && subscriber->changeWaits(key);
    });
  }
  /// Forgets every subscriber without notifying it: for the simulation of a process that died.
  void forgetAll() { lists_.reset(); }

 private:
  static constexpr std::size_t kAll = KeyPartition<K>::kCount;  ///< index of the list of all
  using List = std::vector<KeySubscriber<K>*>;
  /// Created with the first subscriber: most collections are small and have none.
  struct Lists {
    std::array<List, kAll + 1> notified;
    int depth = 0;
    bool removed = false;  ///< whether a subscriber was removed during a notification
  };

  static void notifyOf(Lists& lists, const K& key) {
    List& notified = lists.notified[KeyPartition<K>::of(key)];
    if (TraceFacility::detailed()) [[unlikely]]
      traceUnselected(lists, notified, key);
    if (notified.size() == 1) {  // the usual case: no list is read after the call
      if (notified.front() != nullptr) notified.front()->handleChange(key);
    } else if (!notified.empty()) {
      notifyAll(lists, notified, key);
    }
  }
  [[gnu::cold]] [[gnu::noinline]] static void traceUnselected(const Lists& lists, const List& notified,
                                                              const K& key) {
    for (const KeySubscriber<K>* subscriber : lists.notified[kAll]) {
      const bool selected = std::find(notified.begin(), notified.end(), subscriber) != notified.end();
      if (subscriber != nullptr && !selected) subscriber->traceUnselected(key);
    }
  }
  [[gnu::noinline]] static void notifyAll(Lists& lists, const List& notified, const K& key) {
    ++lists.depth;
    const std::size_t count = notified.size();
    for (std::size_t i = 0; i < count; ++i) {
      if (notified[i] != nullptr) notified[i]->handleChange(key);
    }
    --lists.depth;
    if (lists.removed) [[unlikely]]
      eraseRemoved(lists);
  }
  [[gnu::noinline]] static void eraseRemoved(Lists& lists) {
    lists.removed = lists.depth != 0;
    if (lists.removed) return;
    for (List& list : lists.notified) std::erase(list, nullptr);
  }

  std::unique_ptr<Lists> lists_;
};

/// A collection that stores its values by the key's handle. Use it if the collection holds most of the keys
/// that its readers and writers know. A walk starts at the least handle; an entry never moves.
template <class K, class V>
class ColumnCollection final : public KeyedCollection<K, V> {
 public:
  /// `group` is the group of keys that this collection is the first to hold, unless their type has
  /// partitions.
  explicit ColumnCollection(std::size_t group = 0) : group_(group) { keys_.columnIs(values_); }
  ~ColumnCollection() override {
    keys_.columnDel(values_);
    for (auto handle = values_.next(0); handle != Values::kNone; handle = values_.next(handle + 1)) {
      keys_.release(handle);
    }
  }

  [[nodiscard]] const V* find(const K& key) const override {
    const auto handle = keys_.find(key, [this](auto candidate) { values_.prefetch(candidate); });
    return handle == KeySpace<K>::kNone ? nullptr : values_.find(handle);
  }
  [[nodiscard]] std::size_t size() const override { return values_.size(); }

  bool is(const K& key, const V& value) override {
    const auto handle = keys_.obtain(key, group_, [this](auto candidate) { values_.prefetch(candidate); });
    V* present = values_.find(handle);
    if (present == nullptr) {
      keys_.useLast();
      values_.emplace(handle, value);
    } else {
      if (*present == value) return false;
      *present = value;
    }
    subscribers_.notify(keys_, handle);
    return true;
  }

  /// Writes a value and notifies even if an equal one is stored: for values with parts that equality ignores.
  void isAgain(const K& key, const V& value) {
    if (is(key, value)) return;
    const auto handle = keys_.find(key);
    *values_.find(handle) = value;
    subscribers_.notify(keys_, handle);
  }

  bool del(const K& key) override {
    const auto handle = keys_.find(key);
    if (handle == KeySpace<K>::kNone || values_.find(handle) == nullptr) return false;
    values_.erase(handle);
    subscribers_.notify(keys_, handle);
    keys_.release(handle);
    return true;
  }

  const K* scanNext(ScanCursor<K>& cursor) const override {
    auto handle = values_.next(cursor.index);
    if constexpr (KeyPartition<K>::kGroups > 1) {
      while (handle < cursor.skippedBelow && cursor.skipped[keys_.groupAt(handle)]) {
        handle = values_.next(keys_.pageAfter(handle));
      }
    }
    if (handle == Values::kNone) return nullptr;
    cursor.index = handle + std::size_t{1};
    keys_.setLast(handle);
    return &keys_.key(handle);
  }

  void prefetch(typename KeySpace<K>::Handle handle) const override { values_.prefetch(handle); }
  [[nodiscard]] const ColumnPlaces& places() const { return values_; }
  /// The columns that subscribers read synchronously on each write; see Input::readSynchronously.
  [[nodiscard]] ColumnList& readOnWrite() const { return readOnWrite_; }

  void subscribe(KeySubscriber<K>& subscriber) const override { subscribers_.add(subscriber); }
  void unsubscribe(KeySubscriber<K>& subscriber) const override { subscribers_.remove(subscriber); }
  /// Whether a subscriber has a pending change of the key.
  [[nodiscard]] bool changeWaits(const K& key) const { return subscribers_.changeWaits(key); }
  /// Forgets every subscriber without notifying it: for the simulation of a process that died.
  void forgetSubscribers() const { subscribers_.forgetAll(); }

 private:
  using Values = Column<V>;

  KeySpace<K>& keys_ = KeySpace<K>::instance();
  std::size_t group_;
  Values values_;
  mutable SubscriberList<K> subscribers_;
  mutable ColumnList readOnWrite_;
};

/// A collection whose entries are stored in one array and found by the key's handle. Use it if the collection
/// holds few of the keys that its readers and writers know. A deletion moves the last entry into the hole. A
/// walk goes from the array's end to its begin: an entry only ever moves to a lower place, so an entry that
/// was not visited yet stays ahead of the cursor.
template <class K, class V>
class DenseCollection final : public KeyedCollection<K, V> {
 public:
  DenseCollection() = default;
  ~DenseCollection() override {
    for (std::size_t at = 0; at < entries_.size(); ++at) keys_.release(entries_[at].handle);
  }

  [[nodiscard]] const V* find(const K& key) const override {
    if (entries_.empty()) return nullptr;
    const std::uint32_t place = placeOf(keys_.find(key));
    return place == kNone ? nullptr : &entries_[place].value;
  }
  [[nodiscard]] std::size_t size() const override { return entries_.size(); }

  bool is(const K& key, const V& value) override {
    const std::uint32_t handle = keys_.obtain(key, 0, [](auto) {});
    const std::uint32_t place = placeOf(handle);
    if (place == kNone) {
      keys_.useLast();
      places_.insert(hashOf(handle), static_cast<std::uint32_t>(entries_.size()));
      entries_.emplace_back(handle, value);
    } else {
      V& present = entries_[place].value;
      if (present == value) return false;
      present = value;
    }
    subscribers_.notify(keys_, handle);
    return true;
  }

  bool del(const K& key) override {
    if (entries_.empty()) return false;
    const std::uint32_t handle = keys_.find(key);
    const std::uint32_t place = placeOf(handle);
    if (place == kNone) return false;
    places_.erase(hashOf(handle), place);
    if (const auto last = static_cast<std::uint32_t>(entries_.size() - 1); place != last) {
      const std::uint32_t moved = hashOf(entries_[last].handle);
      places_.erase(moved, last);
      places_.insert(moved, place);
      entries_[place] = std::move(entries_[last]);
    }
    entries_.pop_back();
    if (entries_.empty()) places_.clear();
    subscribers_.notify(keys_, handle);
    keys_.release(handle);
    return true;
  }

  const K* scanNext(ScanCursor<K>& cursor) const override {
    if (!cursor.started) {
      cursor.started = true;
      cursor.index = entries_.size();
    }
    if (cursor.index > entries_.size()) cursor.index = entries_.size();
    if (cursor.index == 0) return nullptr;
    const std::uint32_t handle = entries_[--cursor.index].handle;
    keys_.setLast(handle);
    return &keys_.key(handle);
  }

  void subscribe(KeySubscriber<K>& subscriber) const override { subscribers_.add(subscriber); }
  void unsubscribe(KeySubscriber<K>& subscriber) const override { subscribers_.remove(subscriber); }
  /// Whether a subscriber has a pending change of the key.
  [[nodiscard]] bool changeWaits(const K& key) const { return subscribers_.changeWaits(key); }
  /// Forgets every subscriber without notifying it: for the simulation of a process that died.
  void forgetSubscribers() const { subscribers_.forgetAll(); }

 private:
  static constexpr std::uint32_t kNone = HandleIndex::kNone;
  struct Entry {
    std::uint32_t handle;
    [[no_unique_address]] V value;
  };
  /// Spreads handles, which are dense, over the whole range.
  static std::uint32_t hashOf(std::uint32_t handle) { return handle * 0x9E3779B1U; }
  [[nodiscard]] std::uint32_t placeOf(std::uint32_t handle) const {
    if (handle == kNone || entries_.empty()) return kNone;
    return places_.find(hashOf(handle),
                        [&](std::uint32_t place) { return entries_[place].handle == handle; });
  }

  KeySpace<K>& keys_ = KeySpace<K>::instance();
  PagedArray<Entry> entries_;
  HandleIndex places_;
  mutable SubscriberList<K> subscribers_;
};

/// The second implementation: sorted by key, walked from the least key up.
template <class K, class V>
class OrderedCollection final : public KeyedCollection<K, V> {
 public:
  explicit OrderedCollection(std::size_t /*group*/ = 0) {}

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

  /// Writes a value and notifies even if an equal one is stored: for values with parts that equality ignores.
  void isAgain(const K& key, const V& value) {
    if (is(key, value)) return;
    const K changed = key;
    entries_.find(key)->second = value;
    subscribers_.notify(changed);
  }

  bool del(const K& key) override {
    const K deleted = key;
    if (entries_.erase(key) == 0) return false;
    subscribers_.notify(deleted);
    return true;
  }

  const K* scanNext(ScanCursor<K>& cursor) const override {
    const auto at = cursor.last ? entries_.upper_bound(*cursor.last) : entries_.begin();
    if (at == entries_.end()) return nullptr;
    cursor.last = at->first;
    return &at->first;
  }

  void subscribe(KeySubscriber<K>& subscriber) const override { subscribers_.add(subscriber); }
  void unsubscribe(KeySubscriber<K>& subscriber) const override { subscribers_.remove(subscriber); }
  /// Whether a subscriber has a pending change of the key.
  [[nodiscard]] bool changeWaits(const K& key) const { return subscribers_.changeWaits(key); }
  /// Forgets every subscriber without notifying it: for the simulation of a process that died.
  void forgetSubscribers() const { subscribers_.forgetAll(); }

 private:
  std::map<K, V> entries_;
  mutable SubscriberList<K> subscribers_;
};

/// `Collection` is for a collection that holds most of the keys that its readers and writers know,
/// `SparseCollection` for one that holds few of them.
#ifdef KILN_ORDERED_COLLECTIONS
template <class K, class V>
using Collection = OrderedCollection<K, V>;
template <class K, class V>
using SparseCollection = OrderedCollection<K, V>;
#else
template <class K, class V>
using Collection = ColumnCollection<K, V>;
template <class K, class V>
using SparseCollection = DenseCollection<K, V>;
#endif

}  // namespace KilnEmServer
