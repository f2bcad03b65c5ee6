// The server's graph of stages and collections, as text.
#pragma once

#include <string>

#include "kiln/server/StageGraph.h"

namespace KilnAgent {

/// The graph in Graphviz's language: stages as boxes, collections as ellipses. Solid edges show reads and
/// writes, dashed ones feedback, dotted ones what a stage waits for.
std::string graphDot(const KilnEmServer::StageGraph& graph);
/// The graph as JSON, a line for each stage.
std::string graphJson(const KilnEmServer::StageGraph& graph);

}  // namespace KilnAgent
