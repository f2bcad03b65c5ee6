// Features that are removed and added again, on the embedded agent: in slices, whatever the number of their
// requests.
#include <gtest/gtest.h>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/server/KilnEmServer.h"
#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

using Isem = KilnTunnelNiLib::Isem;
using KilnTunnelNiLib::IsemEntryKey;
constexpr FeatureType kRemovedFeature = FeatureType::mpls;
constexpr std::uint32_t kFeatureRequests = 40;

class FeatureRemovalTest : public testing::Test {
 protected:
  FeatureRemovalTest() { publish(kFeatureRequests); }

  void publish(std::uint32_t labels) {
    for (std::uint32_t label = 0; label < labels; ++label) {
      agent.store().requestIs<Isem>(kRemovedFeature,
                                    requestKeyAs<IsemEntryKey>(mplsKey(kRemovedFeature, label)),
                                    {{KilnTunnelNiLib::IsemMplsEntry{label, 0}}, 1, {}});
    }
    agent.settle();
  }
  [[nodiscard]] auto statuses() { return agent.store().statuses<Isem>(kRemovedFeature); }
  [[nodiscard]] bool complete() const { return agent.server().isComplete("isemSrvStatusSmStage-mpls"); }
  [[nodiscard]] std::size_t leftovers() const {
    std::size_t sum = 0;
    for (const auto& [name, size] : agent.server().leftovers()) sum += size;
    return sum;
  }

  KilnAgent::EmbeddedAgent agent{yieldsAfterEachItem()};

 private:
  static KilnAgent::AgentOptions yieldsAfterEachItem() {
    KilnAgent::AgentOptions options;
    options.yieldEvery = 1;
    return options;
  }
};

TEST_F(FeatureRemovalTest, WithdrawsStatusesInSlices) {
  const auto left = statuses();
  ASSERT_EQ(left->status().size(), kFeatureRequests);
  agent.store().removeFeature(kRemovedFeature);
  EXPECT_EQ(mostPerSlice(agent.scheduler(), [&] { return left->status().size(); }), 1u);
  EXPECT_TRUE(left->status().empty());
  EXPECT_TRUE(complete());
  EXPECT_EQ(leftovers(), 0u);
}

// A key is in use as long as a collection holds it, which shows when collections are destroyed.
TEST_F(FeatureRemovalTest, DestroysCollectionsInSlices) {
  const auto keys = [] { return KeySpace<IsemEntryKey>::instance().size(); };
  const std::size_t before = keys();
  agent.store().removeFeature(kRemovedFeature);
  EXPECT_EQ(keys(), before) << "the server holds them still";
  EXPECT_EQ(mostPerSlice(agent.scheduler(), keys), 1u);
  EXPECT_EQ(keys(), before - kFeatureRequests);
}

TEST_F(FeatureRemovalTest, StartUpWaitsForTheWithdrawalOfStatuses) {
  const auto started = [&](const char* stage) { return agent.server().isComplete(stage); };
  const auto left = statuses();
  agent.restart();
  while (!started("emStatusSmStage")) agent.scheduler().runOne();
  agent.scheduler().run(kFeatureRequests / 2);
  ASSERT_FALSE(complete());
  agent.store().removeFeature(kRemovedFeature);
  while (!left->status().empty()) {
    EXPECT_FALSE(complete() || started("finalizeStartupStage"));
    ASSERT_TRUE(agent.scheduler().runOne());
  }
  agent.settle();
  EXPECT_TRUE(complete() && started("finalizeStartupStage"));
}

}  // namespace
}  // namespace KilnTest
