// A chip file: an accepted file has the same meaning when it is written out again, and an agent runs on that
// chip.
#include <sstream>

#include "fuzz/Fuzz.h"
#include "kiln/agent/chip/ChipConfig.h"
#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/io/JsonValue.h"
#include "kiln/agent/report/Dump.h"

namespace KilnFuzz {
namespace {

using KilnAgent::ChipConfig;
using KilnAgent::Json;

Json jsonOf(const KilnMdb::TableCapabilities& table) {
  Json widths = Json::object();
  for (const auto& [width, entries] : table.entriesByWidth) widths[std::to_string(width)] = entries;
  return {{"id", table.table}, {"exactMatch", table.exactMatch}, {"entriesByWidth", widths}};
}

Json jsonOf(const ChipConfig::Fap& fap) {
  Json json = {{"id", fap.fapId.number()}, {"name", fap.info.name}, {"type", fap.info.fapType}};
  json["cores"] = Json::array();
  for (const auto core : fap.info.cores) json["cores"].push_back(core.number());
  if (fap.profile) json["profile"] = *fap.profile;
  return json;
}

std::string textOf(const ChipConfig& chip) {
  Json json = {{"vlanDomains", {{"first", chip.vlanDomains.first}, {"last", chip.vlanDomains.last}}}};
  for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
    json["tables"][std::string(type.stem)] = chip.tableSizes[type.tag];
  }
  json["faps"] = json["profiles"] = Json::array();
  for (const auto& fap : chip.faps) json["faps"].push_back(jsonOf(fap));
  for (const auto& [id, profile] : chip.profiles) {
    Json tables = Json::array();
    for (const auto& table : profile.tables) tables.push_back(jsonOf(table));
    json["profiles"].push_back({{"id", id}, {"tables", tables}});
  }
  return json.dump();
}

ChipConfig chipOf(const std::string& text) {
  std::istringstream stream(text);
  return KilnAgent::readChip(stream);
}

}  // namespace
}  // namespace KilnFuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  KilnAgent::AgentOptions options;
  const std::string text(KilnFuzz::textIn(data, size));
  if (KilnFuzz::refusalOf([&] { options.chip = KilnFuzz::chipOf(text); })) return 0;
  KILN_ASSERT(KilnFuzz::chipOf(KilnFuzz::textOf(options.chip)) == options.chip);
  KilnAgent::EmbeddedAgent agent(options);
  agent.settle();
  KILN_ASSERT(KilnAgent::Json::accept(KilnAgent::dumpText(agent)));
  return 0;
}
