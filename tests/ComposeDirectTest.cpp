// The composer types that need no resolution: selection, translation and the merge of what is composed.
#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>

#include "TestSupport.h"
#include "compose/ComposerOutputMergeSm.h"
#include "compose/ComposerSelectorSm.h"
#include "compose/EmUtils.h"
#include "compose/SwKeyTranslationSm.h"

namespace KilnTest {
namespace {

using namespace KilnTunnelNiLib;
using Tag = EmComposerKeyUnionTag;

EmLogicalKey vpwsKey(std::uint32_t inLif, std::uint16_t outer, std::uint16_t inner, std::uint8_t outerPcp,
                     std::uint8_t innerPcp) {
  return {FeatureType::vpws, FapId::allFap(), LocalCoreId::all(),
          LemVpwsAcComposerKey{inLif, outer, inner, outerPcp, innerPcp}};
}

struct Bound {
  EmLogicalKey key;
  const char* error;  ///< null where it translates
};
class TranslationBounds : public testing::TestWithParam<Bound> {};
TEST_P(TranslationBounds, AreThoseOfTheHardware) {
  std::string error;
  try {
    const EmHwKey hwKey = translateToSwTableKey(GetParam().key);
    EXPECT_EQ(static_cast<int>(hwKey.emResolvedKey.tag()),
              static_cast<int>(GetParam().key.emComposerKey.tag()));
  } catch (const std::range_error& thrown) {
    error = thrown.what();
  }
  EXPECT_EQ(error, GetParam().error == nullptr ? "" : GetParam().error);
}
constexpr const char* kU18 = "U18::value < 0 or > 0x0003ffff not allowed";
constexpr const char* kU20 = "U20::value < 0 or > 0x000fffff not allowed";
constexpr const char* kU12 = "U12::value < 0 or > 0x0fff not allowed";
constexpr const char* kU3 = "U3::value < 0 or > 0x07 not allowed";
INSTANTIATE_TEST_SUITE_P(Compose, TranslationBounds,
                         testing::Values(Bound{fodoKey(0x3ffff), nullptr}, Bound{fodoKey(0x40000), kU18},
                                         Bound{vpwsKey(0xfffff, 4095, 4095, 7, 7), nullptr},
                                         Bound{vpwsKey(0x100000, 4096, 4096, 8, 8), kU20},
                                         Bound{vpwsKey(0, 4096, 0, 8, 8), kU12},
                                         Bound{vpwsKey(0, 0, 4096, 8, 0), kU12},
                                         Bound{vpwsKey(0, 0, 0, 8, 0), kU3},
                                         Bound{vpwsKey(0, 0, 0, 0, 8), kU3},
                                         Bound{mplsKey(FeatureType::mpls, 0xffffffff), nullptr}));

TEST(Translation, CopiesFieldForFieldAndDropsTheFeature) {
  const FapId fap(3);
  const LocalCoreId core(1);
  EmLogicalKey key = vpwsKey(1, 2, 3, 4, 5);
  key.fapId = fap;
  key.localCoreId = core;
  const EmHwKey expected{fap, core,
                         LemVpwsAcEntryKey{KilnPlatform::U20(1), KilnPlatform::U12(2), KilnPlatform::U12(3),
                                           KilnPlatform::U3(4), KilnPlatform::U3(5)}};
  EXPECT_EQ(translateToSwTableKey(key), expected);
  key.featureType = FeatureType::evpn;
  EXPECT_EQ(translateToSwTableKey(key), expected);
  key.emComposerKey = IsemInnerEthComposerKey{9, 8};
  EXPECT_EQ(translateToSwTableKey(key), (EmHwKey{fap, core, IsemInnerEthEntryKey{9, 8}}));
  key.emComposerKey = IsemMplsComposerKey{9, 8};
  EXPECT_EQ(translateToSwTableKey(key), (EmHwKey{fap, core, IsemMplsEntryKey{9, 8}}));
  key.emComposerKey = Isem1TagComposerKey{};
  EXPECT_DEATH(translateToSwTableKey(key), "Unrecognized union alternative 2");
}

TEST(Translation, AKeyThatDoesNotFitLeavesARecordUntilItIsWithdrawn) {
  const Bench bench;
  const auto requests = std::make_shared<EmLogicalKeyConfig>(Tag::esemFodoEntryKey);
  const auto keys = std::make_shared<SwTableKeyConfig>(Tag::esemFodoEntryKey);
  const auto failures = std::make_shared<EmComposeFailure>(Tag::esemFodoEntryKey);
  requests->requestIs(fodoKey(1));
  requests->requestIs(fodoKey(0x40000));
  const auto stage = swKeyTranslationSmFactory(Tag::esemFodoEntryKey, requests, keys, "translation",
                                               bench.status, bench.control(), failures);
  requests->requestIs(fodoKey(0x50000));
  requests->requestIs(fodoKey(2));
  bench.settle();
  EXPECT_TRUE(bench.completed("translation"));
  EXPECT_EQ(keys->emLogicalKeyToResolvedKey().size(), 2u);
  EXPECT_EQ(contentOf(failures->failure()),
            (std::map<EmLogicalKey, std::string>{{fodoKey(0x40000), kU18}, {fodoKey(0x50000), kU18}}));
  requests->requestDel(fodoKey(0x40000));
  requests->requestDel(fodoKey(1));
  bench.settle();
  EXPECT_EQ(failures->failure().size(), 1u);
  EXPECT_FALSE(keys->emLogicalKeyToResolvedKeyHas(fodoKey(1)));
  EXPECT_TRUE(keys->emLogicalKeyToResolvedKeyHas(fodoKey(2)));
}

TEST(Selector, EachTakesItsOwnKeys) {
  const Bench bench(1);
  const auto entries = std::make_shared<EmLogicalKeyToEntry>();
  std::map<Tag, Ref<EmLogicalKeyConfig>> outputs;
  std::vector<Ref<ComposerSelectorSm>> stages;
  for (const Tag tag : {Tag::isemMplsEntryKey, Tag::esemFodoEntryKey}) {
    outputs[tag] = std::make_shared<EmLogicalKeyConfig>(tag);
    stages.push_back(
        composerSelectorSmFactory(tag, entries, outputs[tag], "selector", bench.status, bench.control()));
  }
  const Recorder recorder(outputs[Tag::isemMplsEntryKey]->request());
  const auto mpls = mplsKey(FeatureType::mpls, 1);
  entries->emLogicalKeyToEntryIs(mpls, mplsEntry(1));
  entries->emLogicalKeyToEntryIs(fodoKey(1), mplsEntry(1));
  bench.settle();
  entries->emLogicalKeyToEntryIs(mpls, mplsEntry(2));
  entries->emLogicalKeyToEntryDel(fodoKey(1));
  bench.settle();
  EXPECT_EQ(recorder.changes.size(), 1u);
  EXPECT_TRUE(outputs[Tag::isemMplsEntryKey]->requestHas(mpls));
  EXPECT_TRUE(outputs[Tag::esemFodoEntryKey]->request().empty());
  entries->emLogicalKeyToEntryDel(mpls);
  bench.settle();
  EXPECT_TRUE(outputs[Tag::isemMplsEntryKey]->request().empty());
}

TEST(OutputMerge, ReplacesInPlaceAndRefusesTwoComposersOfOneKey) {
  const Bench bench(1);
  const auto input = std::make_shared<SwTableKeyConfigByComposerType>();
  const auto output = std::make_shared<ResolvedKeyColl>();
  const auto key = mplsKey(FeatureType::mpls, 1);
  const auto mpls = input->configIs(Tag::isemMplsEntryKey);
  const auto stage = composerOutputMergeSmFactory(input, output, "merge", bench.status, bench.control());
  mpls->emLogicalKeyToResolvedKeyIs(key, mplsHwKey(1));
  bench.settle();
  const Recorder recorder(output->emLogicalKeyToResolvedKey());
  mpls->emLogicalKeyToResolvedKeyIs(key, mplsHwKey(2));
  bench.settle();
  EXPECT_EQ(recorder.of(key), (std::vector<std::optional<EmHwKey>>{mplsHwKey(2)}));
  EXPECT_DEATH(
      {
        input->configIs(Tag::isemInnerEthEntryKey)->emLogicalKeyToResolvedKeyIs(key, mplsHwKey(1));
        bench.settle();
      },
      "Assertion failed: \\( len\\( composerTypeColl \\) <= 1 \\) \\(stage merge");
  mpls->emLogicalKeyToResolvedKeyDel(key);
  bench.settle();
  EXPECT_TRUE(output->emLogicalKeyToResolvedKey().empty());
  EXPECT_EQ(localEntries(*stage), 0u);
}

}  // namespace
}  // namespace KilnTest
