// Translation of the keys that need no resolution, and broken invariants of the merge of composed keys.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "kiln/compose/ComposerOutputMergeSm.h"
#include "kiln/compose/EmUtils.h"
#include "tests/TestSupport.h"

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
  const char* error;  ///< null if it is translated
};
class TranslationBounds : public testing::TestWithParam<Bound> {};
TEST_P(TranslationBounds, MatchTheHardwareFields) {
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

TEST(OutputMergeDeathTest, TwoComposersOfOneKeyAreFatal) {
  const Bench bench;
  const auto input = std::make_shared<SwTableKeyConfigByComposerType>();
  for (const Tag type : {Tag::isemMplsEntryKey, Tag::isemInnerEthEntryKey}) {
    input->configIs(type)->emLogicalKeyToResolvedKeyIs(mplsKey(FeatureType::mpls, 1), mplsHwKey(1));
  }
  EXPECT_DEATH(composerOutputMergeSmFactory(input, std::make_shared<ResolvedKeyColl>(), "merge", bench.status,
                                            bench.control()),
               "Assertion failed: \\( len\\( composerTypeColl \\) <= 1 \\) \\(stage merge");
}

}  // namespace
}  // namespace KilnTest
