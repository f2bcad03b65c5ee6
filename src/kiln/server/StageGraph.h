// The graph of stages and collections, as data.
#pragma once

#include <string>
#include <vector>

namespace KilnEmServer {

/// Who reads, who writes, who waits.
struct StageGraph {
  struct Node {
    std::string stage;
    std::vector<std::string> reads;
    std::vector<std::string> feedbackReads;
    std::vector<std::string> writes;
    std::vector<std::string> waitsForCollections;
    std::vector<std::string> waitsForStages;
  };
  std::vector<Node> nodes;
};

}  // namespace KilnEmServer
