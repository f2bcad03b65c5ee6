// Keeps what must outlive the agent's process in a file: requests, statuses, VLAN domains.
#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "kiln/agent/io/RecordCode.h"
#include "kiln/agent/platform/VlanDomainService.h"
#include "kiln/agent/store/MemoryStateStore.h"
#include "kiln/agent/store/RecordStore.h"
#include "kiln/runtime/collections/Collection.h"

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

  /// Changes since the last commit: records, and features that were removed with all of theirs.
  [[nodiscard]] std::size_t pending() const { return pendingCount_; }
  /// Makes every change so far durable. Throws std::runtime_error where the file cannot be written.
  void commit();
  [[nodiscard]] const Counters& counters() const { return counters_; }

 private:
  /// What is to be known of a record that changed.
  struct Pending {
    /// The number of the change that brought it, among all changes; 0 where it is gone, or where only a
    /// request's status changed.
    std::uint64_t order = 0;
    bool fresh = false;  ///< whether the record was absent meanwhile, so that it does not keep its old order
    friend bool operator==(const Pending&, const Pending&) = default;
  };
  /// Requests that changed, or whose status did.
  template <class Db>
  using PendingByKey = KilnEmServer::SparseCollection<typename Db::EntryKey, Pending>;
  /// Null where nothing changed.
  template <class Db>
  using PendingByFeature = ByFeature<std::unique_ptr<PendingByKey<Db>>>;
  class Writes;

  void handleStoreChange(const StoreChange& change) override;
  void handleFeatureChange(KilnEmServer::FeatureType feature, bool present) override;
  void handleDomainChange(const VlanDomainChange& change) override;
  /// Notes that a record came, changed or, where it is `absent` now, went.
  void note(Pending& pending, bool absent);
  void noteOther(std::string key, bool absent);
  /// The record of a request is to be written; `change(pending)` notes more of it.
  template <class Db, class Change>
  void noteRequest(KilnEmServer::FeatureType feature, const typename Db::EntryKey& key, Change&& change);

  void loadStore();
  void loadVlanDomains();
  /// Visits every record of a kind in the file.
  void visit(char kind, const std::function<void(Decoder& key, Decoder& value)>& visitor);

  template <class Db>
  void addRequests(Writes& writes, KilnEmServer::FeatureType feature, const PendingByKey<Db>& pending) const;
  void addOthers(Writes& writes) const;
  void forgetPending();
  /// What is to stand under a key of another kind than requests and statuses; nothing where the record is to
  /// go.
  [[nodiscard]] std::optional<std::string> valueOf(std::string_view key) const;
  [[nodiscard]] std::optional<std::string> domainValueOf(char kind, Decoder& key) const;

  MemoryStateStore& store_;
  VlanDomainService& vlanDomains_;
  RecordStore file_;
  std::tuple<PendingByFeature<KilnTunnelNiLib::Isem>, PendingByFeature<KilnTunnelNiLib::Esem>,
             PendingByFeature<KilnTunnelNiLib::Lem>>
      requests_;
  /// Features that went since the last commit: what the file has of them goes before what changed later.
  std::set<KilnEmServer::FeatureType> removed_;
  boost::unordered_flat_map<std::string, Pending> others_;  ///< what else changed, by the record's key
  std::size_t pendingCount_ = 0;
  std::uint64_t changes_ = 0;
  Counters counters_;
};

}  // namespace KilnAgent
