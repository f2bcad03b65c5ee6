#include "kiln/agent/host/ReconcileMonitor.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

#include "kiln/agent/io/JsonValue.h"
#include "kiln/compose/KeyFields.h"
#include "kiln/server/KilnEmServer.h"

namespace KilnAgent {
namespace {

using KilnEmServer::EmComposerKey;
using KilnEmServer::EmEntry;
using KilnEmServer::EmLogicalKey;
using KilnEmServer::EmResolvedKey;
using KilnEmServer::EmStatus;
using KilnEmServer::EmType;
using KilnEmServer::FeatureType;
using KilnEmServer::Server;
using KilnTunnelNiLib::IntfIdSystemTcamId;

/// The interface whose VLAN domain a composer key needs, for the keys that need one.
std::optional<IntfIdSystemTcamId> interfaceOf(const EmComposerKey& key) {
  std::optional<IntfIdSystemTcamId> interface;
  key.visit([&](const auto& own) {
    if constexpr (requires { own.systemTcamId; })
      interface = IntfIdSystemTcamId{own.intfId, own.systemTcamId};
  });
  return interface;
}

std::optional<std::uint64_t> domainOf(const EmResolvedKey& key) {
  std::optional<std::uint64_t> domain;
  key.visit([&](const auto& own) {
    if constexpr (requires { own.vlanDomain; }) domain = own.vlanDomain.number();
  });
  return domain;
}

/// The key in the table for a request's key, with this domain if one is needed; none if a field does not fit.
std::optional<EmResolvedKey> tableKeyOf(const EmLogicalKey& key, std::optional<std::uint16_t> domain) {
  const EmComposerKey& own = key.emComposerKey;
  std::optional<EmResolvedKey> tableKey;
  try {
    KilnEmServer::visitKeyType(own.tag(), [&]<class Row>() {
      const bool resolved = Row::kResolver != KilnEmServer::ResolverKeyUnionTag::undefined_;
      if (resolved && !domain) return;
      tableKey =
          KilnEmServer::entryKeyOf<Row>(own.template get<typename Row::ComposerKey>(), domain.value_or(0));
    });
    return tableKey;
  } catch (const std::range_error&) {
    return std::nullopt;
  }
}

template <class Key>
StatusRecord recordOf(const KilnTunnelNiLib::SrvStatusEntry<Key>& entry) {
  return {entry.status, entry.requestVersion, entry.result};
}

}  // namespace

// --- Watches -----------------------------------------------------------------------------------------------

template <class Db>
struct ReconcileMonitor::RequestWatch final
    : ChangeWatcher<typename Db::EntryKey, MemoryStateStore::Request<Db>> {
  using Key = typename Db::EntryKey;
  RequestWatch(ReconcileMonitor& owner, FeatureType ownFeature) : monitor(owner), feature(ownFeature) {}
  void handleUpcomingChange(const Key& key, const MemoryStateStore::Request<Db>* /*before*/,
                            const MemoryStateStore::Request<Db>* /*after*/) override {
    monitor.requestTouched(Db::kEmType, KilnEmServer::logicalKeyOf(feature, key));
  }
  ReconcileMonitor& monitor;
  FeatureType feature;
};

template <class Db>
struct ReconcileMonitor::StatusWatch final
    : ChangeWatcher<typename Db::EntryKey, KilnTunnelNiLib::SrvStatusEntry<typename Db::EntryKey>> {
  using Key = typename Db::EntryKey;
  using Entry = KilnTunnelNiLib::SrvStatusEntry<Key>;
  StatusWatch(ReconcileMonitor& owner, FeatureType ownFeature) : monitor(owner), feature(ownFeature) {}
  void handleUpcomingChange(const Key& key, const Entry* before, const Entry* after) override {
    monitor.statusTouched(Db::kEmType, KilnEmServer::logicalKeyOf(feature, key),
                          before == nullptr ? std::nullopt : std::optional(recordOf(*before)),
                          after == nullptr);
  }
  ReconcileMonitor& monitor;
  FeatureType feature;
};

/// A feature's collections of all databases.
struct ReconcileMonitor::FeatureWatch {
  template <class Db>
  struct OfDatabase {
    RequestWatch<Db> request;
    StatusWatch<Db> status;
  };
  FeatureWatch(ReconcileMonitor& monitor, FeatureType feature)
      : watches(OfDatabase<KilnTunnelNiLib::Isem>{{monitor, feature}, {monitor, feature}},
                OfDatabase<KilnTunnelNiLib::Esem>{{monitor, feature}, {monitor, feature}},
                OfDatabase<KilnTunnelNiLib::Lem>{{monitor, feature}, {monitor, feature}}) {}
  std::tuple<OfDatabase<KilnTunnelNiLib::Isem>, OfDatabase<KilnTunnelNiLib::Esem>,
             OfDatabase<KilnTunnelNiLib::Lem>>
      watches;
};

struct ReconcileMonitor::TableWatch final : TableWatcher {
  explicit TableWatch(ReconcileMonitor& owner) : monitor(owner) {}
  void handleUpcomingChange(const EmResolvedKey& key, const EmEntry* before) override {
    const auto [at, first] = monitor.touchedEntries_.try_emplace(key);
    if (first && before != nullptr) at->second.before = *before;
    ++at->second.operations;
  }
  ReconcileMonitor& monitor;
};

struct ReconcileMonitor::AskedWatch final : ChangeWatcher<Interface, KilnPlatform::Unit> {
  explicit AskedWatch(ReconcileMonitor& owner) : monitor(owner) {}
  void handleUpcomingChange(const Interface& key, const KilnPlatform::Unit* before,
                            const KilnPlatform::Unit* /*after*/) override {
    monitor.touchedDomainRequests_.try_emplace(key, before != nullptr);
  }
  ReconcileMonitor& monitor;
};

struct ReconcileMonitor::AllottedWatch final : ChangeWatcher<Interface, std::uint16_t> {
  explicit AllottedWatch(ReconcileMonitor& owner) : monitor(owner) {}
  void handleUpcomingChange(const Interface& key, const std::uint16_t* before,
                            const std::uint16_t* after) override {
    if (before != nullptr) monitor.touchedDomains_.insert(*before);
    if (after != nullptr) monitor.touchedDomains_.insert(*after);
    monitor.touchedAllotments_.insert(key);
  }
  ReconcileMonitor& monitor;
};

ReconcileMonitor::ReconcileMonitor(MemoryStateStore& store, SoftChip& chip,
                                   const KilnVlanDomain::VlanDomainConfig& asked,
                                   const KilnVlanDomain::VlanDomainStatus& allotted)
    : store_(store),
      chip_(chip),
      asked_(asked),
      allotted_(allotted),
      askedWatch_(std::make_unique<AskedWatch>(*this)),
      allottedWatch_(std::make_unique<AllottedWatch>(*this)) {
  chip_.forEachTable([&](const SoftTable&) { tables_.push_back(std::make_unique<TableWatch>(*this)); });
  KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
    features_.emplace(feature, std::make_unique<FeatureWatch>(*this, feature));
  });
}

ReconcileMonitor::~ReconcileMonitor() {
  if (restarting_) watchAll(false);
}

void ReconcileMonitor::handleChange(const FeatureType& feature) {
  watchFeature(feature, true);
}

void ReconcileMonitor::watchFeature(FeatureType feature, bool on) {
  const auto attach = [&]<class Db>(FeatureWatch::OfDatabase<Db>& own) {
    const auto requests = store_.requests<Db>(feature);
    const auto statuses = store_.statuses<Db>(feature);
    if (requests == nullptr) return;
    watch<typename Db::EntryKey, MemoryStateStore::Request<Db>>(requests->config(),
                                                                on ? &own.request : nullptr);
    watch<typename Db::EntryKey, KilnTunnelNiLib::SrvStatusEntry<typename Db::EntryKey>>(
        statuses->status(), on ? &own.status : nullptr);
  };
  std::apply([&](auto&... own) { (attach(own), ...); }, features_.at(feature)->watches);
}

void ReconcileMonitor::watchAll(bool on) {
  for (const auto& [feature, watches] : features_) watchFeature(feature, on);
  std::size_t number = 0;
  chip_.forEachTable([&](SoftTable& table) {
    table.watcherIs(*tables_[number], on);
    ++number;
  });
  watch<Interface, KilnPlatform::Unit>(asked_.config(), on ? askedWatch_.get() : nullptr);
  watch<Interface, std::uint16_t>(allotted_.status(), on ? allottedWatch_.get() : nullptr);
  // A process that died lost its subscriptions; this one is dropped as well.
  store_.features().unsubscribe(*this);
  if (on) store_.features().subscribe(*this);
}

// --- A restart ---------------------------------------------------------------------------------------------

void ReconcileMonitor::forgetTouched() {
  touchedStatuses_.clear();
  touchedEntries_.clear();
  touchedDomainRequests_.clear();
  touchedRequests_.clear();
  touchedKeys_.clear();
  touchedDomains_.clear();
  touchedAllotments_.clear();
  touchedInterfaces_.clear();
}

void ReconcileMonitor::countFound() {
  statusesFound_ = 0;
  KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
    forEachDatabase([&]<class Db>() {
      if (const auto statuses = store_.statuses<Db>(feature)) statusesFound_ += statuses->status().size();
    });
  });
  tablesBefore_.clear();
  chip_.forEachTable([&](const SoftTable& table) {
    tablesBefore_.push_back({table.stem(), table.fill(), table.operations(), table.counters()});
  });
}

void ReconcileMonitor::agentStarts() {
  countFound();
  const bool tablesHold = std::any_of(tablesBefore_.begin(), tablesBefore_.end(),
                                      [](const TableReconcile& table) { return table.found != 0; });
  if (statusesFound_ != 0 || tablesHold) restartBegins(nullptr);
}

void ReconcileMonitor::restartBegins(const Server* interrupted) {
  if (restarting_ && interrupted != nullptr) {
    ended_ = makeReport(*interrupted);
    ended_->state = ReconcileReport::State::interrupted;
    ++endedCount_;
  }
  restarting_ = true;
  ++restarts_;
  statusesChanged_ = 0;
  statusesDeleted_ = 0;
  countFound();
  watchAll(true);
}

void ReconcileMonitor::quiet(const Server& server) {
  if (!restarting_ || !server.ready()) return;
  std::size_t held = 0;
  chip_.forEachTable([&](const SoftTable& table) { held += table.held(); });
  if (held != 0) return;
  ended_ = makeReport(server);
  ended_->state = ReconcileReport::State::complete;
  ++endedCount_;
  watchAll(false);
  forgetTouched();
  restarting_ = false;
}

void ReconcileMonitor::requestTouched(EmType database, const EmLogicalKey& key) {
  if (!touchedRequests_.insert({database, key}).second) return;
  std::optional<std::uint16_t> domain;
  if (const auto interface = interfaceOf(key.emComposerKey)) {
    touchedInterfaces_.insert(*interface);
    domain = allotted_.status().get(*interface);
  }
  if (const auto tableKey = tableKeyOf(key, domain)) touchedKeys_.insert(*tableKey);
}

void ReconcileMonitor::statusTouched(EmType database, const EmLogicalKey& key,
                                     const std::optional<StatusRecord>& before, bool deleted) {
  ++statusesChanged_;
  if (deleted) ++statusesDeleted_;
  const RecordKey recordKey{database, key};
  if (!touchedRequests_.contains(recordKey)) touchedStatuses_.try_emplace(recordKey, before);
}

// --- Judgement ---------------------------------------------------------------------------------------------

std::optional<ReconcileReport> ReconcileMonitor::report(const Server& server) const {
  return restarting_ ? makeReport(server) : ended_;
}

ReconcileReport ReconcileMonitor::makeReport(const Server& server) const {
  Judgement judgement(*this, server);
  while (judgement.step(std::numeric_limits<std::size_t>::max())) {
  }
  return std::move(judgement.report());
}

ReconcileMonitor::Judgement::Judgement(const ReconcileMonitor& monitor, const Server& server)
    : monitor_(monitor), endedCount_(monitor.endedCount_) {
  report_.restart = monitor.restarts_;
  report_.stages = server.reconcileProgress();
  report_.tables = monitor.tablesBefore_;
  std::size_t number = 0;
  monitor.chip_.forEachTable([&](const SoftTable& table) {
    TableReconcile& row = report_.tables[number++];
    report_.heldAnswers += table.held();
    row.calls = {table.operations().writes - row.calls.writes,
                 table.operations().removals - row.calls.removals};
    row.hardware = {table.counters().written - row.hardware.written,
                    table.counters().removed - row.hardware.removed,
                    table.counters().unchanged - row.hardware.unchanged};
  });
  report_.statusesFound = monitor.statusesFound_;
  report_.statusesChanged = monitor.statusesChanged_;
  report_.statusesDeleted = monitor.statusesDeleted_;
}

bool ReconcileMonitor::Judgement::outdated() const {
  return monitor_.endedCount_ != endedCount_ || monitor_.restarts_ != report_.restart;
}

/// Continues after the last key, whatever was touched in the meantime. Returns whether `items` are used up.
template <class Map, class Judge>
bool ReconcileMonitor::Judgement::walk(const Map& touched, std::optional<typename Map::key_type>& last,
                                       std::size_t& items, Judge&& judge) {
  for (auto at = last ? touched.upper_bound(*last) : touched.begin(); at != touched.end(); ++at) {
    if (items-- == 0) return true;
    judge(at->first, at->second);
    last = at->first;
  }
  return false;
}

bool ReconcileMonitor::Judgement::step(std::size_t items) {
  const auto judge = [this](const auto& key, const auto& before) { monitor_.judge(report_, key, before); };
  return walk(monitor_.touchedEntries_, entry_, items, judge) ||
         walk(monitor_.touchedStatuses_, status_, items, judge) ||
         walk(monitor_.touchedDomainRequests_, domainRequest_, items, judge);
}

bool ReconcileMonitor::hasSay(const EmResolvedKey& key) const {
  const auto domain = domainOf(key);
  return touchedKeys_.contains(key) || (domain && touchedDomains_.contains(*domain));
}

void ReconcileMonitor::judge(ReconcileReport& report, const EmResolvedKey& key,
                             const TouchedEntry& touched) const {
  if (!touched.before || hasSay(key) || chip_.table(key.tag()).find(key) != touched.before) return;
  report.tables[static_cast<std::size_t>(key.tag()) - 1].needless += touched.operations;
  addDisturbed(report, [&] {
    return fmt::format(
        "table entry {} was the same before and after, but the hardware was written {} times in between", key,
        touched.operations);
  });
}

/// The published status of a request, if it is a final answer.
std::optional<StatusRecord> ReconcileMonitor::settledStatus(const RecordKey& recordKey) const {
  const EmLogicalKey& key = std::get<EmLogicalKey>(recordKey);
  return withDatabase(std::get<EmType>(recordKey), [&]<class Db>() -> std::optional<StatusRecord> {
    const auto requests = store_.requests<Db>(key.featureType);
    if (requests == nullptr) return std::nullopt;
    const auto requestKey = KilnEmServer::requestKeyAs<typename Db::EntryKey>(key);
    const auto* request = requests->config().find(requestKey);
    const auto* status = store_.statuses<Db>(key.featureType)->status().find(requestKey);
    if (request == nullptr || status == nullptr || request->requestVersion != status->requestVersion) {
      return std::nullopt;
    }
    const bool waits =
        status->status == EmStatus::hwPending && status->result == KilnTunnelNiLib::kResultFromServer;
    return waits ? std::nullopt : std::optional(recordOf(*status));
  });
}

void ReconcileMonitor::judge(ReconcileReport& report, const RecordKey& recordKey,
                             const std::optional<StatusRecord>& before) const {
  if (!before || touchedRequests_.contains(recordKey) || settledStatus(recordKey) != before) return;
  const EmLogicalKey& key = std::get<EmLogicalKey>(recordKey);
  const auto interface = interfaceOf(key.emComposerKey);
  if (interface && touchedAllotments_.contains(*interface)) return;
  const auto domain = interface ? allotted_.status().get(*interface) : std::nullopt;
  const auto tableKey = tableKeyOf(key, domain);
  if (tableKey && hasSay(*tableKey)) return;
  addDisturbed(report, [&] {
    return fmt::format("status {} of {} {} {} was the same before and after, but changed in between",
                       before->status, key.featureType, std::get<EmType>(recordKey),
                       keyToJson(key, &EmLogicalKey::emComposerKey).dump());
  });
}

void ReconcileMonitor::judge(ReconcileReport& report, const Interface& interface, bool before) const {
  if (!before || touchedInterfaces_.contains(interface) || !asked_.config().has(interface)) return;
  addDisturbed(report, [&] {
    return fmt::format("the request for a VLAN domain of {} was withdrawn and made again", interface);
  });
}

}  // namespace KilnAgent
