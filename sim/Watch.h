// Invariants that hold at every step of a run, checked from outside the server: in the store's records, in
// the chip's operations and in the stages that the server reports as complete.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/scenario/Operation.h"
#include "sim/HardwareLog.h"
#include "sim/Recompute.h"

namespace KilnSim {

/// Watches one agent from quiet moment to quiet moment. The window between two of them contains operations
/// and restarts.
///
/// - A status answers the present request, and is `hwSuccess` only if this server's write of that entry was
///   accepted. The status of a request does not disappear while the request exists.
/// - The chip gets only entries of requests of the window, under keys that these may have had.
/// - In a window of a single change, with or without restarts, an object that must be the same before and
///   after is not touched.
/// - When no task is ready, every status follows from the operations answered so far.
/// - The VLAN domain of an interface is not released while a table has an entry of it, or an operation on one
///   is unanswered. Two interfaces that do not share a domain never have entries under the same one.
/// - A refused entry waits only while the table is full.
/// - Over restarts alone, every collection, group and cache of the server ends with the same size.
/// - A stage is complete once, reconciliation only when the hardware has everything; a stage's counts of
///   found and deleted keys are the true ones.
class Watch final : private KilnAgent::StoreObserver,
                    private KilnAgent::TableWatcher,
                    private KilnPlatform::KeySubscriber<IntfIdSystemTcamId>,
                    private KilnPlatform::KeySubscriber<std::string> {
 public:
  explicit Watch(KilnAgent::EmbeddedAgent& agent);
  ~Watch();
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  /// The server is about to be destroyed; if `reverted`, the store returns to its last commit.
  void serverEnds(bool reverted);
  /// Another server uses the same store and chip.
  void serverBegins();
  /// So many changes are about to be made from outside. A change with indirect effects counts as several.
  void changes(std::size_t count) { changes_ += count; }
  /// The feature's collections are about to be removed.
  void featureGoes(FeatureType feature);
  /// The table may get room without a removal.
  void makesRoom(TableTag table) { madeRoom_.insert(table); }
  /// Domains may be allotted by hand to several interfaces.
  void allotsByHand() { byHand_ = true; }
  /// No task is ready. `expected` must be published and programmed, `found` is. The window ends if every
  /// operation is answered.
  void quiet(const Wanted& wanted, const Outcome& expected, const Outcome& found, bool answered);

  /// Whether the chip's latest answer to this write was a refusal.
  [[nodiscard]] bool refused(const EmResolvedKey& key, const EmEntry& entry) const;
  /// The failed checks since the last call; empty if all passed.
  [[nodiscard]] std::string takeWrong() { return std::exchange(wrong_, {}); }
  /// Required statuses and entries that were missing or wrong, as expectations of a scenario that watches
  /// since the last quiet moment.
  [[nodiscard]] std::vector<KilnAgent::Operation> takeExpected() { return std::exchange(expected_, {}); }
  /// Of all observations, in their order.
  [[nodiscard]] std::uint64_t digest() const { return digest_; }
  /// Changes of requests and domains since the window began.
  [[nodiscard]] std::size_t inputs() const { return inputs_; }
  /// Number of writes that the chip refused so far.
  [[nodiscard]] std::uint64_t refusals() const { return refusals_; }
  /// Describes everything, in addition to the agent's state, on which a later verdict may depend.
  /// Observations and counters are left out.
  void noteState(KilnEmServer::StateDigest& digest) const;

 private:
  using Sizes = std::vector<std::pair<std::string, std::size_t>>;
  /// The last write of a key without a later removal.
  struct LastWrite {
    std::uint64_t number = 0;
    EmEntry entry;
    bool refused = false;
  };
  using Programmed = std::pair<EmResolvedKey, EmEntry>;
  void handleStoreChange(const KilnAgent::StoreChange& change) override;
  void handleIssued(const KilnAgent::HwOperation& operation) override;
  void handleUpcomingChange(const EmResolvedKey& key, const EmEntry* before) override;
  void handleApplied(const KilnAgent::HwOperation& operation, EntryState outcome) override;
  void handleAnswered(std::uint64_t number) override;
  void handleChange(const IntfIdSystemTcamId& interface) override;
  void handleChange(const std::string& stage) override;

  void noteFound();
  void checkReconciled(const std::string& stage);
  template <class Db>
  void requestChanged(const RequestPlace& place);
  template <class Db>
  void statusChanged(const RequestPlace& place);
  void statusWritten(const RequestPlace& place, const std::optional<Request>& request,
                     const StatusSeen& seen);
  [[nodiscard]] bool accepted(const RequestPlace& place, const EmEntry& entry) const;
  [[nodiscard]] bool hasRival(const RequestPlace& place) const;
  [[nodiscard]] bool wasRefused(const EmRequestKey& key) const;
  /// The hardware keys that a request may have had in the window.
  [[nodiscard]] std::set<EmResolvedKey> hwKeysOf(const EmRequestKey& key) const;
  void mayBeProgrammed(const RequestPlace& place, const Request& request);
  void addProgrammed(const Subject& subject, std::optional<std::uint16_t> domain);
  void domainRequestChanged(const IntfIdSystemTcamId& interface);
  /// Checks that no other interface has entries under the domain of this key, unless they share it.
  void checkOwner(const EmResolvedKey& key);
  void checkStatuses(const Wanted& wanted, const Outcome& expected, const Outcome& found);
  void checkWaiting(const Outcome& expected);
  void checkDomains(const Wanted& wanted);
  /// The requests of the window for this key whose entries its table cannot hold.
  [[nodiscard]] std::set<Subject> unwritable(const EmResolvedKey& hwKey) const;
  /// Checks that a key that moves is written at its new place before it is removed from the old one.
  void checkMoved(const EmResolvedKey& from);
  void checkWindow(const Outcome& expected);
  /// Whether the window has more than one entry that was requested there.
  [[nodiscard]] bool changedEntry(const RequestPlace& place) const;
  void beginWindow(const Wanted& wanted, const Outcome& expected);
  /// A status of this version or result is required; none if neither is given.
  void expectStatus(const RequestPlace& place, std::optional<std::uint32_t> requestVersion,
                    std::optional<std::uint8_t> result);
  void expectUntouched(const RequestPlace& place, const StatusSeen& was);
  void checkSizes();
  void say(std::string text);
  void note(std::uint64_t what) { digest_ = (digest_ ^ what) * 0x100000001b3; }

  /// Requests for VLAN domains.
  struct DomainRequests final : KilnPlatform::KeySubscriber<IntfIdSystemTcamId> {
    explicit DomainRequests(Watch& watch) : owner(watch) {}
    void handleChange(const IntfIdSystemTcamId& interface) override { owner.domainRequestChanged(interface); }
    Watch& owner;
  };

  KilnAgent::EmbeddedAgent& agent_;
  DomainRequests domainRequests_{*this};
  std::string wrong_;
  std::vector<KilnAgent::Operation> expected_;
  std::uint64_t digest_ = 0xcbf29ce484222325;
  std::uint64_t refusals_ = 0;

  // Of the chip.
  HardwareLog log_;
  bool byHand_ = true;           ///< whether interfaces that do not share may have one domain
  std::set<TableTag> madeRoom_;  ///< tables in which refused entries need not be tried again

  // Of the store.
  std::set<RequestPlace> present_;  ///< existing requests

  // Of this server.
  std::set<RequestPlace> foundStatuses_;     ///< published by an earlier server
  std::set<RequestPlace> vanishedStatuses_;  ///< of these, the ones that disappeared
  std::set<FeatureType> removedFeatures_;    ///< features whose collections were removed in the meantime
  std::set<Programmed> accepted_;
  std::map<EmResolvedKey, LastWrite> lastWrite_;
  std::map<IntfIdSystemTcamId, std::set<std::uint16_t>> domainsOfServer_;

  std::size_t inputsSettled_ = 0;  ///< of the window, at the last moment without a ready task
  bool restartSettled_ = true;     ///< whether there was such a moment since the restart

  // Of this window.
  std::size_t changes_ = 0;
  bool restarted_ = false;
  std::size_t inputs_ = 0;
  Outcome before_;
  std::map<IntfIdSystemTcamId, std::set<std::uint16_t>> domainsOfWindow_;
  std::set<EmResolvedKey> refused_;  ///< keys of which a write was refused, before or in the window
  Sizes sizes_;                      ///< of the server's collections before the restart
  std::set<RequestPlace> contenders_;
  std::set<Subject> requested_;
  std::map<Programmed, std::set<Subject>> mayBeProgrammed_;
  std::set<RequestPlace> statusChanges_;
  std::set<EmResolvedKey> touched_;  ///< keys whose content in the chip changed
};

}  // namespace KilnSim
