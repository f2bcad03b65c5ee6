// Observes a restart: how the stages reconciled what they found, and whether anything was disturbed
// unnecessarily.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "kiln/agent/chip/SoftChip.h"
#include "kiln/agent/platform/Collections.h"
#include "kiln/agent/store/MemoryStateStore.h"
#include "kiln/platform/KilnVlanDomain.h"
#include "kiln/server/ReconcileProgress.h"

namespace KilnEmServer {
class Server;
}

namespace KilnAgent {

/// The content of a published status, without its key.
struct StatusRecord {
  KilnEmServer::EmStatus status{};
  std::uint32_t requestVersion = 0;
  std::uint8_t result = 0;
  friend bool operator==(const StatusRecord&, const StatusRecord&) = default;
};

/// One table's part of a restart.
struct TableReconcile {
  std::string_view stem;
  std::size_t found = 0;       ///< entries that the hardware held at the restart
  OperationCounters calls;     ///< issued by the server
  HardwareCounters hardware;   ///< of the calls, those that changed the hardware; and drops of entries that
                               ///< were not written again
  std::uint64_t needless = 0;  ///< writes and removals of entries that were the same before and after
};

/// The outcome of a restart.
struct ReconcileReport {
  std::uint64_t restart = 0;  ///< numbered from 1 since the agent started
  enum class State : std::uint8_t { running, complete, interrupted } state = State::running;
  std::vector<KilnEmServer::StageProgress> stages;
  std::vector<TableReconcile> tables;
  std::size_t statusesFound = 0;
  std::uint64_t statusesChanged = 0;  ///< changes of published statuses, each one counted
  std::uint64_t statusesDeleted = 0;  ///< deletions among them
  std::uint64_t heldAnswers = 0;      ///< answers that the tables hold back
  /// Entries, statuses and VLAN-domain requests that were settled and equal before and after, but changed in
  /// between.
  std::uint64_t disturbed = 0;
  std::vector<std::string> disturbedRows;  ///< the first of them, as text
};

/// Evaluates restarts. An object that was settled before a restart, and is the same after it, must not have
/// been written, removed or changed in between. Objects are left out if they depend on requests that were
/// published or withdrawn in the meantime, or on VLAN domains that changed. A restart lasts until its server
/// has completed and nothing is pending. If another one interrupts it, the state before both is compared with
/// the state after both. Outside a restart the cost is one branch per change.
class ReconcileMonitor final : private KilnPlatform::KeySubscriber<KilnEmServer::FeatureType> {
 public:
  static constexpr std::size_t kDisturbedRows = 20;

  ReconcileMonitor(MemoryStateStore& store, SoftChip& chip, const KilnVlanDomain::VlanDomainConfig& asked,
                   const KilnVlanDomain::VlanDomainStatus& allotted);
  ~ReconcileMonitor();
  ReconcileMonitor(const ReconcileMonitor&) = delete;
  ReconcileMonitor& operator=(const ReconcileMonitor&) = delete;

  /// The agent starts: a restart begins if requests, statuses or table entries exist already.
  void agentStarts();
  /// A server is about to be created over the state of an earlier one.
  void restartBegins(const KilnEmServer::Server* interrupted);
  /// No task is ready: ends the restart if its server has completed and no answer is held.
  void quiet(const KilnEmServer::Server& server);
  [[nodiscard]] bool restarting() const { return restarting_; }

  /// Evaluates the current restart in steps; the agent may run between two steps.
  class Judgement {
   public:
    /// A restart must be in progress. Both references must outlive the object.
    Judgement(const ReconcileMonitor& monitor, const KilnEmServer::Server& server);
    /// Evaluates up to `items` touched objects. Returns whether there are more.
    bool step(std::size_t items);
    /// Complete when step() has returned false.
    [[nodiscard]] ReconcileReport& report() { return report_; }
    /// Whether the restart has ended, or another one has begun.
    [[nodiscard]] bool outdated() const;

   private:
    template <class Map, class Judge>
    static bool walk(const Map& touched, std::optional<typename Map::key_type>& last, std::size_t& items,
                     Judge&& judge);

    const ReconcileMonitor& monitor_;
    ReconcileReport report_;
    std::uint64_t endedCount_;
    // The position: the objects that were evaluated last.
    std::optional<KilnEmServer::EmResolvedKey> entry_;
    std::optional<std::tuple<KilnEmServer::EmType, KilnEmServer::EmLogicalKey>> status_;
    std::optional<KilnTunnelNiLib::IntfIdSystemTcamId> domainRequest_;
  };

  /// The restart in progress or, if there is none, the last one; none before the first.
  [[nodiscard]] std::optional<ReconcileReport> report(const KilnEmServer::Server& server) const;
  /// The last completed restart, and the number of completed restarts.
  [[nodiscard]] const std::optional<ReconcileReport>& ended() const { return ended_; }
  [[nodiscard]] std::uint64_t endedCount() const { return endedCount_; }

 private:
  using Interface = KilnTunnelNiLib::IntfIdSystemTcamId;
  using RecordKey = std::tuple<KilnEmServer::EmType, KilnEmServer::EmLogicalKey>;
  struct TouchedEntry {
    std::optional<KilnEmServer::EmEntry> before;
    std::uint64_t operations = 0;
  };

  template <class Db>
  struct RequestWatch;
  template <class Db>
  struct StatusWatch;
  struct FeatureWatch;
  struct TableWatch;
  struct AskedWatch;
  struct AllottedWatch;

  void handleChange(const KilnEmServer::FeatureType& feature) override;
  void watchFeature(KilnEmServer::FeatureType feature, bool on);
  void watchAll(bool on);
  void forgetTouched();
  void countFound();

  void requestTouched(KilnEmServer::EmType database, const KilnEmServer::EmLogicalKey& key);
  void statusTouched(KilnEmServer::EmType database, const KilnEmServer::EmLogicalKey& key,
                     const std::optional<StatusRecord>& before, bool deleted);

  [[nodiscard]] ReconcileReport makeReport(const KilnEmServer::Server& server) const;
  void judge(ReconcileReport& report, const KilnEmServer::EmResolvedKey& key,
             const TouchedEntry& touched) const;
  void judge(ReconcileReport& report, const RecordKey& recordKey,
             const std::optional<StatusRecord>& before) const;
  void judge(ReconcileReport& report, const Interface& interface, bool before) const;
  [[nodiscard]] std::optional<StatusRecord> settledStatus(const RecordKey& key) const;
  [[nodiscard]] bool hasSay(const KilnEmServer::EmResolvedKey& key) const;
  /// Calls `row()` only if its text is shown.
  template <class Row>
  static void addDisturbed(ReconcileReport& report, Row&& row) {
    if (++report.disturbed <= kDisturbedRows) report.disturbedRows.push_back(row());
  }

  MemoryStateStore& store_;
  SoftChip& chip_;
  const KilnVlanDomain::VlanDomainConfig& asked_;
  const KilnVlanDomain::VlanDomainStatus& allotted_;
  bool restarting_ = false;
  std::uint64_t restarts_ = 0;
  std::uint64_t endedCount_ = 0;
  std::optional<ReconcileReport> ended_;

  std::map<KilnEmServer::FeatureType, std::unique_ptr<FeatureWatch>> features_;
  std::vector<std::unique_ptr<TableWatch>> tables_;
  std::unique_ptr<AskedWatch> askedWatch_;
  std::unique_ptr<AllottedWatch> allottedWatch_;

  // State since the restart began.
  std::vector<TableReconcile> tablesBefore_;  ///< with the counters at that time
  std::size_t statusesFound_ = 0;
  std::uint64_t statusesChanged_ = 0;
  std::uint64_t statusesDeleted_ = 0;
  // The previous value of everything that changed since the first of the consecutive restarts.
  std::map<RecordKey, std::optional<StatusRecord>> touchedStatuses_;
  std::map<KilnEmServer::EmResolvedKey, TouchedEntry> touchedEntries_;
  std::map<Interface, bool> touchedDomainRequests_;
  // Objects on which others depend.
  std::set<RecordKey> touchedRequests_;
  std::set<KilnEmServer::EmResolvedKey> touchedKeys_;
  std::set<std::uint64_t> touchedDomains_;
  std::set<Interface> touchedAllotments_;
  std::set<Interface> touchedInterfaces_;  ///< of touched requests
};

}  // namespace KilnAgent
