#include "kiln/program/ConflictKeySet.h"

namespace KilnEmServer {

const EmConfigEntry* FeatureTypeLogicalKeySet::logicalKeyToEntry(const EmLogicalKey& key) const {
  if (empty()) return nullptr;
  if (first_.first == key) return &first_.second;
  if (others_ == nullptr) return nullptr;
  const auto at = others_->find(key);
  return at == others_->end() ? nullptr : &at->second;
}

void FeatureTypeLogicalKeySet::logicalKeyToEntryIs(const EmLogicalKey& key, const EmConfigEntry& entry) {
  if (empty() || first_.first == key) {
    first_ = {key, entry};
    size_ += empty() ? 1 : 0;
    return;
  }
  if (others_ == nullptr) others_ = std::make_unique<Others>();
  if (key < first_.first) {
    others_->insert(others_->begin(), first_);
    first_ = {key, entry};
  } else {
    others_->insert_or_assign(key, entry);
  }
  size_ = static_cast<std::uint32_t>(1 + others_->size());
}

void FeatureTypeLogicalKeySet::logicalKeyToEntryDel(const EmLogicalKey& key) {
  if (empty()) return;
  if (first_.first != key) {
    if (others_ != nullptr) others_->erase(key);
  } else if (others_ == nullptr) {
    size_ = 0;
    return;
  } else {
    first_ = *others_->begin();
    others_->erase(others_->begin());
  }
  size_ = static_cast<std::uint32_t>(1 + (others_ == nullptr ? 0 : others_->size()));
  if (size_ == 1) others_.reset();
}

FeatureTypeLogicalKeySet& ConflictKeyToLogicalKeySet::featureTypeToLogicalKeySetIs(FeatureType featureType) {
  auto at = sets_.begin();
  while (at != sets_.end() && at->featureType() < featureType) ++at;
  if (at == sets_.end() || at->featureType() != featureType) at = sets_.emplace(at, featureType);
  return *at;
}

void ConflictKeyToLogicalKeySet::featureTypeToLogicalKeySetDel(FeatureType featureType) {
  for (auto at = sets_.begin(); at != sets_.end(); ++at) {
    if (at->featureType() != featureType) continue;
    sets_.erase(at);
    return;
  }
}

void ConflictKeySet::insert(const EmHwKey& hwKey, const EmLogicalKey& key, const EmConfigEntry& entry) {
  hwKeyToLogicalKeySetIs(hwKey).featureTypeToLogicalKeySetIs(key.featureType).logicalKeyToEntryIs(key, entry);
}

void ConflictKeySet::erase(const EmHwKey& hwKey, const EmLogicalKey& key) {
  ConflictKeyToLogicalKeySet* set = sets_.find(hwKey);
  if (set == nullptr) return;
  FeatureTypeLogicalKeySet* ofFeature = set->featureTypeToLogicalKeySet(key.featureType);
  if (ofFeature == nullptr) return;
  ofFeature->logicalKeyToEntryDel(key);
  if (ofFeature->empty()) set->featureTypeToLogicalKeySetDel(key.featureType);
  if (set->featureTypeToLogicalKeySet().empty()) hwKeyToLogicalKeySetDel(hwKey);
}

ConflictKeyToLogicalKeySet& ConflictKeySet::hwKeyToLogicalKeySetIs(const EmHwKey& hwKey) {
  if (ConflictKeyToLogicalKeySet* found = sets_.find(hwKey)) return *found;
  if (!fapCoreConvergent(hwKey)) divergent_[convergentTwin(hwKey)].insert(hwKey);
  return sets_.obtain(hwKey);
}

void ConflictKeySet::hwKeyToLogicalKeySetDel(const EmHwKey& hwKey) {
  const EmHwKey key = hwKey;
  sets_.del(key);
  if (fapCoreConvergent(key)) return;
  const auto at = divergent_.find(convergentTwin(key));
  at->second.erase(key);
  if (at->second.empty()) divergent_.erase(at);
}

const std::set<EmHwKey>* ConflictKeySet::divergentKeysOf(const EmHwKey& twin) const {
  if (divergent_.empty()) return nullptr;
  const auto at = divergent_.find(twin);
  return at == divergent_.end() ? nullptr : &at->second;
}

void ConflictKeySet::clear() {
  sets_.clear();
  divergent_.clear();
}

bool fapCoreConvergent(const EmHwKey& hwKey) {
  const bool allFaps = hwKey.fapId == Hardware::Kiln::FapId::allFap();
  const bool allCores = hwKey.localCoreId == Hardware::Kiln::LocalCoreId::all();
  KILN_ASSERT_MESSAGE(allFaps == allCores, "request must be fap/core convergent or fap/core divergent");
  return allFaps;
}

EmHwKey convergentTwin(const EmHwKey& hwKey) {
  return {Hardware::Kiln::FapId::allFap(), Hardware::Kiln::LocalCoreId::all(), hwKey.emResolvedKey};
}

std::optional<EmLogicalKeyAndEntry> getHighestPriorityKey(const FeatureTypeLogicalKeySet* a,
                                                          const FeatureTypeLogicalKeySet* b) {
  if (a == nullptr && b == nullptr) return std::nullopt;
  const FeatureTypeLogicalKeySet* chosen = a;
  if (a == nullptr || (b != nullptr && a->featureType() < b->featureType())) chosen = b;
  const auto& [key, entry] = chosen->first();
  return EmLogicalKeyAndEntry{key, entry};
}

}  // namespace KilnEmServer
