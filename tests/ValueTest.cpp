// Plain values: equality, order, hash, text form and its parse.
#include "kiln/platform/Value.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_set>

#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

using namespace KilnTunnelNiLib;

/// The message of the range error that `work` throws; empty if it throws none.
template <class Work>
std::string rangeErrorOf(Work work) {
  try {
    work();
  } catch (const std::range_error& error) {
    return error.what();
  }
  return "";
}

const std::vector<EmResolvedKey>& resolvedKeys() {
  static const std::vector<EmResolvedKey> keys = {
      EmResolvedKey{},
      IsemUntaggedEntryKey{KilnPlatform::U9(5)},
      Isem1TagEntryKey{KilnPlatform::U9(5), KilnPlatform::U12(6)},
      Isem2TagEntryKey{KilnPlatform::U9(5), KilnPlatform::U12(6), KilnPlatform::U12(0xfff)},
      IsemInnerEthEntryKey{65535, 255},
      IsemMplsEntryKey{0xffffffff, 255},
      EsemFodoVdEntryKey{KilnPlatform::U18(0x3ffff), KilnPlatform::U11(0x7ff)},
      EsemFodoEntryKey{KilnPlatform::U18(9)},
      LemVpwsAcEntryKey{KilnPlatform::U20(0xfffff), KilnPlatform::U12(1), KilnPlatform::U12(2),
                        KilnPlatform::U3(7), KilnPlatform::U3(0)},
  };
  return keys;
}

TEST(Value, UnionAlternativesAreDistinct) {
  std::set<EmResolvedKey> ordered;
  std::set<std::size_t> hashes;
  int tag = 0;
  for (const EmResolvedKey& key : resolvedKeys()) {
    EXPECT_EQ(static_cast<int>(key.tag()), tag++);
    for (const EmResolvedKey& other : resolvedKeys()) {
      EXPECT_EQ(key == other, &key == &other);
      EXPECT_EQ(key < other, key.tag() < other.tag());
    }
    ordered.insert(key);
    hashes.insert(KilnPlatform::hashValue(key));
  }
  EXPECT_EQ(ordered.size(), 9u);
  EXPECT_EQ(hashes.size(), 9u);
  EXPECT_EQ(EmResolvedKey{}, EmResolvedKey{});
}

// Padding between the fields of an alternative has any earlier content of the memory.
TEST(Value, UnionIgnoresPadding) {
  const auto built = [](unsigned char before) {
    alignas(IsemMplsComposerKey) unsigned char place[sizeof(IsemMplsComposerKey)];
    std::memset(place, before, sizeof(place));
    auto* key = reinterpret_cast<IsemMplsComposerKey*>(place);
    key->label = 7;
    key->labelSpace = 1;
    return EmComposerKey(*key);
  };
  EXPECT_EQ(built(0x00), built(0xFF));
  EXPECT_EQ(KilnPlatform::hashValue(built(0x00)), KilnPlatform::hashValue(built(0xFF)));
  EXPECT_EQ(*built(0xFF).getIf<IsemMplsComposerKey>(), (IsemMplsComposerKey{7, 1}));
}

TEST(Value, EveryFieldOfAKeyIsCompared) {
  const EmLogicalKey key = mplsKey(FeatureType::mpls, 7);
  std::vector<EmLogicalKey> variants = {key, key, key, key, key};
  variants[1].featureType = FeatureType::evpn;
  variants[2].fapId = FapId(1);
  variants[3].localCoreId = LocalCoreId(1);
  variants[4].emComposerKey = IsemMplsComposerKey{7, 1};
  std::set<EmLogicalKey> ordered(variants.begin(), variants.end());
  std::unordered_set<EmLogicalKey, KilnPlatform::ValueHash<EmLogicalKey>> hashed(variants.begin(),
                                                                                 variants.end());
  std::set<std::size_t> hashes;
  for (const auto& variant : variants) hashes.insert(KilnPlatform::hashValue(variant));
  EXPECT_EQ(ordered.size(), 5u);
  EXPECT_EQ(hashed.size(), 5u);
  EXPECT_EQ(hashes.size(), 5u);
  EXPECT_NE(KilnPlatform::hashValue(key, 1), KilnPlatform::hashValue(key, 2));
  // The order is that of the declaration of the fields.
  EXPECT_LT(mplsKey(FeatureType::mpls, 9, FapId(1)), mplsKey(FeatureType::mpls, 1, FapId(2)));
  EXPECT_LT(mplsKey(FeatureType::mpls, 9), mplsKey(FeatureType::evpn, 1));
}

TEST(Value, TextFormNamesTypeAndFieldsAndReadsBack) {
  const EmHwKey key = mplsHwKey(17, FapId(3), LocalCoreId(1));
  const std::string text = KilnPlatform::textOf(key);
  EXPECT_EQ(text,
            "KilnEmServer::EmHwKey(fapId: 3, localCoreId: 1, emResolvedKey: KilnEmServer::EmResolvedKey("
            "isemMplsEntryKey: KilnTunnelNiLib::IsemMplsEntryKey(label: 17, labelSpace: 0)))");
  EXPECT_EQ(fmt::format("{}", key), text);
  EXPECT_EQ(KilnPlatform::valueFromText<EmHwKey>(text), key);
  for (const EmResolvedKey& each : resolvedKeys()) {
    EXPECT_EQ(KilnPlatform::valueFromText<EmResolvedKey>(KilnPlatform::textOf(each)), each);
  }
  const EmRequestStatus status{mplsKey(FeatureType::srv6, 4), mplsEntry(5, 6), key, EmStatus::hwKeyConflict};
  EXPECT_EQ(KilnPlatform::valueFromText<EmRequestStatus>(KilnPlatform::textOf(status)), status);
  const ResolverKey resolver = VdResolverKey{{0xffffffffffffffff, 2}};
  EXPECT_EQ(KilnPlatform::valueFromText<ResolverKey>(KilnPlatform::textOf(resolver)), resolver);
}

struct BadText {
  const char* text;
  const char* message;
};
class BadResolvedKeyText : public testing::TestWithParam<BadText> {};
TEST_P(BadResolvedKeyText, IsARangeError) {
  EXPECT_EQ(rangeErrorOf([] { KilnPlatform::valueFromText<EmResolvedKey>(GetParam().text); }),
            GetParam().message);
}
INSTANTIATE_TEST_SUITE_P(
    Value, BadResolvedKeyText,
    testing::Values(
        BadText{"", "Invalid string rep for EmResolvedKey"},
        BadText{"EmHwKey(undefined)", "Invalid string rep for EmResolvedKey"},
        BadText{"KilnEmServer::EmResolvedKey(undefined", "Invalid string rep for EmResolvedKey"},
        BadText{"KilnEmServer::EmResolvedKey(undefined) ", "Invalid string rep for EmResolvedKey"},
        BadText{"KilnEmServer::EmResolvedKey(vlan: 5)",
                "Invalid string rep for EmResolvedKey: unknown alternative vlan"},
        BadText{"KilnEmServer::EmResolvedKey(isemMplsEntryKey: KilnTunnelNiLib::IsemMplsEntryKey(label: x, "
                "labelSpace: 0))",
                "Invalid string rep for EmResolvedKey"},
        BadText{"KilnEmServer::EmResolvedKey(isemMplsEntryKey: KilnTunnelNiLib::IsemMplsEntryKey(label: "
                "4294967296, "
                "labelSpace: 0))",
                "Invalid string rep for EmResolvedKey"},
        BadText{"KilnEmServer::EmResolvedKey(esemFodoEntryKey: KilnTunnelNiLib::EsemFodoEntryKey(fodoId: "
                "262144))",
                "U18::value < 0 or > 0x0003ffff not allowed"}));

TEST(Value, ResolverKeyErrorsNameTheResolverKey) {
  const auto parse = [](const char* text) { KilnPlatform::valueFromText<ResolverKey>(text); };
  EXPECT_EQ(rangeErrorOf([&] { parse("vd"); }), "Invalid string rep for ResolverKey");
  EXPECT_EQ(rangeErrorOf([&] { parse("KilnEmServer::ResolverKey(lag: 1)"); }),
            "Invalid string rep for ResolverKey: unknown alternative lag");
}

TEST(Value, ReadingAnotherAlternativeIsARangeError) {
  const EmResolvedKey key = IsemMplsEntryKey{1, 2};
  EXPECT_EQ(key.get<EmResolvedKeyUnionTag::isemMplsEntryKey>().label, 1u);
  EXPECT_NE(rangeErrorOf([&] { (void)key.get<EsemFodoEntryKey>(); }), "");
  EXPECT_EQ(key.getIf<EsemFodoEntryKey>(), nullptr);
}

TEST(Value, EnumerationsByNameAndNumber) {
  KilnPlatform::forEachEnumValue<FeatureType>([](FeatureType feature) {
    EXPECT_EQ(KilnPlatform::enumFromString<FeatureType>(KilnPlatform::stringValue(feature)), feature);
    EXPECT_EQ(KilnPlatform::enumFromNumber<FeatureType>(static_cast<int>(feature)), feature);
  });
  EXPECT_EQ(KilnPlatform::stringValue(EmResolvedKeyUnionTag::undefined_), "undefined");
  EXPECT_NE(rangeErrorOf([] { KilnPlatform::enumFromNumber<FeatureType>(0); }), "");
  EXPECT_NE(rangeErrorOf([] { KilnPlatform::enumFromNumber<FeatureType>(9); }), "");
  EXPECT_NE(rangeErrorOf([] { KilnPlatform::enumFromString<FeatureType>("Mpls"); }), "");
}

TEST(Value, NarrowStatesWidenToTheStateOfTheSameName) {
  const auto resolution = [](int n) {
    return static_cast<int>(translateState(static_cast<ResolutionState::State>(n)));
  };
  const auto hardware = [](int n) {
    return static_cast<int>(translateState(static_cast<EmHwKeyStatus::State>(n)));
  };
  for (int state = 0; state <= 2; ++state) EXPECT_EQ(resolution(state), state);
  const int expected[] = {2, 4, 3, 5};
  for (int state = 0; state <= 3; ++state) EXPECT_EQ(hardware(state), expected[state]);
  EXPECT_DEATH(hardware(4), "Assertion failed");
  EXPECT_DEATH(resolution(3), "Assertion failed");
}

TEST(Value, RecordsAreFalseOnlyWhenAllDefault) {
  EXPECT_FALSE(EmHwEntry{});
  EXPECT_TRUE((EmHwEntry{mplsEntry(0), {}}));
  EXPECT_TRUE((EmHwEntry{{}, mplsHwKey(0)}));
  EXPECT_FALSE(EmRequestStatus{});
  EXPECT_TRUE((EmRequestStatus{{}, {}, {}, EmStatus::hwFail}));
  EXPECT_TRUE((EmRequestStatus{mplsKey(FeatureType::mpls, 0), {}, {}, EmStatus::hwPending}));
}

}  // namespace
}  // namespace KilnTest
