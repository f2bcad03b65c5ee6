#include "program/ConflictKeySet.h"

#include <memory>

namespace KilnEmServer {

void ConflictKeySet::insert(const EmHwKey& hwKey, const EmLogicalKey& key, const EmConfigEntry& entry) {
  hwKeyToLogicalKeySetIs(hwKey).featureTypeToLogicalKeySetIs(key.featureType).logicalKeyToEntryIs(key, entry);
}

void ConflictKeySet::erase(const EmHwKey& hwKey, const EmLogicalKey& key) {
  const auto* found = sets_.find(hwKey);
  if (found == nullptr) return;
  ConflictKeyToLogicalKeySet& set = **found;
  FeatureTypeLogicalKeySet* ofFeature = set.featureTypeToLogicalKeySet(key.featureType);
  if (ofFeature == nullptr) return;
  ofFeature->logicalKeyToEntryDel(key);
  if (ofFeature->logicalKeyToEntry().empty()) set.featureTypeToLogicalKeySetDel(key.featureType);
  if (set.featureTypeToLogicalKeySet().empty()) hwKeyToLogicalKeySetDel(hwKey);
}

ConflictKeyToLogicalKeySet& ConflictKeySet::hwKeyToLogicalKeySetIs(const EmHwKey& hwKey) {
  if (const auto* found = sets_.find(hwKey)) return **found;
  auto created = std::make_shared<ConflictKeyToLogicalKeySet>(hwKey);
  sets_.is(hwKey, created);
  if (!fapCoreConvergent(hwKey)) divergent_[convergentTwin(hwKey)].insert(hwKey);
  return *created;
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
  sets_.delAll();
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
  const auto& [key, entry] = *chosen->logicalKeyToEntry().begin();
  return EmLogicalKeyAndEntry{key, entry};
}

}  // namespace KilnEmServer
