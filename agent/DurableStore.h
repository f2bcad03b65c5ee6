// Keeps what must outlive the agent's process in a file: requests, statuses, VLAN domains.
#pragma once

#include <array>
#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "agent/MemoryStateStore.h"
#include "agent/RecordCode.h"
#include "agent/RecordStore.h"
#include "agent/VlanDomainService.h"
#include "runtime/LocalMap.h"

namespace KilnAgent {

/// Loads the file's content into store and VLAN-domain service, then follows their changes. The collections
/// in memory stay what everybody works on; the file follows in commits. A change is noted by its key, so that
/// what changes often is written once, and each commit takes over all changes so far: whatever moment a
/// process dies at, its file holds what stood at one moment, never a later change without an earlier one.
///
/// Requests, and the server's requests for VLAN domains, are loaded in the order in which they were made.
class DurableStore final : private StoreObserver, private VlanDomainObserver {
 public:
  struct Counters {
    std::uint64_t loaded = 0;   ///< records that the file held
    std::uint64_t commits = 0;  ///< since then
    std::uint64_t records = 0;  ///< that these wrote or deleted
  };

  /// `store` and `vlanDomains` must outlive it, must be new, and no server may work on them yet. Throws
  /// InputError where the file cannot be used; see RecordStore.
  DurableStore(const std::string& path, Durability durability, MemoryStateStore& store,
               VlanDomainService& vlanDomains);
  /// Changes that are not committed are lost.
  ~DurableStore();
  DurableStore(const DurableStore&) = delete;
  DurableStore& operator=(const DurableStore&) = delete;

  /// Records that changed since the last commit.
  [[nodiscard]] std::size_t pending() const { return pendingCount_; }
  /// Makes every change so far durable. Throws std::runtime_error where the file cannot be written.
  void commit();
  [[nodiscard]] const Counters& counters() const { return counters_; }

 private:
  /// A record that changed.
  struct Pending {
    std::uint64_t order = 0;  ///< of the change, among all changes; 0 where only a request's status changed
    bool noted = false;
    bool fresh = false;  ///< whether the record was absent meanwhile, so that it does not keep its old order
  };
  /// Requests that changed, or whose status did.
  template <class Db>
  using PendingByKey = KilnEmServer::LocalMap<typename Db::EntryKey, Pending>;
  /// By the feature's number, which is from 1 to 8; null where nothing changed yet.
  template <class Db>
  using PendingByFeature = std::array<std::unique_ptr<PendingByKey<Db>>, 9>;
  class Writes;

  void handleStoreChange(const StoreChange& change) override;
  void handleFeatureChange(KilnEmServer::FeatureType feature, bool present) override;
  void handleDomainChange(const VlanDomainChange& change) override;
  /// A record was changed; `absent` tells whether it is gone now.
  void note(Pending& pending, bool absent);
  void noteStatus(Pending& pending);
  void noteOther(std::string key, bool absent) { note(others_[std::move(key)], absent); }
  template <class Db>
  PendingByKey<Db>& pendingOf(KilnEmServer::FeatureType feature);

  void loadStore();
  void loadVlanDomains();
  /// Visits every record of a kind in the file.
  void visit(char kind, const std::function<void(Decoder& key, Decoder& value)>& visitor);

  /// Calls `visitor.template operator()<Db>(feature, pending)` for each feature of which something changed.
  template <class Visitor>
  void forEachPending(Visitor&& visitor);
  /// What is to stand under a key of another kind than requests and statuses; nothing where the record is to
  /// go.
  [[nodiscard]] std::optional<std::string> valueOf(std::string_view key) const;
  [[nodiscard]] std::optional<std::string> domainValueOf(char kind, Decoder& key) const;

  MemoryStateStore& store_;
  VlanDomainService& vlanDomains_;
  RecordStore file_;
  std::tuple<PendingByFeature<KilnTunnelNiLib::Isem>, PendingByFeature<KilnTunnelNiLib::Esem>,
             PendingByFeature<KilnTunnelNiLib::Lem>>
      records_;                                             ///< requests and statuses that changed
  boost::unordered_flat_map<std::string, Pending> others_;  ///< what else changed, by the record's key; few
  std::size_t pendingCount_ = 0;
  std::uint64_t changes_ = 0;
  Counters counters_;
};

}  // namespace KilnAgent
