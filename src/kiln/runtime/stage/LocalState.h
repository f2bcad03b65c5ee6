// Collections that a stage owns: caches and group-bys.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <tuple>
#include <utility>

#include "kiln/platform/Assert.h"
#include "kiln/platform/FixedString.h"
#include "kiln/platform/Value.h"
#include "kiln/runtime/collections/LocalMap.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// A LocalMap that is listed with its size among its stage's local state.
template <class K, class V>
class LocalCollection final : public LocalState {
 public:
  LocalCollection(Stage& stage, std::string_view name) : LocalState(stage, name) {
    stage.prefetchSetAdd(values_);
  }

  /// The value under `key`, or null; valid until it is deleted.
  [[nodiscard]] const V* find(const K& key) const { return values_.find(key); }
  [[nodiscard]] bool has(const K& key) const { return values_.find(key) != nullptr; }
  void is(const K& key, const V& value) { values_.obtain(key) = value; }
  void del(const K& key) { values_.del(key); }
  [[nodiscard]] std::size_t size() const override { return values_.size(); }
  void clear() override { values_.clear(); }
  /// The map itself, for Input::readSynchronously.
  [[nodiscard]] const LocalMap<K, V>& map() const { return values_; }
  void noteState(StateDigest& digest) const override {
    digest.unordered([&](auto&& item) { values_.forEach(item); });
  }

 private:
  LocalMap<K, V> values_;
};

/// Stores, per key, the value of an earlier event.
template <class K, class V>
class Cache final : public LocalState {
 public:
  Cache(Stage& stage, std::string_view name) : LocalState(stage, name), tracer_(stage.tracer()) {
    stage.prefetchSetAdd(values_);
  }

  /// The stored value, or null; valid until the cache's next change.
  [[nodiscard]] const V* find(const K& key) const {
    const V* value = values_.find(key);
    if (value != nullptr) tracer_.trace<7>("Got value {} with key {} from cache", *value, key);
    return value;
  }
  /// The same for a lookup ahead of time.
  [[nodiscard]] const V* peek(const K& key) const { return values_.find(key); }
  /// Returns the stored value, which does not move until the key is deleted.
  const V& is(const K& key, const V& value) {
    tracer_.trace<7>("Inserting value {} with key {} into cache", value, key);
    V& remembered = values_.obtain(key);
    // An equal value may contain a key that is stored with its hint; that one is kept.
    if (!(remembered == value)) remembered = value;
    return remembered;
  }
  void del(const K& key) {
    tracer_.trace<7>("Deleting key {} from cache", key);
    values_.del(key);
  }
  [[nodiscard]] std::size_t size() const override { return values_.size(); }
  void clear() override { values_.clear(); }
  void noteState(StateDigest& digest) const override {
    digest.unordered([&](auto&& item) { values_.forEach(item); });
  }

 private:
  const Tracer& tracer_;
  LocalMap<K, V> values_;
};

/// Groups the events that share a group key. A group holds at most `Limit` members, which is asserted with
/// the declaration's name for the members, `CollName`. An empty group is removed.
template <class GroupKey, class MemberKey, class V, std::size_t Limit, KilnPlatform::FixedString CollName>
class GroupBy final : public LocalState {
 public:
  /// The members of a group, in the order in which they were added.
  class Members {
   public:
    [[nodiscard]] std::size_t size() const { return size_; }
    /// The value of the member at a place below size().
    [[nodiscard]] const V& value(std::size_t at) const { return values_[at]; }
    void noteState(StateDigest& digest) const {
      digest.add(size_);
      for (std::size_t at = 0; at < size_; ++at) digest.add(std::tie(keys_[at], values_[at]));
    }

   private:
    friend GroupBy;
    // Separate arrays have no padding; groups are many.
    std::array<V, Limit> values_;
    std::array<MemberKey, Limit> keys_;
    std::uint8_t size_ = 0;
    static_assert(Limit < 256);
  };

  GroupBy(Stage& stage, std::string_view name) : LocalState(stage, name), tracer_(stage.tracer()) {
    stage.prefetchSetAdd(groups_);
  }

  /// Sets or, if `value` is null, removes a member, and returns the remaining group, or null.
  const Members* update(const GroupKey& group, const MemberKey& member, const V* value) {
    if (value != nullptr) {
      tracer_.trace<7>("Inserting value {} with key {} into groupby collection with key {}", *value, member,
                       group);
      Members& members = groups_.obtain(group);
      put(members, member, *value);
      return &members;
    }
    tracer_.trace<7>("Deleting key {} from groupby collection with key {}", member, group);
    Members* members = groups_.find(group);
    if (members == nullptr) return nullptr;
    remove(*members, member);
    if (members->size_ != 0) return members;
    groups_.del(group);
    return nullptr;
  }
  [[nodiscard]] std::size_t size() const override { return groups_.size(); }
  void clear() override { groups_.clear(); }
  void noteState(StateDigest& digest) const override {
    digest.unordered([&](auto&& item) { groups_.forEach(item); });
  }

 private:
  /// The member's place, or size() if the group does not have it.
  static std::size_t placeOf(const Members& members, const MemberKey& member) {
    const auto end = members.keys_.begin() + members.size_;
    return static_cast<std::size_t>(std::find(members.keys_.begin(), end, member) - members.keys_.begin());
  }
  static void put(Members& members, const MemberKey& member, const V& value) {
    const std::size_t at = placeOf(members, member);
    if (at == members.size_) {
      KILN_ASSERT_MESSAGE(at < Limit, "( len( {} ) <= {} )", CollName.view(), Limit);
      members.keys_[at] = member;
      ++members.size_;
    }
    members.values_[at] = value;
  }
  static void remove(Members& members, const MemberKey& member) {
    std::size_t at = placeOf(members, member);
    if (at == members.size_) return;
    for (--members.size_; at != members.size_; ++at) {
      members.keys_[at] = members.keys_[at + 1];
      members.values_[at] = members.values_[at + 1];
    }
  }

  const Tracer& tracer_;
  LocalMap<GroupKey, Members> groups_;
};

}  // namespace KilnEmServer
