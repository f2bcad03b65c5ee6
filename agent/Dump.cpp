#include "agent/Dump.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/JsonValue.h"
#include "agent/SortedRows.h"
#include "server/KilnEmServerSm.h"

namespace KilnAgent {
namespace {

using KilnEmServer::EmRequestKey;
using KilnEmServer::FeatureType;

/// Writes an array with one row in each line.
class RowWriter {
 public:
  explicit RowWriter(std::string& out) : out_(out) { out_ += '['; }
  ~RowWriter() { out_ += first_ ? "]" : "\n]"; }
  RowWriter(const RowWriter&) = delete;
  RowWriter& operator=(const RowWriter&) = delete;
  void row(const Json& json) {
    out_ += std::exchange(first_, false) ? "\n" : ",\n";
    out_ += json.dump();
  }

 private:
  std::string& out_;
  bool first_ = true;
};

void addCapacity(std::string& out, const EmbeddedAgent& agent) {
  RowWriter rows(out);
  for (const auto& [key, entry] : sortedRows(agent.capacity().entry())) {
    Json row = toJson(key);
    row["used"] = entry.used;
    row["free"] = entry.free;
    row["maxLimit"] = entry.maxLimit;
    rows.row(row);
  }
}

void addStatuses(std::string& out, const EmbeddedAgent& agent) {
  RowWriter rows(out);
  KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
    forEachDatabase([&]<class Db>() {
      const auto statuses = agent.store().statuses<Db>(feature);
      if (statuses == nullptr) return;
      for (const auto& [key, record] : sortedRows(statuses->status())) {
        rows.row(
            {{"feature", toJson(feature)},
             {"database", toJson(Db::kEmType)},
             {"key", keyToJson(KilnEmServer::requestKeyAs<EmRequestKey>(key), &EmRequestKey::emComposerKey)},
             {"requestVersion", record.requestVersion},
             {"status", toJson(record.status)},
             {"result", record.result}});
      }
    });
  });
}

void addTables(std::string& out, const EmbeddedAgent& agent) {
  std::map<std::string_view, const SoftTable*> byStem;
  agent.chip().forEachTable([&](const SoftTable& table) { byStem.emplace(table.stem(), &table); });
  char separator = '{';
  for (const auto& [stem, table] : byStem) {
    out += fmt::format("{}\"{}\":", std::exchange(separator, ','), stem);
    RowWriter rows(out);
    for (const auto& [key, entry] : table->sortedEntries()) {
      rows.row({{"key", toJson(key)}, {"entry", toJson(entry)}});
    }
  }
  out += '}';
}

void addVlanDomains(std::string& out, const EmbeddedAgent& agent) {
  RowWriter rows(out);
  for (const auto& [interface, domain] : sortedRows(agent.vlanDomains().status()->status())) {
    Json row = toJson(interface);
    row["vlanDomain"] = domain;
    rows.row(row);
  }
}

Json completed(const EmbeddedAgent& agent) {
  Json names = Json::array();
  for (const auto& [name, unit] : sortedRows(agent.server().dependencyStatus().completed())) {
    names.push_back(name);
  }
  return names;
}

Json leftovers(const EmbeddedAgent& agent) {
  Json sizes = Json::object();
  for (const auto& [name, size] : agent.server().leftovers()) sizes[name] = size;
  return sizes;
}

Json hardware(const EmbeddedAgent& agent) {
  const HardwareCounters counters = agent.chip().counters();
  return {{"written", counters.written}, {"removed", counters.removed}, {"unchanged", counters.unchanged}};
}

}  // namespace

std::string dumpText(const EmbeddedAgent& agent) {
  std::string out = "{\n\"capacity\":";
  addCapacity(out, agent);
  out += ",\n\"completed\":" + completed(agent).dump();
  out += ",\n\"hardware\":" + hardware(agent).dump();
  out += ",\n\"leftovers\":" + leftovers(agent).dump(1);
  out += ",\n\"statuses\":";
  addStatuses(out, agent);
  out += ",\n\"tables\":";
  addTables(out, agent);
  out += ",\n\"vlanDomains\":";
  addVlanDomains(out, agent);
  out += "\n}\n";
  return out;
}

}  // namespace KilnAgent
