// Requests that the intake leaves out, and the broken invariant of the merge.
#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "kiln/intake/EmSrvConfigMergeSm.h"
#include "kiln/intake/IsemSrvConfigSm.h"
#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

using namespace KilnTunnelNiLib;

TEST(Intake, KeysOfAnotherDatabaseAreLeftOut) {
  const Bench bench;
  const auto byFeature = std::make_shared<IsemSrvConfigByFeature>();
  const auto output = std::make_shared<EmSrvConfig>(EmType::isem);
  const auto mpls =
      std::make_shared<IsemSrvConfig>(std::make_unique<Collection<IsemEntryKey, IsemSrvConfigEntry>>());
  const auto request = [&](const IsemEntryKey& key) {
    mpls->config().is(key, {{mplsEntry(1).emEntry}, 1, RequestKind::add});
  };
  request(requestKeyAs<IsemEntryKey>(fodoKey(3)));
  request(IsemEntryKey{});
  request(requestKeyAs<IsemEntryKey>(mplsKey(FeatureType::mpls, 1)));
  byFeature->isemConfigIs(FeatureType::mpls, mpls);
  const TraceCapture traces(0);
  const auto stage = isemSrvConfigSmFactory(byFeature, output, "isem", bench.status, bench.scheduler, 3);
  EXPECT_EQ(contentOf(output->emLogicalKeyToEntry()),
            (std::map<EmLogicalKey, EmConfigEntry>{{mplsKey(FeatureType::mpls, 1), mplsEntry(1)}}));
  EXPECT_EQ(traces.count(0, "its key is not one of the isem database"), 2u);
}

TEST(ConfigMergeDeathTest, OneKeyInTwoDatabasesIsFatal) {
  const Bench bench;
  const auto input = std::make_shared<EmTypeToConfig>();
  input->configIs(EmType::isem)->emLogicalKeyToEntryIs(fodoKey(1), mplsEntry(1));
  input->configIs(EmType::esem)->emLogicalKeyToEntryIs(fodoKey(1), mplsEntry(1));
  EXPECT_DEATH(emSrvConfigMergeSmFactory(input, std::make_shared<EmLogicalKeyToEntry>(), "merge",
                                         bench.status, bench.scheduler, 3),
               "Assertion failed: \\( len\\( emTypeColl \\) <= 1 \\) \\(stage merge");
}

}  // namespace
}  // namespace KilnTest
