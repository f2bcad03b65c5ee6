// Keeps the state that must outlive the agent's process in a file: requests, statuses, VLAN domains.
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

/// Loads the file's content into store and VLAN-domain service, then follows their changes. All components
/// work on the collections in memory; the file follows in commits. A change is recorded by its key, so that a
/// key that changes often is written once per commit. Each commit includes all changes so far: whenever the
/// process dies, its file holds the state of one moment, never a later change without an earlier one.
///
/// Requests, and the server's requests for VLAN domains, are loaded in the order in which they were made.
class DurableStore final : private StoreObserver, private VlanDomainObserver {
 public:
  struct Counters {
    std::uint64_t loaded = 0;   ///< records that the file held
    std::uint64_t commits = 0;  ///< since the file was opened
    std::uint64_t records = 0;  ///< records written or deleted by them
  };

  /// `store` and `vlanDomains` must outlive it and must be new, without a server. Throws InputError if the
  /// file cannot be used; see RecordStore.
  DurableStore(const std::string& path, Durability durability, MemoryStateStore& store,
               VlanDomainService& vlanDomains);
  /// Uncommitted changes are lost.
  ~DurableStore();
  DurableStore(const DurableStore&) = delete;
  DurableStore& operator=(const DurableStore&) = delete;

  /// Number of changes since the last commit: records, and features that were removed with all of their
  /// records.
  [[nodiscard]] std::size_t pending() const { return pendingCount_; }
  /// Makes every change so far durable. Throws std::runtime_error if the file cannot be written.
  void commit();
  [[nodiscard]] const Counters& counters() const { return counters_; }

 private:
  /// The pending change of a record.
  struct Pending {
    /// The number of the change that added the record, among all changes; 0 if it was removed, or if only a
    /// request's status changed.
    std::uint64_t order = 0;
    bool fresh =
        false;  ///< whether the record was absent in the meantime, so that it does not keep its old order
    friend bool operator==(const Pending&, const Pending&) = default;
  };
  /// Requests that changed, or whose status changed.
  template <class Db>
  using PendingByKey = KilnEmServer::SparseCollection<typename Db::EntryKey, Pending>;
  /// Null if nothing changed.
  template <class Db>
  using PendingByFeature = ByFeature<std::unique_ptr<PendingByKey<Db>>>;
  class Writes;

  void handleStoreChange(const StoreChange& change) override;
  void handleFeatureChange(KilnEmServer::FeatureType feature, bool present) override;
  void handleDomainChange(const VlanDomainChange& change) override;
  /// Records that a record was added or changed or, if it is `absent` now, removed.
  void note(Pending& pending, bool absent);
  void noteOther(std::string key, bool absent);
  /// Marks the record of a request to be written; `change(pending)` adds details.
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
  /// The value to store under a key of a kind other than requests and statuses; none if the record is to be
  /// deleted.
  [[nodiscard]] std::optional<std::string> valueOf(std::string_view key) const;
  [[nodiscard]] std::optional<std::string> domainValueOf(char kind, Decoder& key) const;

  MemoryStateStore& store_;
  VlanDomainService& vlanDomains_;
  RecordStore file_;
  std::tuple<PendingByFeature<KilnTunnelNiLib::Isem>, PendingByFeature<KilnTunnelNiLib::Esem>,
             PendingByFeature<KilnTunnelNiLib::Lem>>
      requests_;
  /// Features that were removed since the last commit: their records are deleted before later changes are
  /// written.
  std::set<KilnEmServer::FeatureType> removed_;
  boost::unordered_flat_map<std::string, Pending> others_;  ///< other changes, by the record's key
  std::size_t pendingCount_ = 0;
  std::uint64_t changes_ = 0;
  Counters counters_;
};

}  // namespace KilnAgent
