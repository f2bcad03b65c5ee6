#include "kiln/agent/report/CapacityReport.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>
#include <optional>
#include <string_view>

#include "kiln/agent/io/JsonValue.h"
#include "kiln/agent/report/Report.h"
#include "kiln/server/KilnEmServer.h"
#include "kiln/status/SemCapacitySm.h"

namespace KilnAgent {
namespace {

using KilnEmServer::EmResolvedKeyUnionTag;
using KilnEmServer::ResourceCounts;
using Lines = std::back_insert_iterator<std::string>;

/// Percentage with one decimal.
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

KilnEmServer::ByKeyType<ResourceCounts> resources(const EmbeddedAgent& agent) {
  KilnEmServer::ByKeyType<ResourceCounts> counts;
  for (const auto& table : agent.server().resourceTables()) {
    for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
      if (const auto* row = table->resource().find(std::string(type.stem))) counts[type.tag] = *row;
    }
  }
  return counts;
}

/// The demand for each named table on a FAP of a type.
std::map<std::string, Demand> demandOn(const EmbeddedAgent& agent, Hardware::Kiln::FapType fapType) {
  std::map<std::string, Demand> byTable;
  const auto counts = resources(agent);
  const auto capacity = agent.server().capacity();
  for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
    if (capacity == nullptr || type.memory == KilnEmServer::TableMemory::none) continue;
    const std::uint64_t width = type.width60Bit;
    const auto tableId = KilnEmServer::physicalTableIdForKeyType(type.tag, fapType);
    Demand& demand = byTable[capacity->mdbTableToTableName().at(tableId)];
    const ResourceCounts& ofType = counts[type.tag];
    demand.requested += width * ofType.requested;
    demand.waiting += width * ofType.waiting;
    demand.failed += width * ofType.failed;
  }
  return byTable;
}

/// The demand by FAP name, computed once for each FAP type.
class Demands {
 public:
  explicit Demands(const EmbeddedAgent& agent) {
    KilnPlatform::forEachIn(agent.chip().chipStatus()->fap(), [&](const auto& /*fapId*/, const auto& info) {
      typeOf_[info.name] = info.fapType;
      if (!byType_.contains(info.fapType)) byType_[info.fapType] = demandOn(agent, info.fapType);
    });
  }
  [[nodiscard]] Demand of(std::string_view fap, const std::string& table) const {
    const auto type = typeOf_.find(fap);
    if (type == typeOf_.end()) return {};
    const auto& byTable = byType_.at(type->second);
    const auto demand = byTable.find(table);
    return demand == byTable.end() ? Demand{} : demand->second;
  }

 private:
  std::map<std::string, Hardware::Kiln::FapType, std::less<>> typeOf_;
  std::map<Hardware::Kiln::FapType, std::map<std::string, Demand>> byType_;
};

/// Only requests to the server can wait.
Json featuresJson(const CapacityMonitor::Rows& rows, const Demand& demand) {
  Json features = Json::array();
  for (const auto& [key, entry] : rows) {
    Json row = usageJson({entry.used, entry.maxLimit});
    row["feature"] = key.feature;
    row["pending"] = key.feature.empty() ? demand.waiting : 0;
    features.push_back(std::move(row));
  }
  return features;
}

Json tableJson(const CapacityMonitor& monitor, const Demands& demands, const TableInstance& instance,
               const CapacityMonitor::State& state) {
  const auto [fap, core] = KilnEmServer::CapacityHelper::fapNameAndCoreOf(instance.chip);
  const Demand demand = demands.of(fap, instance.table);
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
  row["features"] = featuresJson(monitor.rowsOf(instance), demand);
  return row;
}

Json alarmJson(const CapacityMonitor::Alarm& alarm) {
  Json row = placeJson(alarm.instance);
  row["event"] = std::string(eventName(alarm.event));
  row["time"] = alarm.time.count();
  row.update(usageJson(alarm.usage));
  return row;
}

Json resourcesJson(const EmbeddedAgent& agent) {
  Json rows = Json::array();
  const auto counts = resources(agent);
  for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
    if (counts[type.tag].requested == 0) continue;
    Json row = toJson(counts[type.tag]);
    row["database"] = toJson(type.database);
    row["table"] = std::string(type.stem);
    rows.push_back(std::move(row));
  }
  return rows;
}

/// The object in one line.
class CapacityRows final : public JsonSource {
 public:
  CapacityRows(const EmbeddedAgent& agent, const CapacityMonitor& monitor)
      : JsonSource(""), agent_(agent), monitor_(monitor) {
    addText([] { return R"({"alarms":)"; });
    beginArray();
    addPart([this](std::string& out) {
      for (const CapacityMonitor::Alarm& alarm : monitor_.alarms()) addRow(out, alarmJson(alarm));
      return false;
    });
    endArray();
    addText([this] { return R"(,"resources":)" + resourcesJson(agent_).dump() + R"(,"tables":)"; });
    beginArray();
    addPart([this](std::string& out) { return addTables(out); });
    endArray();
    addText([] { return "}"; });
  }

 private:
  /// Adds some rows; returns whether there may be more.
  bool addTables(std::string& out) {
    if (!demands_) demands_.emplace(agent_);
    auto next = last_ ? monitor_.instances().upper_bound(*last_) : monitor_.instances().begin();
    for (int row = 0; row < kRowsPerPiece && next != monitor_.instances().end(); ++row, ++next) {
      last_ = next->first;
      addRow(out, tableJson(monitor_, *demands_, next->first, next->second));
    }
    return next != monitor_.instances().end();
  }

  const EmbeddedAgent& agent_;
  const CapacityMonitor& monitor_;
  std::optional<Demands> demands_;
  std::optional<TableInstance> last_;  ///< of the last added row
};

Json capacityRows(const EmbeddedAgent& agent, const CapacityMonitor& monitor) {
  CapacityRows rows(agent, monitor);
  return Json::parse(wholeText(rows));
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

std::unique_ptr<TextSource> capacityInPieces(const EmbeddedAgent& agent, const CapacityMonitor& monitor) {
  return std::make_unique<CapacityRows>(agent, monitor);
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
