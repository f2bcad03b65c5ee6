#include "kiln/agent/report/Dump.h"

#include <map>
#include <string_view>

#include "kiln/agent/io/SortedRows.h"
#include "kiln/platform/DependencyStatus.h"
#include "kiln/server/KilnEmServer.h"

namespace KilnAgent {
namespace {

using KilnEmServer::EmEntry;
using KilnEmServer::EmRequestKey;
using KilnEmServer::EmResolvedKey;
using KilnEmServer::FeatureType;

Json capacityRow(const KilnPlatform::TableCapacityKey& key, const KilnPlatform::TableCapacityEntry& entry) {
  Json row = toJson(key);
  row["used"] = entry.used;
  row["free"] = entry.free;
  row["maxLimit"] = entry.maxLimit;
  return row;
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

class Dump final : public JsonSource {
 public:
  enum class Form { sortedLines, oneLine };

  Dump(const EmbeddedAgent& agent, Form form)
      : JsonSource(form == Form::sortedLines ? "\n" : ""), agent_(agent), sorted_(form == Form::sortedLines) {
    addText([this] { return "{" + lineEnd() + "\"capacity\":"; });
    beginArray();
    addRows(nullptr, agent_.capacity().entry(), capacityRow);
    endArray();
    addMember("completed", [this] { return completed(agent_).dump(); });
    addMember("hardware", [this] { return hardware(agent_).dump(); });
    addMember("leftovers", [this] { return leftovers(agent_).dump(sorted_ ? 1 : -1); });
    addStatuses();
    addTables();
    addVlanDomains();
    if (!sorted_) addMember("oneMoment", [this] { return unchanged() ? "true" : "false"; });
    addText([this] { return lineEnd() + "}" + lineEnd(); });
  }

 private:
  void addMember(const char* name, std::function<std::string()> text) {
    addText([this, name, text = std::move(text)] {
      return fmt::format(",{}\"{}\":{}", lineEnd(), name, text());
    });
  }

  /// The rows of a collection, which lives as long as the agent or as its holder.
  template <class K, class V, class RowOf>
  void addRows(std::shared_ptr<const void> holder, const KilnPlatform::KeyedCollection<K, V>& collection,
               RowOf rowOf) {
    if (sorted_) {
      return addPart([this, &collection, rowOf](std::string& out) {
        for (const auto& [key, value] : sortedRows(collection)) addRow(out, rowOf(key, value));
        return false;
      });
    }
    KilnPlatform::ScanCursor<K> cursor;
    addPart([this, holder = std::move(holder), &collection, rowOf, cursor](std::string& out) mutable {
      for (int row = 0; row < kRowsPerPiece; ++row) {
        const K* key = collection.scanNext(cursor);
        if (key == nullptr) return false;
        if (const V* value = collection.find(*key)) addRow(out, rowOf(*key, *value));
      }
      return true;
    });
  }

  void addStatuses() {
    addMember("statuses", [] { return ""; });
    beginArray();
    KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
      forEachDatabase([&]<class Db>() {
        const auto statuses = agent_.store().statuses<Db>(feature);
        if (statuses == nullptr) return;
        addRows(statuses, statuses->status(), [feature](const auto& key, const auto& record) -> Json {
          const auto requestKey = KilnEmServer::requestKeyAs<EmRequestKey>(key);
          return {{"feature", toJson(feature)},
                  {"database", toJson(Db::kEmType)},
                  {"key", keyToJson(requestKey, &EmRequestKey::emComposerKey)},
                  {"requestVersion", record.requestVersion},
                  {"status", toJson(record.status)},
                  {"result", record.result}};
        });
      });
    });
    endArray();
  }

  void addTables() {
    std::map<std::string_view, std::function<void()>> byStem;
    agent_.chip().forEachSwTable([&](std::string_view stem, const auto& entries) {
      byStem.emplace(stem, [this, &entries] {
        addRows(nullptr, entries, [](const auto& key, const auto& entry) -> Json {
          return {{"key", toJson(EmResolvedKey(key))}, {"entry", toJson(EmEntry(entry))}};
        });
      });
    });
    addMember("tables", [] { return ""; });
    char separator = '{';
    for (const auto& [stem, addEntries] : byStem) {
      addText([separator, stem = stem] { return fmt::format("{}\"{}\":", separator, stem); });
      beginArray();
      addEntries();
      endArray();
      separator = ',';
    }
    addText([] { return "}"; });
  }

  void addVlanDomains() {
    addMember("vlanDomains", [] { return ""; });
    beginArray();
    addRows(nullptr, agent_.vlanDomains().status()->status(),
            [](const auto& interface, std::uint16_t domain) {
              Json row = toJson(interface);
              row["vlanDomain"] = domain;
              return row;
            });
    endArray();
  }

  /// Operations that change anything make tasks ready.
  [[nodiscard]] bool unchanged() const {
    return idleAtBegin_ && agent_.scheduler().idle() &&
           agent_.scheduler().counters().slices == slicesAtBegin_;
  }

  const EmbeddedAgent& agent_;
  bool sorted_;
  bool idleAtBegin_ = agent_.scheduler().idle();
  std::uint64_t slicesAtBegin_ = agent_.scheduler().counters().slices;
};

}  // namespace

std::string dumpText(const EmbeddedAgent& agent) {
  Dump dump(agent, Dump::Form::sortedLines);
  return wholeText(dump);
}

std::unique_ptr<TextSource> dumpInPieces(const EmbeddedAgent& agent) {
  return std::make_unique<Dump>(agent, Dump::Form::oneLine);
}

}  // namespace KilnAgent
