// Which statuses and table entries change from a moment on, also those that end as they began.
#pragma once

#include <set>
#include <tuple>

#include "kiln/agent/chip/SoftChip.h"
#include "kiln/agent/store/MemoryStateStore.h"

namespace KilnAgent {

/// Notes the keys of statuses that change in the store, and of entries that the hardware writes or removes,
/// whatever causes it: a store that goes back to its last commit does too. Keeps each key once, and no more
/// than kMost of them: then it forgets all and stops.
class TouchRecord final : private StoreObserver, private TableWatcher {
 public:
  static constexpr std::size_t kMost = 100'000;

  /// Begins to note. Store and chip must outlive it.
  TouchRecord(MemoryStateStore& store, SoftChip& chip);
  ~TouchRecord();
  TouchRecord(const TouchRecord&) = delete;
  TouchRecord& operator=(const TouchRecord&) = delete;

  /// Whether there were too many changes to know anything.
  [[nodiscard]] bool overflowed() const { return overflowed_; }
  [[nodiscard]] bool status(KilnEmServer::FeatureType feature, KilnEmServer::EmType database,
                            const KilnEmServer::EmRequestKey& key) const {
    return statuses_.contains({feature, database, key});
  }
  [[nodiscard]] bool entry(const KilnEmServer::EmResolvedKey& key) const { return entries_.contains(key); }

 private:
  void stopIfFull();
  void handleStoreChange(const StoreChange& change) override;
  void handleUpcomingChange(const KilnEmServer::EmResolvedKey& key,
                            const KilnEmServer::EmEntry* before) override;

  MemoryStateStore& store_;
  SoftChip& chip_;
  std::set<std::tuple<KilnEmServer::FeatureType, KilnEmServer::EmType, KilnEmServer::EmRequestKey>> statuses_;
  std::set<KilnEmServer::EmResolvedKey> entries_;
  bool overflowed_ = false;
};

}  // namespace KilnAgent
