// The request check of the agent's store: which requests are refused, and with which text.
#include "kiln/server/CheckRequest.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

using namespace KilnTunnelNiLib;

struct Case {
  EmComposerKey key;
  EmEntry entry;
  const char* problem;  ///< null if the request is valid
  RequestKind kind = RequestKind::add;
  std::uint16_t fap = 0x7FE;
  std::uint8_t core = 5;
};

template <class Db>
std::string checked(const Case& request) {
  const typename Db::EntryKey key{FapId(request.fap), LocalCoreId(request.core), request.key};
  return checkRequest<Db>(key, {{request.entry}, 1, request.kind}).value_or("");
}

class CheckRequest : public testing::TestWithParam<Case> {};
TEST_P(CheckRequest, DescribesTheProblem) {
  const auto tag = GetParam().key.tag();
  const EmType database = tag == EmComposerKeyUnionTag::undefined_ ? EmType::isem : emTypeOf(tag);
  const std::string problem = database == EmType::lem    ? checked<Lem>(GetParam())
                              : database == EmType::esem ? checked<Esem>(GetParam())
                                                         : checked<Isem>(GetParam());
  EXPECT_EQ(problem, GetParam().problem == nullptr ? "" : GetParam().problem);
}

const EmEntry kMpls = IsemMplsEntry{};
const EmEntry kVpws = LemVpwsAcEntry{};
INSTANTIATE_TEST_SUITE_P(
    Door, CheckRequest,
    testing::Values(
        Case{IsemMplsComposerKey{0xffffffff, 255}, kMpls, nullptr},
        Case{IsemMplsComposerKey{}, kMpls, nullptr, RequestKind::hold, 3, 2},
        Case{Isem1TagComposerKey{1, 1, 4095}, Isem1TagEntry{}, nullptr},
        Case{Isem1TagComposerKey{1, 1, 5000}, Isem1TagEntry{},
             "vlanId is 5000, but the hardware holds at most 4095"},
        Case{Isem2TagComposerKey{1, 1, 0, 4096}, Isem2TagEntry{},
             "innerVlanId is 4096, but the hardware holds at most 4095"},
        Case{Isem2TagComposerKey{1, 1, 4096, 4096}, Isem2TagEntry{},
             "outerVlanId is 4096, but the hardware holds at most 4095"},
        Case{EsemFodoVdComposerKey{1, 1, 0x40000}, EsemFodoVdEntry{},
             "fodoId is 262144, but the hardware holds at most 262143"},
        Case{EsemFodoComposerKey{0x40000}, EsemFodoEntry{},
             "fodoId is 262144, but the hardware holds at most 262143"},
        Case{LemVpwsAcComposerKey{0xfffff, 4095, 4095, 7, 7}, kVpws, nullptr},
        Case{LemVpwsAcComposerKey{0x100000, 0, 0, 0, 0}, kVpws,
             "inLif is 1048576, but the hardware holds at most 1048575"},
        Case{LemVpwsAcComposerKey{0, 0, 0, 0, 8}, kVpws, "innerPcp is 8, but the hardware holds at most 7"},
        Case{EmComposerKey{}, kMpls, "the key names no table"},
        Case{IsemMplsComposerKey{}, IsemInnerEthEntry{},
             "the entry is of isemInnerEthEntry, but the key is of isemMplsEntryKey"},
        Case{IsemMplsComposerKey{}, EmEntry{},
             "the entry is of undefined, but the key is of isemMplsEntryKey"},
        Case{IsemMplsComposerKey{}, kMpls, "request kind 3 is unknown", static_cast<RequestKind>(3)},
        Case{IsemMplsComposerKey{}, kMpls,
             "fapId 2046 and localCoreId 1: either both must be \"all\" or both specific", RequestKind::add,
             0x7FE, 1},
        Case{IsemMplsComposerKey{}, kMpls,
             "fapId 1 and localCoreId 5: either both must be \"all\" or both specific", RequestKind::add, 1,
             5},
        Case{IsemMplsComposerKey{}, kMpls, "fapId 2047 is no chip", RequestKind::add, 0x7FF, 1},
        Case{IsemMplsComposerKey{}, kMpls, "localCoreId 6 is no core", RequestKind::add, 1, 6}));

TEST(CheckRequest, AKeyOfAnotherDatabaseIsRefused) {
  EXPECT_EQ(checked<Lem>({IsemMplsComposerKey{}, kMpls, nullptr}),
            "isemMplsEntryKey is a key of the isem database, not of lem");
}

}  // namespace
}  // namespace KilnTest
