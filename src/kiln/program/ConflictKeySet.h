// The contenders for each hardware key, by feature type and logical key.
#pragma once

#include <boost/container/small_vector.hpp>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

#include "kiln/runtime/model/EmTypes.h"
#include "kiln/runtime/stage/LocalState.h"

namespace KilnEmServer {

/// The contenders of one feature type for one hardware key, least logical key first: the order is kept by
/// key, so that the winner is a function of the requests alone. The first one, usually the only one, is
/// stored in the set itself. An empty set must not be read.
class FeatureTypeLogicalKeySet {
 public:
  using Contender = std::pair<EmLogicalKey, EmConfigEntry>;

  explicit FeatureTypeLogicalKeySet(FeatureType featureType) : featureType_(featureType) {}
  [[nodiscard]] FeatureType featureType() const { return featureType_; }
  [[nodiscard]] bool empty() const { return size_ == 0; }
  [[nodiscard]] std::size_t size() const { return size_; }
  /// The contender with the least logical key.
  [[nodiscard]] const Contender& first() const { return first_; }
  /// A contender's entry, or null.
  [[nodiscard]] const EmConfigEntry* logicalKeyToEntry(const EmLogicalKey& key) const;
  void logicalKeyToEntryIs(const EmLogicalKey& key, const EmConfigEntry& entry);
  void logicalKeyToEntryDel(const EmLogicalKey& key);
  /// Visits every contender's key, in order.
  template <class Visitor>
  void forEachKey(Visitor&& visit) const {
    if (empty()) return;
    visit(first_.first);
    if (others_ == nullptr) return;
    for (const auto& [key, entry] : *others_) visit(key);
  }
  void noteState(StateDigest& digest) const {
    digest.add(featureType_);
    forEachKey([&](const EmLogicalKey& key) { digest.add(std::tie(key, *logicalKeyToEntry(key))); });
  }

 private:
  using Others = std::map<EmLogicalKey, EmConfigEntry>;

  FeatureType featureType_;
  std::uint32_t size_ = 0;
  Contender first_;
  std::unique_ptr<Others> others_;  ///< null if there are none
};

/// The contenders for one hardware key, sorted by feature type.
class ConflictKeyToLogicalKeySet {
 public:
  [[nodiscard]] const auto& featureTypeToLogicalKeySet() const { return sets_; }
  /// The member of a feature type, created if it does not exist.
  FeatureTypeLogicalKeySet& featureTypeToLogicalKeySetIs(FeatureType featureType);
  /// The member of a feature type, or null.
  [[nodiscard]] const FeatureTypeLogicalKeySet* featureTypeToLogicalKeySet(FeatureType featureType) const {
    for (const FeatureTypeLogicalKeySet& set : sets_) {
      if (set.featureType() == featureType) return &set;
    }
    return nullptr;
  }
  [[nodiscard]] FeatureTypeLogicalKeySet* featureTypeToLogicalKeySet(FeatureType featureType) {
    return const_cast<FeatureTypeLogicalKeySet*>(
        std::as_const(*this).featureTypeToLogicalKeySet(featureType));
  }
  void featureTypeToLogicalKeySetDel(FeatureType featureType);
  void noteState(StateDigest& digest) const { digest.add(sets_); }
  /// The set of the greatest feature type; never null, since no empty level survives.
  [[nodiscard]] const FeatureTypeLogicalKeySet* greatest() const {
    return sets_.empty() ? nullptr : &sets_.back();
  }

 private:
  boost::container::small_vector<FeatureTypeLogicalKeySet, 1> sets_;
};

/// The index over all hardware keys. No empty level survives a removal.
class ConflictKeySet final : public LocalState {
 public:
  explicit ConflictKeySet(Stage& stage) : LocalState(stage, "conflictKeySet") { stage.prefetchSetAdd(sets_); }

  /// The contenders for a hardware key, or null.
  [[nodiscard]] const ConflictKeyToLogicalKeySet* hwKeyToLogicalKeySet(const EmHwKey& hwKey) const {
    return sets_.find(hwKey);
  }
  /// Adds a contender and creates the levels that it needs.
  void insert(const EmHwKey& hwKey, const EmLogicalKey& key, const EmConfigEntry& entry);
  /// Removes a contender and the levels that become empty.
  void erase(const EmHwKey& hwKey, const EmLogicalKey& key);

  /// The divergent hardware keys with contenders whose convergent twin is `twin`, or null.
  [[nodiscard]] const std::set<EmHwKey>* divergentKeysOf(const EmHwKey& twin) const;

  [[nodiscard]] std::size_t size() const override { return sets_.size() + divergent_.size(); }
  void clear() override;
  void noteState(StateDigest& digest) const override {
    digest.unordered([&](auto&& item) { sets_.forEach(item); });
    digest.add(divergent_);
  }

 private:
  ConflictKeyToLogicalKeySet& hwKeyToLogicalKeySetIs(const EmHwKey& hwKey);
  void hwKeyToLogicalKeySetDel(const EmHwKey& hwKey);

  LocalMap<EmHwKey, ConflictKeyToLogicalKeySet> sets_;
  std::map<EmHwKey, std::set<EmHwKey>> divergent_;
};

/// Whether a hardware key is for all chips and cores.
bool fapCoreConvergent(const EmHwKey& hwKey);
/// The same table key for all chips and cores.
EmHwKey convergentTwin(const EmHwKey& hwKey);

/// The winner among two candidates, either of which may be null: of the set with the greater feature type
/// (the first argument's on a tie) the first logical key with its entry. Nothing if both are null.
std::optional<EmLogicalKeyAndEntry> getHighestPriorityKey(const FeatureTypeLogicalKeySet* a,
                                                          const FeatureTypeLogicalKeySet* b);

}  // namespace KilnEmServer
