// Which statuses and table entries change from a moment on, also those that end as they began.
#pragma once

#include <set>
#include <tuple>

#include "agent/MemoryStateStore.h"
#include "agent/SoftChip.h"

namespace KilnAgent {

/// Notes the keys of statuses that change in the store, and of entries that the hardware writes or removes,
/// whoever causes it: a store that goes back to its last commit does too. Keeps each key once.
class TouchRecord final : private StoreObserver, private TableWatcher {
 public:
  /// Begins to note. Store and chip must outlive it.
  TouchRecord(MemoryStateStore& store, SoftChip& chip);
  ~TouchRecord();
  TouchRecord(const TouchRecord&) = delete;
  TouchRecord& operator=(const TouchRecord&) = delete;

  [[nodiscard]] bool status(KilnEmServer::FeatureType feature, KilnEmServer::EmType database,
                            const KilnEmServer::EmRequestKey& key) const {
    return statuses_.contains({feature, database, key});
  }
  [[nodiscard]] bool entry(const KilnEmServer::EmResolvedKey& key) const { return entries_.contains(key); }

 private:
  void handleStoreChange(const StoreChange& change) override;
  void handleOperation(const KilnEmServer::EmResolvedKey& /*key*/, Operation /*operation*/) override {}
  void handleUpcomingChange(const KilnEmServer::EmResolvedKey& key, Operation operation,
                            const KilnEmServer::EmEntry* before) override;

  MemoryStateStore& store_;
  SoftChip& chip_;
  std::set<std::tuple<KilnEmServer::FeatureType, KilnEmServer::EmType, KilnEmServer::EmRequestKey>> statuses_;
  std::set<KilnEmServer::EmResolvedKey> entries_;
};

}  // namespace KilnAgent
