#include "kiln/agent/report/Report.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "kiln/agent/host/CapacityMonitor.h"
#include "kiln/agent/io/JsonValue.h"
#include "kiln/agent/io/SortedRows.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/server/KilnEmServer.h"

namespace KilnAgent {
namespace {

using KilnEmServer::EmHwKey;
using KilnEmServer::EmLogicalKey;
using KilnEmServer::EmRequestKey;
using KilnEmServer::FeatureType;

using Lines = std::back_insert_iterator<std::string>;

/// The outcome of one request: the name of its status, or the reason why it has none for its own version.
template <class Db>
std::string_view outcomeOf(const MemoryStateStore::Request<Db>& request,
                           const KilnTunnelNiLib::SrvStatusEntry<typename Db::EntryKey>* status) {
  if (status == nullptr) return "unanswered";
  if (status->requestVersion != request.requestVersion) return "outdated";
  if (status->result == KilnTunnelNiLib::kResultHold) return "held";
  return KilnPlatform::stringValue(status->status);
}

template <class Db>
void addDatabase(Lines out, const MemoryStateStore& store, FeatureType feature, std::size_t rowLimit) {
  const auto requests = store.requests<Db>(feature);
  const auto statuses = store.statuses<Db>(feature);
  if (requests == nullptr || requests->config().empty()) return;
  const auto rows = sortedRows(requests->config());
  std::map<std::string_view, std::size_t> counts;
  for (const auto& [key, request] : rows) ++counts[outcomeOf<Db>(request, statuses->status().find(key))];
  fmt::format_to(out, "  {} {}: {} (", feature, Db::kEmType, grouped(rows.size()));
  std::string_view separator;
  for (const auto& [outcome, count] : counts) {
    fmt::format_to(out, "{}{} {}", std::exchange(separator, ", "), grouped(count), outcome);
  }
  fmt::format_to(out, ")\n");
  for (std::size_t i = 0; i < std::min(rows.size(), rowLimit); ++i) {
    const auto& [key, request] = rows[i];
    fmt::format_to(
        out, "    {:13} version {:<3} {}\n", outcomeOf<Db>(request, statuses->status().find(key)),
        request.requestVersion,
        keyToJson(KilnEmServer::requestKeyAs<EmRequestKey>(key), &EmRequestKey::emComposerKey).dump());
  }
  if (rows.size() > rowLimit) fmt::format_to(out, "    ... and {} more\n", grouped(rows.size() - rowLimit));
}

void addStatuses(Lines out, const EmbeddedAgent& agent, std::size_t rowLimit) {
  fmt::format_to(out, "Requests by feature and database\n");
  KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
    forEachDatabase([&]<class Db>() { addDatabase<Db>(out, agent.store(), feature, rowLimit); });
  });
}

std::string contenderText(const EmLogicalKey& key, std::uint32_t requestVersion) {
  return fmt::format("{} version {} {}", key.featureType, requestVersion,
                     keyToJson(key, &EmLogicalKey::emComposerKey).dump());
}

/// The interface whose VLAN domain is part of the key in the table, if one is.
std::optional<std::uint64_t> interfaceIdOf(const EmLogicalKey& key) {
  std::optional<std::uint64_t> intfId;
  key.emComposerKey.visit([&](const auto& own) {
    if constexpr (requires { own.intfId; }) intfId = own.intfId;
  });
  return intfId;
}

void addConflicts(Lines out, const EmbeddedAgent& agent, std::size_t rowLimit) {
  std::map<EmHwKey, std::vector<const KilnEmServer::EmRequestStatus*>> losers;
  const auto rows = sortedRows(agent.server().conflicts().status());
  for (const auto& [key, status] : rows) {
    if (status.status == KilnEmServer::EmStatus::hwKeyConflict) {
      losers[status.emSwTableKeyFapCore].push_back(&status);
    }
  }
  const auto& winners = agent.server().winners().config();
  // Interfaces with the same VLAN domain conflict with each other, whatever their features.
  const auto betweenInterfaces = [&](const auto& conflict) {
    const auto* winner = winners.find(conflict.first);
    return winner != nullptr &&
           std::any_of(conflict.second.begin(), conflict.second.end(), [&](const auto* lost) {
             return interfaceIdOf(lost->emLogicalKey) != interfaceIdOf(winner->emLogicalKey);
           });
  };
  const auto crossed =
      static_cast<std::size_t>(std::count_if(losers.begin(), losers.end(), betweenInterfaces));
  fmt::format_to(out, "Conflicts: {} hardware keys, {} of them between features, {} between interfaces\n",
                 grouped(losers.size()), grouped(losers.size() - crossed), grouped(crossed));
  std::size_t shown = 0;
  for (const auto& conflict : losers) {
    if (shown++ == rowLimit) break;
    const auto& [hwKey, lost] = conflict;
    fmt::format_to(out, "  {}{}\n", keyToJson(hwKey, &EmHwKey::emResolvedKey).dump(),
                   betweenInterfaces(conflict) ? " between interfaces" : "");
    if (const auto* winner = winners.find(hwKey)) {
      fmt::format_to(out, "    won by  {}\n",
                     contenderText(winner->emLogicalKey, winner->emEntry.requestVersion));
    }
    for (const auto* status : lost) {
      fmt::format_to(out, "    lost by {}\n",
                     contenderText(status->emLogicalKey, status->emConfigEntry.requestVersion));
    }
  }
  if (losers.size() > rowLimit) fmt::format_to(out, "  ... and {} more\n", grouped(losers.size() - rowLimit));
}

void addTables(Lines out, const EmbeddedAgent& agent) {
  constexpr std::size_t kBarWidth = 40;
  fmt::format_to(out, "Tables\n");
  agent.chip().forEachTable([&](const SoftTable& table) {
    const std::size_t fill = table.fill();
    const std::size_t capacity = std::max<std::size_t>(table.capacity(), 1);
    // A used table shows at least one mark; only a full table, or one that holds more, shows a full bar.
    const std::size_t marks =
        fill == 0 ? 0 : std::clamp<std::size_t>(fill * kBarWidth / capacity, 1, kBarWidth);
    fmt::format_to(out, "  {:13} [{:#<{}}{:.<{}}] {} of {} ({:.1f} %)", table.stem(), "", marks, "",
                   kBarWidth - marks, grouped(fill), grouped(table.capacity()),
                   percentOf({fill, table.capacity()}));
    if (table.held() != 0) fmt::format_to(out, ", {} answers held", grouped(table.held()));
    fmt::format_to(out, "\n");
  });
}

void addRun(Lines out, const EmbeddedAgent& agent, const ScenarioCounters& counters) {
  const HardwareCounters hardware = agent.chip().counters();
  fmt::format_to(out, "VLAN domains: {} allotted, {} requests waiting\n",
                 grouped(agent.vlanDomains().status()->status().size()),
                 grouped(agent.vlanDomains().waiting()));
  fmt::format_to(out, "Hardware: {} written, {} removed, {} unchanged\n", grouped(hardware.written),
                 grouped(hardware.removed), grouped(hardware.unchanged));
  const auto& done = agent.scheduler().counters();
  fmt::format_to(out, "Scheduler: {} slices, {} yields", grouped(done.slices), grouped(done.yields));
  if (const auto seed = agent.scheduler().seed()) fmt::format_to(out, ", seed {}", *seed);
  fmt::format_to(out, "\n");
  fmt::format_to(out, "Scenario: {} operations, {} requests refused, {} of {} expectations held\n",
                 grouped(counters.operations), grouped(counters.refusals),
                 grouped(counters.expects - counters.failedExpects), grouped(counters.expects));
}

}  // namespace

std::string grouped(std::uint64_t number) {
  std::string text = std::to_string(number);
  for (std::size_t at = text.size(); at > 3; at -= 3) text.insert(at - 3, 1, ',');
  return text;
}

std::string reportText(const EmbeddedAgent& agent, const ScenarioCounters& counters, std::size_t rowLimit) {
  std::string text;
  const Lines out(text);
  addStatuses(out, agent, rowLimit);
  addConflicts(out, agent, rowLimit);
  addTables(out, agent);
  addRun(out, agent, counters);
  return text;
}

}  // namespace KilnAgent
