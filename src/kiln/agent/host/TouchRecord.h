// Records which statuses and table entries changed since a moment, including those that changed back.
#pragma once

#include <set>
#include <tuple>

#include "kiln/agent/chip/SoftChip.h"
#include "kiln/agent/store/MemoryStateStore.h"

namespace KilnAgent {

/// Records the keys of statuses that change in the store, and of entries that the hardware writes or removes.
/// The cause does not matter: a store that reverts to its last commit counts, too. Each key is recorded once.
/// After more than kMost keys it forgets all and stops.
class TouchRecord final : private StoreObserver, private TableWatcher {
 public:
  static constexpr std::size_t kMost = 100'000;

  /// Starts recording. Store and chip must outlive the record.
  TouchRecord(MemoryStateStore& store, SoftChip& chip);
  ~TouchRecord();
  TouchRecord(const TouchRecord&) = delete;
  TouchRecord& operator=(const TouchRecord&) = delete;

  /// Whether there were too many changes, so that the record is empty and incomplete.
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
