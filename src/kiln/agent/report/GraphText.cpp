#include "kiln/agent/report/GraphText.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <string_view>
#include <vector>

namespace KilnAgent {
namespace {

using Node = KilnEmServer::StageGraph::Node;
using Lines = std::back_insert_iterator<std::string>;

// Stages and collections may have the same name, so a prefix distinguishes their nodes.
void addEdge(Lines out, std::string_view from, std::string_view to, std::string_view attributes) {
  fmt::format_to(out, "  \"{}\" -> \"{}\"{};\n", from, to, attributes);
}

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

void addNodeEdges(Lines out, const Node& node) {
  const std::string stage = "stage " + node.stage;
  const auto collection = [](const std::string& name) { return "collection " + name; };
  for (const auto& name : node.reads) addEdge(out, collection(name), stage, "");
  for (const auto& name : node.feedbackReads) addEdge(out, collection(name), stage, " [style=dashed]");
  for (const auto& name : node.writes) addEdge(out, stage, collection(name), "");
  for (const auto& name : node.waitsForCollections) {
    if (contains(node.reads, name) || contains(node.feedbackReads, name) || contains(node.writes, name))
      continue;
    addEdge(out, collection(name), stage, " [style=dotted]");
  }
  for (const auto& name : node.waitsForStages) {
    addEdge(out, "stage " + name, stage, " [style=dotted,constraint=false]");
  }
}

}  // namespace

std::string graphDot(const KilnEmServer::StageGraph& graph) {
  std::string text = "digraph kilnEmServer {\n  rankdir=LR;\n";
  const Lines out(text);
  std::set<std::string> collections;
  for (const Node& node : graph.nodes) {
    fmt::format_to(out, "  \"stage {0}\" [shape=box,label=\"{0}\"];\n", node.stage);
    for (const auto* names : {&node.reads, &node.feedbackReads, &node.writes, &node.waitsForCollections}) {
      collections.insert(names->begin(), names->end());
    }
  }
  for (const auto& name : collections) {
    fmt::format_to(out, "  \"collection {0}\" [shape=ellipse,label=\"{0}\"];\n", name);
  }
  for (const Node& node : graph.nodes) addNodeEdges(out, node);
  return text += "}\n";
}

std::string graphJson(const KilnEmServer::StageGraph& graph) {
  std::string text = "{\"stages\":[";
  std::string_view separator = "\n";
  for (const Node& node : graph.nodes) {
    text += separator;
    text += nlohmann::ordered_json{{"stage", node.stage},
                                   {"reads", node.reads},
                                   {"feedbackReads", node.feedbackReads},
                                   {"writes", node.writes},
                                   {"waitsForCollections", node.waitsForCollections},
                                   {"waitsForStages", node.waitsForStages}}
                .dump();
    separator = ",\n";
  }
  return text += "\n]}\n";
}

}  // namespace KilnAgent
