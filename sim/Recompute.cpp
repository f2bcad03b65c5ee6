#include "sim/Recompute.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <string_view>
#include <tuple>

#include "kiln/agent/io/SortedRows.h"
#include "kiln/server/KilnEmServer.h"

namespace KilnSim {
namespace {

using namespace KilnTunnelNiLib;
using KilnEmServer::EmComposerKey;
using KilnEmServer::EmHwKey;
using KilnEmServer::EmLogicalKey;

/// One request that the server accepts, with its hardware key.
struct Contender {
  EmLogicalKey logicalKey;
  RequestPlace place;
  Request request;
  EmHwKey hwKey;
};

enum class Composed { yes, waits, fails };

TableTag typeOf(const EmRequestKey& key) {
  return KilnEmServer::tableTypeOf(key.emComposerKey.tag());
}

EmType databaseOf(TableTag type) {
  return KilnEmServer::kKeyTypeInfo[type].database;
}

/// The value of the field of this name; nothing if the structure has none.
template <class T>
std::optional<std::uint64_t> fieldOf(const T& structure, std::string_view name) {
  std::optional<std::uint64_t> value;
  const auto look = [&](const auto& field) {
    if (field.name == name) value = structure.*(field.member);
  };
  std::apply([&](const auto&... field) { (look(field), ...); }, T::fields());
  return value;
}

/// Whether the value fits the field; if so, it is assigned.
template <class Field>
bool take(Field& field, std::uint64_t value) {
  if constexpr (KilnPlatform::NumberValue<Field>) {
    if (value > Field::kMax) return false;
    field = Field(value);
  } else {
    if (value > std::numeric_limits<Field>::max()) return false;
    field = static_cast<Field>(value);
  }
  return true;
}

Composed compose(const Wanted& wanted, const EmRequestKey& key, EmHwKey& hwKey) {
  hwKey.fapId = key.fapId;
  hwKey.localCoreId = key.localCoreId;
  std::optional<std::uint16_t> domain;
  if (const auto interface = interfaceOf(key.emComposerKey)) {
    const auto found = wanted.domains.find(*interface);
    if (found == wanted.domains.end()) return Composed::waits;
    domain = found->second;
  }
  const std::optional<EmResolvedKey> resolved = composed(key.emComposerKey, domain);
  if (!resolved) return Composed::fails;
  hwKey.emResolvedKey = *resolved;
  return Composed::yes;
}

bool convergent(const EmHwKey& hwKey) {
  return hwKey.fapId.number() == 0x7FE && hwKey.localCoreId.number() == 5;
}

/// The greatest feature wins; within a feature the least logical key.
bool beats(const EmLogicalKey& a, const EmLogicalKey& b) {
  if (a.featureType != b.featureType) return a.featureType > b.featureType;
  return a < b;
}

class Judge {
 public:
  explicit Judge(const Wanted& wanted) : wanted_(wanted) {}

  Outcome judge() {
    for (const auto& [place, request] : wanted_.requests) takeUp(place, request);
    for (const Contender& contender : contenders_) {
      const Contender*& best = best_[contender.hwKey];
      if (best == nullptr || beats(contender.logicalKey, best->logicalKey)) best = &contender;
    }
    for (const Contender& contender : contenders_) decide(contender);
    return std::move(outcome_);
  }

 private:
  void say(const RequestPlace& place, const Request& request, EmStatus status) {
    outcome_.statuses[place] = {request.requestVersion, status, 1};
    ResourceCounts& counts = outcome_.resources[typeOf(std::get<2>(place))];
    ++counts.requested;
    if (status == EmStatus::hwSuccess) ++counts.programmed;
    if (status == EmStatus::hwPending) ++counts.waiting;
    if (status == EmStatus::hwFail) ++counts.failed;
  }

  void takeUp(const RequestPlace& place, const Request& request) {
    const auto& [feature, database, key] = place;
    if (request.requestKind == RequestKind::hold) {
      outcome_.statuses[place] = {request.requestVersion, EmStatus::hwPending, 3};
      return;
    }
    if (!takenUp(place, request)) {
      outcome_.statuses[place] = {request.requestVersion, EmStatus::hwFail, 1};
      return;
    }
    if (const auto interface = interfaceOf(key.emComposerKey)) outcome_.domainsAsked.insert(*interface);
    Contender contender{{feature, key.fapId, key.localCoreId, key.emComposerKey}, place, request, {}};
    switch (compose(wanted_, key, contender.hwKey)) {
      case Composed::yes:
        return contenders_.push_back(contender);
      case Composed::waits:
        return say(place, request, EmStatus::hwPending);
      case Composed::fails:
        return say(place, request, EmStatus::hwFail);
    }
  }

  void decide(const Contender& contender) {
    if (best_.at(contender.hwKey) != &contender) {
      return say(contender.place, contender.request, EmStatus::hwKeyConflict);
    }
    if (!convergent(contender.hwKey)) return decideDivergent(contender);
    const EmResolvedKey& key = contender.hwKey.emResolvedKey;
    const EmEntry& entry = contender.request.entry;
    outcome_.winners.emplace(key, Subject{contender.place, contender.request.requestVersion, entry});
    const bool written =
        static_cast<int>(entry.tag()) == static_cast<int>(key.tag()) && !wanted_.refused(key, entry);
    if (written) outcome_.tables.emplace(key, entry);
    say(contender.place, contender.request, written ? EmStatus::hwSuccess : EmStatus::hwFail);
  }

  /// The tables cannot hold an entry for one chip and core only; an entry for all of them may win the key as
  /// well.
  void decideDivergent(const Contender& contender) {
    EmHwKey twin = contender.hwKey;
    twin.fapId = Hardware::Kiln::FapId(0x7FE);
    twin.localCoreId = Hardware::Kiln::LocalCoreId(5);
    const auto rival = best_.find(twin);
    const bool loses =
        rival != best_.end() && rival->second->logicalKey.featureType > contender.logicalKey.featureType;
    say(contender.place, contender.request, loses ? EmStatus::hwKeyConflict : EmStatus::hwFail);
  }

  const Wanted& wanted_;
  std::vector<Contender> contenders_;
  std::map<EmHwKey, const Contender*> best_;
  Outcome outcome_;
};

template <class Map, class Tell>
void compare(const Map& expected, const Map& found, std::vector<std::string>& lines, Tell tell) {
  for (const auto& [key, value] : expected) {
    const auto other = found.find(key);
    if (other == found.end()) {
      lines.push_back(fmt::format("missing: {}", tell(key, value)));
    } else if (!(other->second == value)) {
      lines.push_back(fmt::format("expected {}, found {}", tell(key, value), tell(key, other->second)));
    }
  }
  for (const auto& [key, value] : found) {
    if (!expected.contains(key)) lines.push_back(fmt::format("unexpected: {}", tell(key, value)));
  }
}

}  // namespace

KilnEmServer::EmHwKey hwKeyOf(const EmResolvedKey& key) {
  return {Hardware::Kiln::FapId::allFap(), Hardware::Kiln::LocalCoreId::all(), key};
}

std::optional<IntfIdSystemTcamId> interfaceOf(const EmComposerKey& key) {
  std::optional<IntfIdSystemTcamId> interface;
  key.visit([&](const auto& fields) {
    if constexpr (requires { fields.intfId; }) interface = {fields.intfId, fields.systemTcamId};
  });
  return interface;
}

std::optional<EmResolvedKey> composed(const EmComposerKey& key, std::optional<std::uint16_t> domain) {
  std::optional<EmResolvedKey> resolved;
  if (interfaceOf(key) && !domain) return resolved;
  KilnEmServer::visitKeyType(key.tag(), [&]<class Row>() {
    const auto& own = key.template get<typename Row::ComposerKey>();
    typename Row::EntryKey hwKey;
    bool fits = true;
    const auto fill = [&](const auto& field) {
      const auto value = fieldOf(own, field.name);
      fits &= take(hwKey.*(field.member), value ? *value : domain.value());
    };
    std::apply([&](const auto&... field) { (fill(field), ...); }, Row::EntryKey::fields());
    if (fits) resolved = hwKey;
  });
  return resolved;
}

bool takenUp(const RequestPlace& place, const Request& request) {
  const auto& [feature, database, key] = place;
  const bool known = request.requestKind == RequestKind::add || request.requestKind == RequestKind::modify;
  const bool allChips = key.fapId.number() == 0x7FE;
  return known && databaseOf(typeOf(key)) == database && allChips == (key.localCoreId.number() == 5);
}

bool programmable(const RequestPlace& place, const Request& request) {
  return takenUp(place, request) && std::get<EmRequestKey>(place).fapId == Hardware::Kiln::FapId::allFap();
}

bool needsDomain(TableTag type) {
  return KilnEmServer::kKeyTypeInfo[type].resolver != KilnEmServer::ResolverKeyUnionTag::undefined_;
}

Outcome recompute(const Wanted& wanted) {
  return Judge(wanted).judge();
}

Wanted wantedOf(const KilnAgent::EmbeddedAgent& agent) {
  Wanted wanted;
  KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
    KilnAgent::forEachDatabase([&]<class Db>() {
      const auto requests = agent.store().requests<Db>(feature);
      if (requests == nullptr) return;
      KilnPlatform::forEachIn(requests->config(), [&](const auto& key, const auto& request) {
        wanted.requests[{feature, Db::kEmType, KilnEmServer::requestKeyAs<EmRequestKey>(key)}] = {
            request.clientData.*Db::kEntryOfClientData, request.requestVersion, request.requestKind};
      });
    });
  });
  KilnPlatform::forEachIn(
      agent.vlanDomains().status()->status(),
      [&](const IntfIdSystemTcamId& interface, std::uint16_t domain) { wanted.domains[interface] = domain; });
  return wanted;
}

Outcome outcomeOf(KilnAgent::EmbeddedAgent& agent) {
  Outcome outcome;
  KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
    KilnAgent::forEachDatabase([&]<class Db>() {
      const auto statuses = agent.store().statuses<Db>(feature);
      if (statuses == nullptr) return;
      KilnPlatform::forEachIn(statuses->status(), [&](const auto& key, const auto& record) {
        outcome.statuses[{feature, Db::kEmType, KilnEmServer::requestKeyAs<EmRequestKey>(key)}] = {
            record.requestVersion, record.status, record.result};
      });
    });
  });
  agent.chip().forEachTable([&](const KilnAgent::SoftTable& table) {
    for (const auto& [key, entry] : table.sortedEntries()) outcome.tables.emplace(key, entry);
  });
  KilnPlatform::forEachIn(agent.vlanDomains().config()->config(),
                          [&](const IntfIdSystemTcamId& interface, const KilnPlatform::Unit&) {
                            outcome.domainsAsked.insert(interface);
                          });
  for (const auto& table : agent.server().resourceTables()) {
    KilnPlatform::forEachIn(table->resource(), [&](const std::string& stem, const ResourceCounts& counts) {
      outcome.resources[KilnEmServer::tableOfStem(stem).value_or(TableTag::undefined_)] = counts;
    });
  }
  return outcome;
}

std::string difference(const Outcome& expected, const Outcome& found) {
  std::vector<std::string> lines;
  compare(expected.statuses, found.statuses, lines, [](const RequestPlace& place, const StatusSeen& seen) {
    const auto& [feature, database, key] = place;
    return fmt::format("status of {} {} {}: {}, version {}, result {}", feature, database, key, seen.status,
                       seen.requestVersion, seen.result);
  });
  compare(expected.tables, found.tables, lines, [](const EmResolvedKey& key, const EmEntry& entry) {
    return fmt::format("table entry {}: {}", key, entry);
  });
  for (const auto& interface : expected.domainsAsked) {
    if (!found.domainsAsked.contains(interface)) lines.push_back(fmt::format("not asked for: {}", interface));
  }
  for (const auto& interface : found.domainsAsked) {
    if (!expected.domainsAsked.contains(interface)) {
      lines.push_back(fmt::format("asked for in vain: {}", interface));
    }
  }
  compare(expected.resources, found.resources, lines, [](TableTag table, const ResourceCounts& counts) {
    return fmt::format("resources of {}: {}", table, counts);
  });
  lines.resize(std::min<std::size_t>(lines.size(), 8));
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

}  // namespace KilnSim
