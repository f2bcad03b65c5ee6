#include "sim/Watch.h"

#include <fmt/format.h>

#include <algorithm>

#include "kiln/runtime/stage/Stage.h"
#include "kiln/server/KilnEmServer.h"

namespace KilnSim {
namespace {

using KilnAgent::StoreChange;
using KilnTunnelNiLib::RequestKind;

constexpr std::size_t kMostReported = 2000;

std::string textOf(const RequestPlace& place) {
  const auto& [feature, database, key] = place;
  return fmt::format("{} {} {}", feature, database, key);
}

template <class T>
std::uint64_t hashOf(const T& value) {
  return KilnPlatform::ValueHash<T>()(value);
}

/// The result in a status while its request exists.
std::uint8_t resultOf(RequestKind kind) {
  return kind == RequestKind::hold ? 3 : 1;
}

std::optional<std::uint64_t> domainOf(const EmResolvedKey& key) {
  std::optional<std::uint64_t> domain;
  key.visit([&](const auto& own) {
    if constexpr (requires { own.vlanDomain; }) domain = own.vlanDomain.number();
  });
  return domain;
}

/// The value under a key, or nothing.
template <class Map, class Key>
auto valueIn(const Map& map, const Key& key) {
  const auto at = map.find(key);
  return at == map.end() ? std::nullopt : std::optional(at->second);
}

}  // namespace

Watch::Watch(KilnAgent::EmbeddedAgent& agent) : agent_(agent) {
  agent_.chip().forEachTable([this](KilnAgent::SoftTable& table) { table.watcherIs(*this, true); });
  serverBegins();
}

Watch::~Watch() {
  agent_.store().observerDel(*this);
  agent_.chip().forEachTable([this](KilnAgent::SoftTable& table) { table.watcherIs(*this, false); });
  agent_.vlanDomains().status()->status().unsubscribe(*this);
  agent_.vlanDomains().config()->config().unsubscribe(domainRequests_);
  agent_.server().dependencyStatus().completed().unsubscribe(*this);
}

void Watch::say(std::string text) {
  if (wrong_.size() < kMostReported) wrong_ += std::move(text) + "\n";
}

// --- Servers come and go -----------------------------------------------------------------------------------

void Watch::serverEnds(bool reverted) {
  if (!restarted_ && changes_ == 0 && agent_.scheduler().idle()) sizes_ = agent_.server().leftovers();
  agent_.vlanDomains().status()->status().unsubscribe(*this);
  agent_.vlanDomains().config()->config().unsubscribe(domainRequests_);
  agent_.server().dependencyStatus().completed().unsubscribe(*this);
  agent_.store().observerDel(*this);
  restarted_ = true;
  restartSettled_ = false;
  if (reverted) changes_ += 2;
}

void Watch::serverBegins() {
  agent_.store().observerIs(*this);
  agent_.vlanDomains().status()->status().subscribe(*this);
  agent_.vlanDomains().config()->config().subscribe(domainRequests_);
  agent_.server().dependencyStatus().completed().subscribe(*this);
  const Wanted wanted = wantedOf(agent_);
  present_.clear();
  for (const auto& [place, request] : wanted.requests) {
    present_.insert(place);
    mayBeProgrammed(place, request);
  }
  log_.serverEnded();
  std::erase_if(madeRoom_, [this](TableTag table) {
    return agent_.chip().table(table).answerMode() != KilnAgent::SoftTable::AnswerMode::refuse;
  });
  noteFound();
  accepted_.clear();
  lastWrite_.clear();
  domainsOfServer_.clear();
  for (const auto& [interface, domain] : wanted.domains) domainsOfServer_[interface].insert(domain);
}

void Watch::noteFound() {
  removedFeatures_.clear();
  foundStatuses_.clear();
  vanishedStatuses_.clear();
  for (const auto& [place, status] : outcomeOf(agent_).statuses) foundStatuses_.insert(place);
}

void Watch::featureGoes(FeatureType feature) {
  ++inputs_;
  removedFeatures_.insert(feature);
  std::erase_if(present_, [&](const RequestPlace& place) { return std::get<0>(place) == feature; });
}

void Watch::handleChange(const std::string& stage) {
  if (agent_.server().isComplete(stage)) {
    checkReconciled(stage);
    return note(1);
  }
  // Only the status stages of a removed feature are no longer complete.
  if (stage.find("SrvStatusSm") == std::string::npos) say(fmt::format("{} is complete no more", stage));
}

void Watch::checkReconciled(const std::string& stage) {
  if (stage == "reconcileCompleteSmStage" && agent_.chip().status()->pendingHwWrites()) {
    return say("reconciliation is complete though the hardware is not");
  }
  if (stage.find("SrvStatusSm") == std::string::npos) return;
  std::size_t found = 0;
  std::size_t removed = 0;
  for (const RequestPlace& place : foundStatuses_) {
    const auto& [feature, database, key] = place;
    if (removedFeatures_.contains(feature) ||
        stage != fmt::format("{}SrvStatusSmStage-{}", database, feature))
      continue;
    ++found;
    if (vanishedStatuses_.contains(place)) ++removed;
  }
  if (found == 0) return;
  for (const KilnEmServer::StageBase* created : agent_.server().stages()) {
    if (created->name() != stage) continue;
    const auto& counts = created->outputs().at(0)->reconciliationCounts();
    if (counts.found == found && counts.deleted == removed) continue;
    say(fmt::format("{} says that it found {} and deleted {}, not {} and {}", stage, counts.found,
                    counts.deleted, found, removed));
  }
}

// --- Requests and domains ----------------------------------------------------------------------------------

void Watch::handleStoreChange(const StoreChange& change) {
  const RequestPlace place{change.feature, change.database, change.key};
  note(hashOf(change.key) + static_cast<std::uint64_t>(change.record));
  KilnAgent::withDatabase(change.database, [&]<class Db>() {
    change.record == StoreChange::Record::request ? requestChanged<Db>(place) : statusChanged<Db>(place);
  });
}

template <class Db>
void Watch::requestChanged(const RequestPlace& place) {
  ++inputs_;
  const auto& [feature, database, key] = place;
  const auto* request = agent_.store().requests<Db>(feature)->config().find(
      KilnEmServer::requestKeyAs<typename Db::EntryKey>(key));
  if (request == nullptr) {
    present_.erase(place);
    return;
  }
  present_.insert(place);
  mayBeProgrammed(
      place, {request->clientData.*Db::kEntryOfClientData, request->requestVersion, request->requestKind});
}

void Watch::mayBeProgrammed(const RequestPlace& place, const Request& request) {
  if (takenUp(place, request)) contenders_.insert(place);
  if (!programmable(place, request)) return;
  const Subject subject{place, request.requestVersion, request.entry};
  if (!requested_.insert(subject).second) return;
  const auto interface = interfaceOf(std::get<EmRequestKey>(place).emComposerKey);
  if (!interface) return addProgrammed(subject, {});
  for (const std::uint16_t domain : domainsOfWindow_[*interface]) addProgrammed(subject, domain);
}

void Watch::addProgrammed(const Subject& subject, std::optional<std::uint16_t> domain) {
  const auto hwKey = composed(std::get<EmRequestKey>(subject.place).emComposerKey, domain);
  if (hwKey) mayBeProgrammed_[{*hwKey, subject.entry}].insert(subject);
}

void Watch::handleChange(const IntfIdSystemTcamId& interface) {
  ++inputs_;
  // A released domain is allotted to a waiting interface: a further change, which was not made from outside.
  if (before_.domainsAsked.contains(interface)) ++changes_;
  note(hashOf(interface));
  const auto domain = agent_.vlanDomains().status()->status().get(interface);
  if (!domain) return;
  domainsOfServer_[interface].insert(*domain);
  if (!domainsOfWindow_[interface].insert(*domain).second) return;
  for (const Subject& subject : requested_) {
    if (interfaceOf(std::get<EmRequestKey>(subject.place).emComposerKey) == interface)
      addProgrammed(subject, domain);
  }
}

void Watch::domainRequestChanged(const IntfIdSystemTcamId& interface) {
  if (agent_.vlanDomains().config()->config().has(interface)) return;
  const std::string use = log_.inUse(interface, agent_.chip());
  if (!use.empty()) say(fmt::format("{} was given back too early: {}", interface, use));
}

// --- Statuses ----------------------------------------------------------------------------------------------

template <class Db>
void Watch::statusChanged(const RequestPlace& place) {
  statusChanges_.insert(place);
  const auto& [feature, database, requestKey] = place;
  const auto key = KilnEmServer::requestKeyAs<typename Db::EntryKey>(requestKey);
  const auto* record = agent_.store().statuses<Db>(feature)->status().find(key);
  if (record == nullptr && foundStatuses_.contains(place)) vanishedStatuses_.insert(place);
  std::optional<Request> request;
  if (const auto* found = agent_.store().requests<Db>(feature)->config().find(key)) {
    request = {found->clientData.*Db::kEntryOfClientData, found->requestVersion, found->requestKind};
  }
  if (record != nullptr) {
    note(hashOf(record->requestVersion) + static_cast<std::uint64_t>(record->status));
    statusWritten(place, request, {record->requestVersion, record->status, record->result});
  } else if (request) {
    say(fmt::format("status of {} is gone though its request stands", textOf(place)));
    expectStatus(place, {}, resultOf(request->requestKind));
  }
}

void Watch::expectStatus(const RequestPlace& place, std::optional<std::uint32_t> requestVersion,
                         std::optional<std::uint8_t> result) {
  const auto& [feature, database, key] = place;
  expected_.push_back(KilnAgent::ExpectOperation{
      feature, database, key, {}, requestVersion, result, !requestVersion && !result, true, false});
}

void Watch::statusWritten(const RequestPlace& place, const std::optional<Request>& request,
                          const StatusSeen& seen) {
  if (!request || request->requestVersion != seen.requestVersion) {
    expectStatus(place, request ? std::optional(request->requestVersion) : std::nullopt, {});
    return say(fmt::format("status of {} claims version {}, which does not stand", textOf(place),
                           seen.requestVersion));
  }
  const bool held = request->requestKind == RequestKind::hold;
  if (seen.result != resultOf(request->requestKind) || (held && seen.status != EmStatus::hwPending)) {
    expectStatus(place, {}, resultOf(request->requestKind));
    return say(fmt::format("status of {} is {} with result {}", textOf(place), seen.status, seen.result));
  }
  if (!held && seen.status == EmStatus::hwKeyConflict && !hasRival(place)) {
    say(fmt::format("status of {} is a conflict with nobody", textOf(place)));
  }
  if (!held && !takenUp(place, *request) && seen.status != EmStatus::hwFail) {
    say(fmt::format("status of {} is {} though it is left out", textOf(place), seen.status));
  }
  if (held || seen.status != EmStatus::hwSuccess) return;
  if (!accepted(place, request->entry)) {
    say(fmt::format("status of {} claims success of {}, which no table accepted", textOf(place),
                    request->entry));
    for (const EmResolvedKey& hwKey : hwKeysOf(std::get<EmRequestKey>(place))) {
      expected_.push_back(
          KilnAgent::ExpectTableOperation{hwKey.tag(), hwKeyOf(hwKey), request->entry, true, false});
    }
  }
}

bool Watch::accepted(const RequestPlace& place, const EmEntry& entry) const {
  const auto& key = std::get<2>(place).emComposerKey;
  const auto has = [&](std::optional<std::uint16_t> domain) {
    const auto hwKey = composed(key, domain);
    return hwKey && accepted_.contains({*hwKey, entry});
  };
  const auto interface = interfaceOf(key);
  if (!interface) return has({});
  const auto domains = domainsOfServer_.find(*interface);
  return domains != domainsOfServer_.end() &&
         std::any_of(domains->second.begin(), domains->second.end(), has);
}

std::set<EmResolvedKey> Watch::hwKeysOf(const EmRequestKey& key) const {
  std::set<EmResolvedKey> hwKeys;
  const auto add = [&](std::optional<std::uint16_t> domain) {
    if (const auto hwKey = composed(key.emComposerKey, domain)) hwKeys.insert(*hwKey);
  };
  const auto interface = interfaceOf(key.emComposerKey);
  if (!interface) {
    add({});
    return hwKeys;
  }
  const auto domains = domainsOfWindow_.find(*interface);
  if (domains == domainsOfWindow_.end()) return hwKeys;
  for (const std::uint16_t domain : domains->second) add(domain);
  return hwKeys;
}

bool Watch::hasRival(const RequestPlace& place) const {
  const FeatureType feature = std::get<FeatureType>(place);
  const EmRequestKey& key = std::get<EmRequestKey>(place);
  const std::set<EmResolvedKey> hwKeys = hwKeysOf(key);
  return std::any_of(contenders_.begin(), contenders_.end(), [&](const RequestPlace& other) {
    const auto& [otherFeature, otherDatabase, otherKey] = other;
    if (other == place || otherFeature < feature || otherKey.emComposerKey.tag() != key.emComposerKey.tag()) {
      return false;
    }
    const std::set<EmResolvedKey> others = hwKeysOf(otherKey);
    return std::any_of(others.begin(), others.end(),
                       [&](const auto& hwKey) { return hwKeys.contains(hwKey); });
  });
}

bool Watch::wasRefused(const EmRequestKey& key) const {
  const std::set<EmResolvedKey> hwKeys = hwKeysOf(key);
  return std::any_of(hwKeys.begin(), hwKeys.end(),
                     [&](const auto& hwKey) { return refused_.contains(hwKey); });
}

// --- The chip ----------------------------------------------------------------------------------------------

void Watch::handleIssued(const KilnAgent::HwOperation& operation) {
  const EmResolvedKey& key = operation.key;
  note(hashOf(key) + static_cast<std::uint64_t>(operation.entry == nullptr));
  const bool present = agent_.chip().table(key.tag()).find(key).has_value();
  if (operation.entry == nullptr) {
    log_.issued(operation, unwritable(key), present);
    checkMoved(key);
    lastWrite_.erase(key);
    return;
  }
  lastWrite_[key] = {operation.number, *operation.entry, false};
  const auto subjects = mayBeProgrammed_.find({key, *operation.entry});
  log_.issued(operation, subjects == mayBeProgrammed_.end() ? std::set<Subject>() : subjects->second,
              present);
  if (subjects == mayBeProgrammed_.end()) {
    say(fmt::format("{} is programmed with {}, which is not requested", key, *operation.entry));
  }
}

std::set<Subject> Watch::unwritable(const EmResolvedKey& hwKey) const {
  std::set<Subject> all;
  for (auto at = mayBeProgrammed_.lower_bound({hwKey, EmEntry()});
       at != mayBeProgrammed_.end() && at->first.first == hwKey; ++at) {
    const EmEntry& entry = at->first.second;
    if (static_cast<int>(entry.tag()) != static_cast<int>(hwKey.tag()))
      all.insert(at->second.begin(), at->second.end());
  }
  return all;
}

void Watch::checkMoved(const EmResolvedKey& from) {
  if (inputs_ != 1 || restarted_) return;
  for (const auto& [place, was] : before_.statuses) {
    const auto& key = std::get<2>(place);
    const auto interface = interfaceOf(key.emComposerKey);
    if (was.status != EmStatus::hwSuccess || !interface || !hwKeysOf(key).contains(from)) continue;
    const auto domain = agent_.vlanDomains().status()->status().get(*interface);
    const auto to = domain ? composed(key.emComposerKey, domain) : std::nullopt;
    if (to && *to != from && !lastWrite_.contains(*to) && !hasRival(place)) {
      say(fmt::format("{} was removed before {} was written", from, *to));
    }
  }
}

void Watch::handleUpcomingChange(const EmResolvedKey& key, const EmEntry* /*before*/) {
  touched_.insert(key);
}

void Watch::handleApplied(const KilnAgent::HwOperation& operation, EntryState outcome) {
  log_.applied(operation, outcome);
  if (operation.entry == nullptr) return;
  const EmResolvedKey& key = operation.key;
  const bool refused = outcome != Asic::SwTableBase::success();
  note(hashOf(*operation.entry) + static_cast<std::uint64_t>(refused));
  if (refused) {
    ++refusals_;
    refused_.insert(key);
    const KilnAgent::SoftTable& table = agent_.chip().table(key.tag());
    const bool full = outcome == EntryState::noResource_ && table.fill() >= table.capacity();
    if (!full) makesRoom(key.tag());
  } else {
    accepted_.emplace(key, *operation.entry);
    checkOwner(key);
  }
  const auto last = lastWrite_.find(key);
  if (last != lastWrite_.end() && last->second.number == operation.number) last->second.refused = refused;
}

void Watch::handleAnswered(std::uint64_t number) {
  log_.answered(number, inputs_ == inputsSettled_ && restartSettled_);
}

void Watch::checkOwner(const EmResolvedKey& key) {
  const KilnAgent::VlanDomainService& service = agent_.vlanDomains();
  const auto domain = domainOf(key);
  const HardwareLog::Interfaces& own = log_.owners(key);
  if (byHand_ || !domain || own.size() != 1) return;
  log_.forEachOwned([&](const EmResolvedKey& other, const HardwareLog::Interfaces& others) {
    if (domainOf(other) != domain || others.size() != 1 || others == own) return;
    const auto group = service.sharesWith(*own.begin());
    if (group && group == service.sharesWith(*others.begin())) return;
    if (service.limits().perTcam && own.begin()->systemTcamId != others.begin()->systemTcamId) return;
    if (!agent_.chip().table(other.tag()).find(other)) return;
    say(fmt::format("{} has {} though {} has {}", *own.begin(), key, *others.begin(), other));
  });
}

bool Watch::refused(const EmResolvedKey& key, const EmEntry& entry) const {
  const auto at = lastWrite_.find(key);
  return at != lastWrite_.end() && at->second.refused && at->second.entry == entry;
}

// --- Windows -----------------------------------------------------------------------------------------------

void Watch::quiet(const Wanted& wanted, const Outcome& expected, const Outcome& found, bool answered) {
  if (changes_ <= 1 && answered) checkWindow(expected);
  if (changes_ == 0 && restarted_ && answered) checkSizes();
  log_.settled(expected.winners);
  checkStatuses(wanted, expected, found);
  checkWaiting(expected);
  checkDomains(wanted);
  inputsSettled_ = inputs_;
  restartSettled_ = true;
  if (answered) beginWindow(wanted, expected);
}

void Watch::beginWindow(const Wanted& wanted, const Outcome& expected) {
  changes_ = 0;
  restarted_ = false;
  inputs_ = 0;
  inputsSettled_ = 0;
  before_ = expected;
  refused_.clear();
  for (const auto& [key, write] : lastWrite_) {
    if (write.refused) refused_.insert(key);
  }
  statusChanges_.clear();
  touched_.clear();
  requested_.clear();
  contenders_.clear();
  mayBeProgrammed_.clear();
  domainsOfWindow_.clear();
  for (const auto& [interface, domain] : wanted.domains) domainsOfWindow_[interface].insert(domain);
  for (const auto& [place, request] : wanted.requests) mayBeProgrammed(place, request);
}

void Watch::checkStatuses(const Wanted& wanted, const Outcome& expected, const Outcome& found) {
  for (const auto& [place, right] : log_.wrongStatuses(wanted, expected, found)) {
    const auto seen = valueIn(found.statuses, place);
    const auto& [feature, database, key] = place;
    say(fmt::format("status of {} is {}, but the answers so far say {}, version {}", textOf(place),
                    seen ? fmt::format("{}, version {}", seen->status, seen->requestVersion) : "absent",
                    right.status, right.requestVersion));
    expected_.push_back(KilnAgent::ExpectOperation{feature, database, key, right.status, right.requestVersion,
                                                   right.result, false, true, false});
  }
}

/// A removal makes room for the entry that waits longest. Room that was made in another way is not
/// considered.
void Watch::checkWaiting(const Outcome& expected) {
  if (agent_.chip().status()->pendingHwWrites()) return;
  std::set<TableTag> waiting;
  for (const auto& [key, write] : lastWrite_) {
    const auto winner = expected.winners.find(key);
    if (!write.refused || winner == expected.winners.end() || winner->second.entry != write.entry) continue;
    const KilnAgent::SoftTable& table = agent_.chip().table(key.tag());
    waiting.insert(key.tag());
    if (madeRoom_.contains(key.tag()) || table.fill() >= table.capacity()) continue;
    say(fmt::format("{} was refused and waits, though its table has room", key));
  }
  std::erase_if(madeRoom_, [&](TableTag table) {
    return !waiting.contains(table) &&
           agent_.chip().table(table).answerMode() != KilnAgent::SoftTable::AnswerMode::refuse;
  });
}

/// Automatic allotment gives two interfaces one domain only if they share it.
void Watch::checkDomains(const Wanted& wanted) {
  const KilnAgent::VlanDomainService& service = agent_.vlanDomains();
  if (service.mode() == KilnAgent::VlanDomainService::Mode::manual) return;
  std::map<std::pair<std::uint16_t, std::uint16_t>, IntfIdSystemTcamId> users;
  bool twice = false;
  for (const auto& [interface, domain] : wanted.domains) {
    const std::uint16_t pool = service.limits().perTcam ? interface.systemTcamId : std::uint16_t{0};
    const auto [user, first] = users.try_emplace({pool, domain}, interface);
    const auto group = service.sharesWith(interface);
    if (first || (group && group == service.sharesWith(user->second))) continue;
    twice = true;
    if (!byHand_)
      say(fmt::format("{} and {} have domain {} and do not share", user->second, interface, domain));
  }
  byHand_ = twice || (byHand_ && agent_.chip().status()->pendingHwWrites());
}

void Watch::checkSizes() {
  const Sizes sizes = agent_.server().leftovers();
  // Rows are in the same order, by name.
  for (std::size_t i = 0; i < std::min(sizes.size(), sizes_.size()); ++i) {
    if (sizes[i] == sizes_[i]) continue;
    // A table may refuse an entry to one server and accept it from the next one, and vice versa.
    const auto ofRefusals = {"refusedKeys", "writtenKeys", "emWrittenKeys"};
    const auto endsWith = [&](const char* name) { return sizes_[i].first.ends_with(name); };
    if (std::any_of(ofRefusals.begin(), ofRefusals.end(), endsWith)) continue;
    // A domain is acknowledged while it is requested, even if no key that needs it can be composed any more.
    if (sizes_[i].first.ends_with("resolutionInUse") && sizes[i].second < sizes_[i].second) continue;
    return say(fmt::format("{} of {} before a restart, {} of {} after it", sizes_[i].second, sizes_[i].first,
                           sizes[i].second, sizes[i].first));
  }
}

void Watch::expectUntouched(const RequestPlace& place, const StatusSeen& was) {
  const auto& [feature, database, key] = place;
  expected_.push_back(KilnAgent::ExpectOperation{feature, database, key, was.status, was.requestVersion,
                                                 was.result, false, true, true});
}

bool Watch::changedEntry(const RequestPlace& place) const {
  return std::count_if(requested_.begin(), requested_.end(),
                       [&](const Subject& subject) { return subject.place == place; }) > 1;
}

void Watch::checkWindow(const Outcome& expected) {
  for (const RequestPlace& place : statusChanges_) {
    const auto was = valueIn(before_.statuses, place);
    // A table may refuse an entry to one server and accept it from the next one, and vice versa. It may also
    // accept a refused entry on retry, if another entry was requested under the same version.
    const bool mayPass = restarted_ || changedEntry(place);
    if (mayPass && wasRefused(std::get<EmRequestKey>(place))) continue;
    if (was && was == valueIn(expected.statuses, place)) {
      say(fmt::format("status of {} flapped", textOf(place)));
      expectUntouched(place, *was);
    }
  }
  for (const EmResolvedKey& key : touched_) {
    if (!refused_.contains(key) && valueIn(before_.tables, key) == valueIn(expected.tables, key)) {
      say(fmt::format("{} was written or removed in passing", key));
      expected_.push_back(
          KilnAgent::ExpectTableOperation{key.tag(), hwKeyOf(key), valueIn(before_.tables, key), true, true});
    }
  }
}

}  // namespace KilnSim
