#include "kiln/agent/chip/ChipConfig.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <limits>
#include <utility>

#include "kiln/agent/chip/ReadFap.h"

namespace KilnAgent {
namespace {

using Hardware::Kiln::FapId;
using Hardware::Kiln::LocalCoreId;

constexpr std::uint64_t kMaxU32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint64_t kMaxU16 = std::numeric_limits<std::uint16_t>::max();
/// A FAP's unit keeps only eight bits of its id, and the unit 0xFE means all FAPs.
constexpr std::uint64_t kMaxFapId = 0xFD;

const Json& requireArray(const Json& json, const JsonPath& path) {
  if (!json.is_array()) path.fail("expected an array");
  return json;
}

KilnMdb::TableCapabilities exactMatchTable(KilnMdb::PhysicalTableId table, std::uint32_t units) {
  return {table, true, {{60, units}, {120, units / 2}}};
}

void readTables(const Json& json, ChipConfig& chip, const JsonPath& path) {
  requireObject(json, path);
  for (const auto& [stem, size] : json.items()) {
    const JsonPath here{&path, stem};
    const auto table = KilnEmServer::tableOfStem(stem);
    if (!table) here.fail("unknown table");
    chip.tableSizes[*table] = static_cast<std::uint32_t>(readWholeNumber(size, kMaxU32, here));
  }
}

}  // namespace

ChipConfig::Fap readFap(const Json& json, const JsonPath& path) {
  requireObject(json, path);
  refuseOtherMembers(json, {"id", "name", "type", "cores", "profile"}, path);
  const auto number = [&](const char* name, std::uint64_t max) {
    return readWholeNumber(requireMember(json, name, path), max, JsonPath{&path, name});
  };
  ChipConfig::Fap fap;
  fap.fapId = FapId(number("id", kMaxFapId));
  fap.info.name = readString(requireMember(json, "name", path), JsonPath{&path, "name"});
  fap.info.fapType = static_cast<Hardware::Kiln::FapType>(number("type", 5));
  if (fap.info.fapType < 3) JsonPath{&path, "type"}.fail("the FAP types are 3, 4 and 5");
  const JsonPath coresPath{&path, "cores"};
  for (const Json& core : requireArray(requireMember(json, "cores", path), coresPath)) {
    const LocalCoreId id(readWholeNumber(core, LocalCoreId::all().number() - 1U, coresPath));
    auto& cores = fap.info.cores;
    if (std::find(cores.begin(), cores.end(), id) != cores.end()) {
      coresPath.fail(fmt::format("the core {} is given twice", id.number()));
    }
    cores.push_back(id);
  }
  if (json.contains("profile")) fap.profile = static_cast<std::uint32_t>(number("profile", kMaxU32));
  return fap;
}

namespace {

KilnMdb::TableCapabilities readTableCapabilities(const Json& json, const JsonPath& path) {
  requireObject(json, path);
  refuseOtherMembers(json, {"id", "exactMatch", "entriesByWidth"}, path);
  KilnMdb::TableCapabilities table;
  table.table = static_cast<KilnMdb::PhysicalTableId>(
      readWholeNumber(requireMember(json, "id", path), kMaxU16, JsonPath{&path, "id"}));
  table.exactMatch = readBool(requireMember(json, "exactMatch", path), JsonPath{&path, "exactMatch"});
  const JsonPath widthsPath{&path, "entriesByWidth"};
  const Json& widths = requireMember(json, "entriesByWidth", path);
  requireObject(widths, widthsPath);
  for (const auto& [width, entries] : widths.items()) {
    const JsonPath here{&widthsPath, width};
    std::uint16_t bits = 0;
    const auto [end, error] = std::from_chars(width.data(), width.data() + width.size(), bits);
    if (error != std::errc{} || end != width.data() + width.size()) here.fail("expected a width in bits");
    table.entriesByWidth.emplace_back(bits,
                                      static_cast<std::uint32_t>(readWholeNumber(entries, kMaxU32, here)));
  }
  auto& all = table.entriesByWidth;
  std::sort(all.begin(), all.end());
  const auto sameWidth = [](const auto& a, const auto& b) { return a.first == b.first; };
  const auto twice = std::adjacent_find(all.begin(), all.end(), sameWidth);
  if (twice != all.end()) widthsPath.fail(fmt::format("the width {} is given twice", twice->first));
  return table;
}

void addTable(std::vector<KilnMdb::TableCapabilities>& tables, KilnMdb::TableCapabilities table,
              const JsonPath& path) {
  for (const KilnMdb::TableCapabilities& other : tables) {
    if (other.table == table.table) path.fail(fmt::format("the table {} is given twice", table.table));
  }
  tables.push_back(std::move(table));
}

void readProfiles(const Json& json, ChipConfig& chip, const JsonPath& path) {
  chip.profiles.clear();
  for (const Json& profile : requireArray(json, path)) {
    requireObject(profile, path);
    refuseOtherMembers(profile, {"id", "tables"}, path);
    const auto id = static_cast<std::uint32_t>(
        readWholeNumber(requireMember(profile, "id", path), kMaxU32, JsonPath{&path, "id"}));
    KilnMdb::ProfileCapabilities capabilities;
    const JsonPath tablesPath{&path, "tables"};
    for (const Json& table : requireArray(requireMember(profile, "tables", path), tablesPath)) {
      addTable(capabilities.tables, readTableCapabilities(table, tablesPath), tablesPath);
    }
    if (!chip.profiles.emplace(id, std::move(capabilities)).second) {
      path.fail(fmt::format("a second profile has the id {}", id));
    }
  }
}

void readFaps(const Json& json, ChipConfig& chip, const JsonPath& path) {
  chip.faps.clear();
  for (const Json& item : requireArray(json, path)) {
    ChipConfig::Fap fap = readFap(item, path);
    for (const ChipConfig::Fap& other : chip.faps) {
      if (other.fapId == fap.fapId) path.fail(fmt::format("a second FAP has the id {}", fap.fapId.number()));
      if (other.info.name == fap.info.name) path.fail(fmt::format("a second FAP is named {}", fap.info.name));
    }
    chip.faps.push_back(std::move(fap));
  }
}

void readVlanDomains(const Json& json, ChipConfig& chip, const JsonPath& path) {
  requireObject(json, path);
  refuseOtherMembers(json, {"first", "last", "perTcam"}, path);
  const auto number = [&](const char* name) {
    return static_cast<std::uint16_t>(
        readWholeNumber(requireMember(json, name, path), kMaxU16, JsonPath{&path, name}));
  };
  const auto perTcam = json.find("perTcam");
  chip.vlanDomains = {number("first"), number("last"),
                      perTcam != json.end() && readBool(*perTcam, JsonPath{&path, "perTcam"})};
  if (chip.vlanDomains.first > chip.vlanDomains.last) path.fail("the first domain is above the last");
}

ChipConfig chipOf(const Json& json) {
  const JsonPath root;
  requireObject(json, root);
  refuseOtherMembers(json, {"tables", "faps", "profiles", "vlanDomains"}, root);
  ChipConfig chip = defaultChip();
  const auto part = [&](const char* name, auto read) {
    if (const auto found = json.find(name); found != json.end()) read(*found, chip, JsonPath{&root, name});
  };
  part("tables", readTables);
  part("profiles", readProfiles);
  part("faps", readFaps);
  part("vlanDomains", readVlanDomains);
  for (const ChipConfig::Fap& fap : chip.faps) {
    if (fap.profile && !chip.profiles.contains(*fap.profile)) {
      root.fail(fmt::format("faps: {} names profile {}, which is not among the profiles", fap.info.name,
                            *fap.profile));
    }
  }
  return chip;
}

}  // namespace

ChipConfig defaultChip() {
  ChipConfig chip;
  chip.tableSizes.fill(1'000'000);
  for (std::uint16_t id = 0; id < 2; ++id) {
    chip.faps.push_back({FapId(id), {fmt::format("Fap{}", id), 4, {LocalCoreId(0), LocalCoreId(1)}}, 1});
  }
  chip.profiles[1].tables = {exactMatchTable(37, 4'000'000), exactMatchTable(64, 4'000'000),
                             exactMatchTable(65, 3'000'000), exactMatchTable(66, 1'000'000)};
  return chip;
}

ChipConfig readChip(std::istream& text) {
  try {
    return chipOf(Json::parse(text, ParseGuard(), true, true));
  } catch (const Json::exception& error) {
    throw InputError(parseErrorText(error));
  }
}

ChipConfig readChipFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw InputError(fmt::format("{}: the chip file cannot be read", path));
  try {
    return readChip(file);
  } catch (const std::ios_base::failure&) {  // a directory, for example
    throw InputError(fmt::format("{}: the chip file cannot be read", path));
  } catch (const InputError& error) {
    throw InputError(fmt::format("{}: {}", path, error.what()));
  }
}

}  // namespace KilnAgent
