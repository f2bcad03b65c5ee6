// Collections of a stage's own: caches and group-bys.
#pragma once

#include <boost/container/static_vector.hpp>
#include <cstddef>
#include <string_view>
#include <utility>

#include "platform/Assert.h"
#include "platform/FixedString.h"
#include "platform/Value.h"
#include "runtime/Collection.h"
#include "runtime/Stage.h"

namespace KilnEmServer {

/// Remembers, per key, the value that an earlier event had.
template <class K, class V>
class Cache final : public LocalState {
 public:
  Cache(Stage& stage, std::string_view name) : LocalState(stage, name), tracer_(stage.tracer()) {}

  /// The remembered value, or null; valid until the cache's next change.
  [[nodiscard]] const V* find(const K& key) const {
    const V* value = values_.find(key);
    if (value != nullptr) tracer_.trace<7>("Got value {} with key {} from cache", *value, key);
    return value;
  }
  void is(const K& key, const V& value) {
    tracer_.trace<7>("Inserting value {} with key {} into cache", value, key);
    values_.is(key, value);
  }
  void del(const K& key) {
    tracer_.trace<7>("Deleting key {} from cache", key);
    values_.del(key);
  }
  [[nodiscard]] std::size_t size() const override { return values_.size(); }
  void clear() override { values_.delAll(); }

 private:
  const Tracer& tracer_;
  Collection<K, V> values_;
};

/// Collects the events that share a group key; a group holds at most `Limit` members, which is asserted with
/// the declaration's name for the members, `CollName`. An emptied group is removed.
template <class GroupKey, class MemberKey, class V, std::size_t Limit, KilnPlatform::FixedString CollName>
class GroupBy final : public LocalState {
 public:
  struct Member {
    MemberKey key;
    V value;
    friend bool operator==(const Member&, const Member&) = default;
  };
  /// One more than the limit, so that the broken limit is seen before it is asserted.
  using Members = boost::container::static_vector<Member, Limit + 1>;

  GroupBy(Stage& stage, std::string_view name) : LocalState(stage, name), tracer_(stage.tracer()) {}

  /// Sets or, where `value` is null, removes a member, and returns the group that is left, or null.
  const Members* update(const GroupKey& group, const MemberKey& member, const V* value) {
    const Members* present = groups_.find(group);
    Members coll = present == nullptr ? Members{} : *present;
    if (value != nullptr) {
      tracer_.trace<7>("Inserting value {} with key {} into groupby collection with key {}", *value, member,
                       group);
      insert(coll, member, *value);
    } else {
      tracer_.trace<7>("Deleting key {} from groupby collection with key {}", member, group);
      for (auto at = coll.begin(); at != coll.end(); ++at) {
        if (at->key == member) {
          coll.erase(at);
          break;
        }
      }
    }
    KILN_ASSERT_MESSAGE(coll.size() <= Limit, "( len( {} ) <= {} )", CollName.view(), Limit);
    if (coll.empty()) {
      groups_.del(group);
      return nullptr;
    }
    groups_.is(group, coll);
    return groups_.find(group);
  }
  [[nodiscard]] std::size_t size() const override { return groups_.size(); }
  void clear() override { groups_.delAll(); }

 private:
  static void insert(Members& coll, const MemberKey& member, const V& value) {
    for (Member& present : coll) {
      if (present.key == member) {
        present.value = value;
        return;
      }
    }
    coll.push_back({member, value});
  }

  const Tracer& tracer_;
  Collection<GroupKey, Members> groups_;
};

}  // namespace KilnEmServer
