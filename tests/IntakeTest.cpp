// From the features' requests to one collection of requested entries.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "TestSupport.h"
#include "intake/EmSrvConfigMergeSm.h"
#include "intake/EsemSrvConfigSm.h"
#include "intake/IsemSrvConfigSm.h"
#include "intake/LemSrvConfigSm.h"

namespace KilnTest {
namespace {

using namespace KilnTunnelNiLib;
using Entries = std::map<EmLogicalKey, EmConfigEntry>;

class IntakeTest : public testing::TestWithParam<std::uint32_t> {
 protected:
  static Ref<IsemSrvConfig> feature() {
    return std::make_shared<IsemSrvConfig>(std::make_unique<Collection<IsemEntryKey, IsemSrvConfigEntry>>());
  }
  static void request(IsemSrvConfig& config, std::uint32_t label, std::uint32_t version,
                      RequestKind kind = RequestKind::add) {
    config.config().is(requestKeyAs<IsemEntryKey>(mplsKey(FeatureType::mpls, label)),
                       {{mplsEntry(label).emEntry}, version, kind});
  }
  void start() {
    stage = bench.create(
        [&] { return isemSrvConfigSmFactory(byFeature, output, "isem", bench.status, bench.scheduler, 3); });
    bench.settle();
  }
  [[nodiscard]] Entries entries() const { return contentOf(output->emLogicalKeyToEntry()); }

  Bench bench{GetParam()};
  Ref<IsemSrvConfigByFeature> byFeature = std::make_shared<IsemSrvConfigByFeature>();
  Ref<EmSrvConfig> output = std::make_shared<EmSrvConfig>(EmType::isem);
  Ref<IsemSrvConfigSm> stage;
};
INSTANTIATE_TEST_SUITE_P(YieldEvery, IntakeTest, testing::Values(0, 1));

TEST_P(IntakeTest, EachFeaturesRequestIsALogicalKeyOfItsOwn) {
  const auto mpls = feature();
  const auto evpn = feature();
  request(*mpls, 1, 4);
  request(*evpn, 1, 5, RequestKind::modify);
  byFeature->isemConfigIs(FeatureType::mpls, mpls);
  start();
  byFeature->isemConfigIs(FeatureType::evpn, evpn);
  bench.settle();
  const auto ofMpls = mplsKey(FeatureType::mpls, 1);
  const auto ofEvpn = mplsKey(FeatureType::evpn, 1);
  EXPECT_EQ(entries(), (Entries{{ofMpls, mplsEntry(1, 4)}, {ofEvpn, mplsEntry(1, 5)}}));
  request(*mpls, 1, 6);
  bench.settle();
  EXPECT_EQ(output->emLogicalKeyToEntry(ofMpls), mplsEntry(1, 6));
  byFeature->isemConfigDel(FeatureType::evpn);
  request(*evpn, 2, 1);
  bench.settle();
  EXPECT_EQ(entries(), (Entries{{ofMpls, mplsEntry(1, 6)}}));
  byFeature->isemConfigIs(FeatureType::evpn, evpn);
  bench.settle();
  EXPECT_EQ(entries().size(), 3u);
}

TEST_P(IntakeTest, AHeldRequestIsNotAdmittedAndLeavesWhenItWas) {
  const auto mpls = feature();
  byFeature->isemConfigIs(FeatureType::mpls, mpls);
  start();
  request(*mpls, 1, 1, RequestKind::hold);
  request(*mpls, 2, 1);
  bench.settle();
  EXPECT_EQ(entries(), (Entries{{mplsKey(FeatureType::mpls, 2), mplsEntry(2, 1)}}));
  request(*mpls, 2, 2, RequestKind::hold);
  request(*mpls, 1, 2);
  bench.settle();
  EXPECT_EQ(entries(), (Entries{{mplsKey(FeatureType::mpls, 1), mplsEntry(1, 2)}}));
}

TEST_P(IntakeTest, KeysOfAnotherDatabaseAreLeftOut) {
  const auto mpls = feature();
  const TraceCapture traces(0);
  mpls->config().is(requestKeyAs<IsemEntryKey>(fodoKey(3)), {{mplsEntry(1).emEntry}, 1, RequestKind::add});
  mpls->config().is(IsemEntryKey{}, {{mplsEntry(1).emEntry}, 1, RequestKind::add});
  request(*mpls, 1, 1);
  byFeature->isemConfigIs(FeatureType::mpls, mpls);
  start();
  EXPECT_EQ(entries(), (Entries{{mplsKey(FeatureType::mpls, 1), mplsEntry(1)}}));
  EXPECT_EQ(traces.count(0, "its key is not one of the isem database"), 2u);
}

TEST(Intake, TheOtherDatabasesTakeTheirOwnEntries) {
  const Bench bench;
  const auto lemByFeature = std::make_shared<LemSrvConfigByFeature>();
  const auto esemByFeature = std::make_shared<EsemSrvConfigByFeature>();
  const auto lem =
      std::make_shared<LemSrvConfig>(std::make_unique<Collection<LemEntryKey, LemSrvConfigEntry>>());
  const auto esem =
      std::make_shared<EsemSrvConfig>(std::make_unique<Collection<EsemEntryKey, EsemSrvConfigEntry>>());
  const auto lemOut = std::make_shared<EmSrvConfig>(EmType::lem);
  const auto esemOut = std::make_shared<EmSrvConfig>(EmType::esem);
  const EmLogicalKey lemKey{FeatureType::vpws, FapId(1), LocalCoreId(2), LemVpwsAcComposerKey{1, 2, 3, 4, 5}};
  lem->config().is(requestKeyAs<LemEntryKey>(lemKey), {{LemVpwsAcEntry{1, 2, 3}}, 7, RequestKind::add});
  esem->config().is(requestKeyAs<EsemEntryKey>(fodoKey(4)), {{EsemFodoEntry{1, 2}}, 8, RequestKind::add});
  lemByFeature->lemConfigIs(FeatureType::vpws, lem);
  esemByFeature->esemConfigIs(FeatureType::vpws, esem);
  const auto lemStage = lemSrvConfigSmFactory(lemByFeature, lemOut, "lem", bench.status, bench.scheduler, 3);
  const auto esemStage =
      esemSrvConfigSmFactory(esemByFeature, esemOut, "esem", bench.status, bench.scheduler, 3);
  EXPECT_EQ(contentOf(lemOut->emLogicalKeyToEntry()), (Entries{{lemKey, {LemVpwsAcEntry{1, 2, 3}, 7}}}));
  EXPECT_EQ(contentOf(esemOut->emLogicalKeyToEntry()), (Entries{{fodoKey(4), {EsemFodoEntry{1, 2}, 8}}}));
}

// --- The merge of the databases
// ------------------------------------------------------------------------------

class ConfigMerge : public testing::Test {
 protected:
  void start() {
    stage = bench.create(
        [&] { return emSrvConfigMergeSmFactory(input, output, "merge", bench.status, bench.scheduler, 3); });
    bench.settle();
  }
  Bench bench{1};
  Ref<EmTypeToConfig> input = std::make_shared<EmTypeToConfig>();
  Ref<EmLogicalKeyToEntry> output = std::make_shared<EmLogicalKeyToEntry>();
  Ref<EmSrvConfigMergeSm> stage;
};

TEST_F(ConfigMerge, FoldsTheDatabasesIntoOne) {
  const auto isem = input->configIs(EmType::isem);
  const auto esem = input->configIs(EmType::esem);
  const auto key = mplsKey(FeatureType::mpls, 1);
  isem->emLogicalKeyToEntryIs(key, mplsEntry(1));
  start();
  esem->emLogicalKeyToEntryIs(fodoKey(2), mplsEntry(2));
  bench.settle();
  const Recorder recorder(output->emLogicalKeyToEntry());
  isem->emLogicalKeyToEntryIs(key, mplsEntry(1, 2));
  bench.settle();
  EXPECT_EQ(contentOf(output->emLogicalKeyToEntry()),
            (Entries{{key, mplsEntry(1, 2)}, {fodoKey(2), mplsEntry(2)}}));
  EXPECT_TRUE(recorder.deletions().empty());  // replaced in place
  input->configDel(EmType::isem);
  bench.settle();
  EXPECT_EQ(contentOf(output->emLogicalKeyToEntry()), (Entries{{fodoKey(2), mplsEntry(2)}}));
  EXPECT_EQ(localEntries(*stage), 1u);
}

TEST_F(ConfigMerge, OneKeyInTwoDatabasesIsFatal) {
  input->configIs(EmType::isem)->emLogicalKeyToEntryIs(fodoKey(1), mplsEntry(1));
  input->configIs(EmType::esem)->emLogicalKeyToEntryIs(fodoKey(1), mplsEntry(1));
  EXPECT_DEATH(start(), "Assertion failed: \\( len\\( emTypeColl \\) <= 1 \\) \\(stage merge");
}

}  // namespace
}  // namespace KilnTest
