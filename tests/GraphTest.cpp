// The running server's graph of stages against a golden file, so that a change of it is seen in review.

#include <gtest/gtest.h>

#include <algorithm>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/report/GraphText.h"
#include "kiln/server/KilnEmServerSm.h"
#include "tests/Golden.h"

namespace KilnTests {
namespace {

TEST(Graph, IsTheReviewedOne) {
  KilnAgent::EmbeddedAgent agent({});
  agent.settle();
  expectGolden("stage-graph.json", KilnAgent::graphJson(agent.server().graph()));
}

// Stages that one action creates together are named after their node and what tells them apart.
TEST(Graph, EveryStageThatExistsBelongsToOneNode) {
  KilnAgent::EmbeddedAgent agent({});
  agent.settle();
  const auto graph = agent.server().graph();
  for (const KilnEmServer::Stage* stage : agent.server().stages()) {
    const auto created = [&](const auto& node) {
      return stage->name() == node.stage || stage->name().starts_with(node.stage + "-");
    };
    EXPECT_EQ(1, std::count_if(graph.nodes.begin(), graph.nodes.end(), created)) << stage->name();
  }
}

}  // namespace
}  // namespace KilnTests
