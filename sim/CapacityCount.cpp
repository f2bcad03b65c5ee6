#include "sim/CapacityCount.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <tuple>
#include <vector>

#include "kiln/agent/report/Dump.h"

namespace KilnSim {
namespace {

using KilnEmServer::TableMemory;
/// Table, feature, agent and chip; used, free and maximum.
using Rows = std::map<std::tuple<std::string, std::string, std::string, std::string>,
                      std::tuple<std::uint64_t, std::uint64_t, std::uint64_t>>;

constexpr const char* kAgent = "SemCapacity";

/// One reported table: the memory whose entries a FAP of type 3 keeps there, and that of types 4 and 5.
struct Table {
  std::uint16_t id;
  const char* name;
  TableMemory onType3;
  TableMemory onOthers;
};
const Table kTables[] = {{64, "ISEM1", TableMemory::isemNarrow, TableMemory::isemWide},
                         {65, "ISEM2", TableMemory::isemWide, TableMemory::isemNarrow},
                         {66, "ISEM3", TableMemory::none, TableMemory::none},
                         {37, "ESEM", TableMemory::esem, TableMemory::esem}};

std::optional<std::uint32_t> maximum(const Hardware::Kiln::MdbStatus& mdb, Hardware::Kiln::FapId fapId,
                                     std::uint16_t tableId) {
  const auto id = mdb.profileId().get(fapId);
  const auto profile = id ? mdb.profile().get(*id) : std::nullopt;
  if (!profile) return std::nullopt;
  for (const auto& table : profile->tables) {
    if (table.table != tableId || !table.exactMatch) continue;
    for (const auto& [width, entries] : table.entriesByWidth) {
      if (width == 60) return entries;
    }
    return 0;
  }
  return std::nullopt;
}

/// The entries of external users in a table on a core; nothing if no external user can use the table.
std::optional<std::uint64_t> external(const KilnAgent::EmbeddedAgent& agent, Hardware::Kiln::FapId fapId,
                                      Hardware::Kiln::LocalCoreId core, std::uint16_t tableId, bool type3) {
  std::optional<std::uint64_t> used;
  if (tableId != (type3 ? 65 : 64)) return used;
  KilnPlatform::forEachIn(agent.externalUsers().user(), [&](const auto& /*name*/, const auto& user) {
    for (const auto& usage : user.usage) {
      if (usage.fapId != fapId || usage.localCoreId != core) continue;
      if (usage.semType == 0) used = used.value_or(0) + std::uint64_t{2} * usage.entries;
      if (usage.semType == 2 && !type3) used = used.value_or(0) + usage.entries;
    }
  });
  return used;
}

void addCore(Rows& rows, const KilnAgent::EmbeddedAgent& agent, Hardware::Kiln::FapId fapId,
             const Hardware::Kiln::FapInfo& fap, Hardware::Kiln::LocalCoreId core) {
  const bool type3 = fap.fapType == 3;
  const std::string chip = fmt::format("{}/{}", fap.name, core.number());
  for (const Table& table : kTables) {
    if (type3 ? core.number() != 0 : table.id == 66) continue;
    const auto max = maximum(*agent.chip().mdbStatus(), fapId, table.id);
    if (!max) continue;
    const auto add = [&](const char* feature, std::uint64_t used) {
      rows[{table.name, feature, kAgent, chip}] = {used, *max - std::min<std::uint64_t>(*max, used), *max};
    };
    std::uint64_t used = 0;
    const TableMemory memory = type3 ? table.onType3 : table.onOthers;
    for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
      if (memory == TableMemory::none || type.memory != memory) continue;
      used += agent.chip().table(type.tag).fill() * (memory == TableMemory::isemNarrow ? 1 : 2);
    }
    add("", used);
    const auto others = external(agent, fapId, core, table.id, type3);
    if (others || table.id == 64) add("SRv6", others.value_or(0));
  }
}

}  // namespace

std::string capacityDifference(const KilnAgent::EmbeddedAgent& agent, bool ofDump) {
  Rows expected;
  KilnPlatform::forEachIn(agent.chip().chipStatus()->fap(), [&](const auto& fapId, const auto& fap) {
    for (const auto core : fap.cores) addCore(expected, agent, fapId, fap, core);
  });
  Rows found;
  if (ofDump) {
    const auto dump = nlohmann::json::parse(KilnAgent::dumpText(agent));
    for (const auto& row : dump.at("capacity")) {
      found[{row.at("table"), row.at("feature"), row.at("agent"), row.at("chip")}] = {
          row.at("used"), row.at("free"), row.at("maxLimit")};
    }
  } else {
    KilnPlatform::forEachIn(agent.capacity().entry(), [&](const auto& key, const auto& entry) {
      found[{key.table, key.feature, key.agent, key.chip}] = {entry.used, entry.free, entry.maxLimit};
    });
  }
  std::string wrong;
  const auto list = [&](const char* what, const Rows& rows, const Rows& others) {
    for (const auto& [key, numbers] : rows) {
      const auto at = others.find(key);
      if (at != others.end() && at->second == numbers) continue;
      wrong += fmt::format("capacity {} {} \"{}\" {} {}: used {}, free {}, of {}\n", what, std::get<0>(key),
                           std::get<1>(key), std::get<2>(key), std::get<3>(key), std::get<0>(numbers),
                           std::get<1>(numbers), std::get<2>(numbers));
    }
  };
  list("expected", expected, found);
  list("found", found, expected);
  return wrong;
}

}  // namespace KilnSim
