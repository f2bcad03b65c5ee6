#include "agent/CapacityReport.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>
#include <string_view>

#include "agent/JsonValue.h"
#include "agent/Report.h"
#include "agent/SortedRows.h"
#include "server/KilnEmServerSm.h"

namespace KilnAgent {
namespace {

using KilnEmServer::EmResolvedKeyUnionTag;
using KilnEmServer::ResourceCounts;
using Lines = std::back_insert_iterator<std::string>;

/// Per cent with one digit after the point.
double rounded(double percent) {
  return std::round(percent * 10) / 10;
}

Json placeJson(const TableInstance& instance) {
  const auto [fap, core] = KilnEmServer::CapacityHelper::fapNameAndCoreOf(instance.chip);
  return {{"table", instance.table}, {"fap", std::string(fap)}, {"core", std::string(core)}};
}

Json usageJson(const TableUsage& usage) {
  const std::uint64_t free = usage.used < usage.maxLimit ? usage.maxLimit - usage.used : 0;
  return {{"used", usage.used},
          {"free", free},
          {"max-limit", usage.maxLimit},
          {"used-percent", rounded(percentOf(usage))}};
}

/// Requested entries of one physical table, in units of 60-bit entries.
struct Demand {
  std::uint64_t requested = 0;
  std::uint64_t waiting = 0;
  std::uint64_t failed = 0;
};

/// Counts by the number of the key type.
std::array<ResourceCounts, KilnPlatform::kTableStems.size()> resources(const EmbeddedAgent& agent) {
  std::array<ResourceCounts, KilnPlatform::kTableStems.size()> counts{};
  const auto& server = agent.server();
  for (const auto& table :
       {server.isemResourceTable(), server.esemResourceTable(), server.lemResourceTable()}) {
    for (std::size_t i = 1; i < counts.size(); ++i) {
      if (const auto* row = table->resource().find(std::string(KilnPlatform::kTableStems[i])))
        counts[i] = *row;
    }
  }
  return counts;
}

/// What of each named table is asked for on a FAP of a type.
std::map<std::string, Demand> demandOn(const EmbeddedAgent& agent, Hardware::Kiln::FapType fapType) {
  std::map<std::string, Demand> byTable;
  const auto counts = resources(agent);
  const auto capacity = agent.server().semCapacitySm();
  for (std::size_t i = 1; capacity != nullptr && i < counts.size(); ++i) {
    const auto tag = static_cast<EmResolvedKeyUnionTag>(i);
    if (tag == EmResolvedKeyUnionTag::lemVpwsAcEntryKey) continue;
    const std::uint64_t width = KilnEmServer::entryWidth60Bit(tag);
    const auto tableId = KilnEmServer::physicalTableIdForKeyType(tag, fapType);
    Demand& demand = byTable[capacity->mdbTableToTableName().at(tableId)];
    demand.requested += width * counts[i].requested;
    demand.waiting += width * counts[i].waiting;
    demand.failed += width * counts[i].failed;
  }
  return byTable;
}

/// Only what the server is asked for can wait.
Json featuresJson(const EmbeddedAgent& agent, const TableInstance& instance, const Demand& demand) {
  Json features = Json::array();
  for (const auto& [key, entry] : sortedRows(agent.capacity().entry())) {
    if (key.table != instance.table || key.chip != instance.chip) continue;
    Json row = usageJson({entry.used, entry.maxLimit});
    row["feature"] = key.feature;
    row["pending"] = key.feature.empty() ? demand.waiting : 0;
    features.push_back(std::move(row));
  }
  return features;
}

Json tablesJson(const EmbeddedAgent& agent, const CapacityMonitor& monitor) {
  std::map<std::string, std::map<std::string, Demand>, std::less<>> demandByFap;
  KilnPlatform::forEachIn(agent.chip().chipStatus()->fap(), [&](const auto& /*fapId*/, const auto& info) {
    demandByFap[info.name] = demandOn(agent, info.fapType);
  });
  Json tables = Json::array();
  for (const auto& [instance, state] : monitor.instances()) {
    const auto [fap, core] = KilnEmServer::CapacityHelper::fapNameAndCoreOf(instance.chip);
    const auto demands = demandByFap.find(fap);
    const Demand demand = demands == demandByFap.end() ? Demand{} : demands->second[instance.table];
    Json row = placeJson(instance);
    row.update(usageJson(state.usage));
    row["pending"] = demand.waiting;
    row["failed"] = demand.failed;
    row["requested"] = demand.requested;
    row["high-watermark"] = state.highWatermark.used;
    row["high-watermark-time"] = state.highWatermark.time.count();
    row["used-threshold-upper"] = monitor.thresholds().upper;
    row["used-threshold-upper-clear"] = monitor.thresholds().upperClear;
    row["used-threshold-upper-exceeded"] = state.exceeded;
    row["features"] = featuresJson(agent, instance, demand);
    tables.push_back(std::move(row));
  }
  return tables;
}

Json alarmsJson(const CapacityMonitor& monitor) {
  Json alarms = Json::array();
  for (const CapacityMonitor::Alarm& alarm : monitor.alarms()) {
    Json row = placeJson(alarm.instance);
    row["event"] = std::string(eventName(alarm.event));
    row["time"] = alarm.time.count();
    row.update(usageJson(alarm.usage));
    alarms.push_back(std::move(row));
  }
  return alarms;
}

Json resourcesJson(const EmbeddedAgent& agent) {
  Json rows = Json::array();
  const auto counts = resources(agent);
  for (std::size_t i = 1; i < counts.size(); ++i) {
    if (counts[i].requested == 0) continue;
    Json row = toJson(counts[i]);
    row["database"] = toJson(KilnEmServer::emTypeOf(static_cast<KilnEmServer::EmComposerKeyUnionTag>(i)));
    row["table"] = std::string(KilnPlatform::kTableStems[i]);
    rows.push_back(std::move(row));
  }
  return rows;
}

Json capacityRows(const EmbeddedAgent& agent, const CapacityMonitor& monitor) {
  return {{"tables", tablesJson(agent, monitor)},
          {"resources", resourcesJson(agent)},
          {"alarms", alarmsJson(monitor)}};
}

// --- Text, rendered from the JSON --------------------------------------------------------------------------

std::string countText(const Json& row, const char* name) {
  return grouped(row.at(name).get<std::uint64_t>());
}

std::string placeText(const Json& row) {
  return fmt::format("{:5} {} core {}", row.at("table").get_ref<const std::string&>(),
                     row.at("fap").get_ref<const std::string&>(),
                     row.at("core").get_ref<const std::string&>());
}

std::string seconds(const Json& row, const char* name) {
  return fmt::format("{:.6f} s", static_cast<double>(row.at(name).get<std::int64_t>()) / 1e9);
}

void addTable(Lines out, const Json& row) {
  constexpr std::size_t kBarWidth = 30;
  const auto used = row.at("used").get<std::uint64_t>();
  const auto max = std::max<std::uint64_t>(row.at("max-limit").get<std::uint64_t>(), 1);
  // A used table shows as at least one mark, and only a full one as a full bar.
  const std::size_t marks =
      used == 0 ? 0 : std::clamp<std::size_t>(static_cast<std::size_t>(used * kBarWidth / max), 1, kBarWidth);
  fmt::format_to(out, "{} [{:#<{}}{:.<{}}] {} of {} used ({:.1f} %), {} free, {} pending{}\n", placeText(row),
                 "", marks, "", kBarWidth - marks, countText(row, "used"), countText(row, "max-limit"),
                 row.at("used-percent").get<double>(), countText(row, "free"), countText(row, "pending"),
                 row.at("used-threshold-upper-exceeded").get<bool>() ? "  ALARM" : "");
  fmt::format_to(out, "      requested {}, of these failed {}; high-watermark {} at {}\n",
                 countText(row, "requested"), countText(row, "failed"), countText(row, "high-watermark"),
                 seconds(row, "high-watermark-time"));
  for (const Json& feature : row.at("features")) {
    const auto& name = feature.at("feature").get_ref<const std::string&>();
    fmt::format_to(out, "      {}: {} used ({:.1f} %), {} free, {} pending\n", name.empty() ? "server" : name,
                   countText(feature, "used"), feature.at("used-percent").get<double>(),
                   countText(feature, "free"), countText(feature, "pending"));
  }
}

void addResources(Lines out, const Json& rows) {
  fmt::format_to(out, "Entries by key type{}\n", rows.empty() ? ": none" : "");
  for (const Json& row : rows) {
    fmt::format_to(out, "  {} {:13} {} requested, {} programmed, {} waiting, {} failed\n",
                   row.at("database").get_ref<const std::string&>(),
                   row.at("table").get_ref<const std::string&>(), countText(row, "requested"),
                   countText(row, "programmed"), countText(row, "waiting"), countText(row, "failed"));
  }
}

void addAlarms(Lines out, const Json& rows, const CapacityThresholds& thresholds) {
  fmt::format_to(out, "Alarms, raised at {} %, cleared below {} %{}\n", thresholds.upper,
                 thresholds.upperClear, rows.empty() ? ": none" : "");
  for (const Json& row : rows) {
    fmt::format_to(out, "  {}  {:10} {} at {:.1f} %\n", seconds(row, "time"),
                   row.at("event").get_ref<const std::string&>(), placeText(row),
                   row.at("used-percent").get<double>());
  }
}

}  // namespace

std::string capacityJson(const EmbeddedAgent& agent, const CapacityMonitor& monitor) {
  return capacityRows(agent, monitor).dump(1) + "\n";
}

std::string capacityText(const EmbeddedAgent& agent, const CapacityMonitor& monitor) {
  const Json rows = capacityRows(agent, monitor);
  std::string text;
  const Lines out(text);
  fmt::format_to(out, "Exact-match tables, in units of 60-bit entries{}\n",
                 rows.at("tables").empty() ? ": none" : "");
  for (const Json& row : rows.at("tables")) addTable(out, row);
  addResources(out, rows.at("resources"));
  addAlarms(out, rows.at("alarms"), monitor.thresholds());
  return text;
}

}  // namespace KilnAgent
