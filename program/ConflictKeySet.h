// Who wants which hardware key: the contenders, by hardware key, feature type and logical key.
#pragma once

#include <boost/container/flat_map.hpp>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string_view>

#include "platform/Ref.h"
#include "runtime/Collection.h"
#include "runtime/EmTypes.h"
#include "runtime/LocalState.h"

namespace KilnEmServer {

using KilnPlatform::Ref;

/// The contenders of one feature type for one hardware key, least logical key first: the order is kept by
/// key, so that the winner is a function of the requests alone.
class FeatureTypeLogicalKeySet {
 public:
  explicit FeatureTypeLogicalKeySet(FeatureType featureType) : featureType_(featureType) {}
  [[nodiscard]] FeatureType featureType() const { return featureType_; }
  [[nodiscard]] const std::map<EmLogicalKey, EmConfigEntry>& logicalKeyToEntry() const { return entries_; }
  void logicalKeyToEntryIs(const EmLogicalKey& key, const EmConfigEntry& entry) {
    entries_.insert_or_assign(key, entry);
  }
  void logicalKeyToEntryDel(const EmLogicalKey& key) { entries_.erase(key); }

 private:
  FeatureType featureType_;
  std::map<EmLogicalKey, EmConfigEntry> entries_;
};

/// The contenders for one hardware key, sorted by feature type.
class ConflictKeyToLogicalKeySet {
 public:
  explicit ConflictKeyToLogicalKeySet(const EmHwKey& hwKey) : hwKey_(hwKey) {}
  [[nodiscard]] const EmHwKey& hwKey() const { return hwKey_; }
  [[nodiscard]] const auto& featureTypeToLogicalKeySet() const { return sets_; }
  /// The member of a feature type, created where there is none.
  FeatureTypeLogicalKeySet& featureTypeToLogicalKeySetIs(FeatureType featureType) {
    return sets_.try_emplace(featureType, featureType).first->second;
  }
  /// The member of a feature type, or null.
  [[nodiscard]] FeatureTypeLogicalKeySet* featureTypeToLogicalKeySet(FeatureType featureType) {
    const auto at = sets_.find(featureType);
    return at == sets_.end() ? nullptr : &at->second;
  }
  void featureTypeToLogicalKeySetDel(FeatureType featureType) { sets_.erase(featureType); }
  /// The set of the greatest feature type; never null, since no empty level survives.
  [[nodiscard]] const FeatureTypeLogicalKeySet* greatest() const {
    return sets_.empty() ? nullptr : &sets_.rbegin()->second;
  }

 private:
  EmHwKey hwKey_;
  boost::container::flat_map<FeatureType, FeatureTypeLogicalKeySet> sets_;
};

/// The index over all hardware keys. No empty level survives a removal.
class ConflictKeySet final : public LocalState {
 public:
  explicit ConflictKeySet(Stage& stage) : LocalState(stage, "conflictKeySet") {}

  /// The contenders for a hardware key, or null.
  [[nodiscard]] const ConflictKeyToLogicalKeySet* hwKeyToLogicalKeySet(const EmHwKey& hwKey) const {
    const auto* set = sets_.find(hwKey);
    return set == nullptr ? nullptr : set->get();
  }
  /// Files a contender, creating the levels as needed.
  void insert(const EmHwKey& hwKey, const EmLogicalKey& key, const EmConfigEntry& entry);
  /// Removes a contender and the levels that it leaves empty.
  void erase(const EmHwKey& hwKey, const EmLogicalKey& key);

  /// The divergent hardware keys with contenders whose convergent twin is `twin`, or null.
  [[nodiscard]] const std::set<EmHwKey>* divergentKeysOf(const EmHwKey& twin) const;

  [[nodiscard]] std::size_t size() const override { return sets_.size() + divergent_.size(); }
  void clear() override;

 private:
  ConflictKeyToLogicalKeySet& hwKeyToLogicalKeySetIs(const EmHwKey& hwKey);
  void hwKeyToLogicalKeySetDel(const EmHwKey& hwKey);

  Collection<EmHwKey, Ref<ConflictKeyToLogicalKeySet>> sets_;
  std::map<EmHwKey, std::set<EmHwKey>> divergent_;
};

/// Whether a hardware key is for all chips and cores.
bool fapCoreConvergent(const EmHwKey& hwKey);
/// The same table key for all chips and cores.
EmHwKey convergentTwin(const EmHwKey& hwKey);

/// The winner among two candidates, either of which may be null: of the set with the greater feature type
/// (the first argument's on a tie) the first logical key with its entry. Nothing where both are null.
std::optional<EmLogicalKeyAndEntry> getHighestPriorityKey(const FeatureTypeLogicalKeySet* a,
                                                          const FeatureTypeLogicalKeySet* b);

}  // namespace KilnEmServer
