// The running server's graph of stages against a golden file, so that a change of it is seen in review.

#include <gtest/gtest.h>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/report/GraphText.h"
#include "kiln/server/KilnEmServer.h"
#include "tests/Golden.h"

namespace KilnTest {
namespace {

TEST(Graph, MatchesTheGoldenFile) {
  KilnAgent::EmbeddedAgent agent({});
  agent.settle();
  expectGolden("stage-graph.json", KilnAgent::graphJson(agent.server().graph()));
}

}  // namespace
}  // namespace KilnTest
