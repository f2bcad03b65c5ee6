// Keeps what must outlive the agent's process in a file: requests, statuses, VLAN domains.
#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "agent/MemoryStateStore.h"
#include "agent/RecordCode.h"
#include "agent/RecordStore.h"
#include "agent/VlanDomainService.h"

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
  [[nodiscard]] std::size_t pending() const { return pending_.size(); }
  /// Makes every change so far durable. Throws std::runtime_error where the file cannot be written.
  void commit();
  [[nodiscard]] const Counters& counters() const { return counters_; }

 private:
  struct Pending {
    std::uint64_t order;  ///< of the change, among all changes
    bool fresh;           ///< whether the record was absent meanwhile, so that it does not keep its old order
  };

  using Pendings = boost::unordered_flat_map<std::string, Pending>;

  void handleStoreChange(const StoreChange& change) override;
  void handleFeatureChange(KilnEmServer::FeatureType feature, bool present) override;
  void handleDomainChange(const VlanDomainChange& change) override;
  void note(std::string key, bool absent);

  void loadStore();
  void loadVlanDomains();
  /// Visits every record of a kind in the file.
  void visit(char kind, const std::function<void(Decoder& key, Decoder& value)>& visitor);

  /// What is to stand under a key now; nothing where the record is to go.
  [[nodiscard]] std::optional<std::string> valueOf(std::string_view key) const;
  [[nodiscard]] std::optional<std::string> storeValueOf(char kind, Decoder& key) const;
  [[nodiscard]] std::optional<std::string> domainValueOf(char kind, Decoder& key) const;

  MemoryStateStore& store_;
  VlanDomainService& vlanDomains_;
  RecordStore file_;
  Pendings pending_;
  std::uint64_t changes_ = 0;
  Counters counters_;
};

}  // namespace KilnAgent
