// Cases of the status and count stages that tests of the whole server do not reach.
#include <gtest/gtest.h>

#include "kiln/program/EmSwTableStatusSm.h"
#include "kiln/status/IsemSrvStatusSm.h"
#include "kiln/status/ResourceTableSm.h"
#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

using HwState = EmHwKeyStatus::State;
const EmLogicalKey kA = mplsKey(FeatureType::mpls, 1);
const EmLogicalKey kB = mplsKey(FeatureType::evpn, 1);

EmRequestStatus tableStatus(const EmLogicalKey& key, const EmHwKey& hwKey,
                            EmStatus state = EmStatus::hwSuccess) {
  return {key, mplsEntry(1), hwKey, state};
}

// --- Software-table status ---------------------------------------------------------------------------------

TEST(SwTableStatus, LatestAnswerIsPublishedInAnyHandlingOrder) {
  const Bench bench;
  const auto input = std::make_shared<EmSwTableStatus>();
  const auto output = std::make_shared<EmLogicalKeyToStatus>();
  const auto stage = bench.create(
      [&] { return emSwTableStatusSmFactory(input, output, "swStatus", bench.status, bench.control()); });
  const auto answered = [&](const EmHwKey& hwKey, HwState state, std::uint32_t answer) {
    input->status().isAgain(hwKey, {{kA, mplsEntry(1)}, state, answer});
  };
  answered(kH1, HwState::hwSuccess, 1);
  bench.settle();
  answered(kH1, HwState::hwFail, 2);
  answered(kH2, HwState::hwSuccess, 3);
  answered(kH1, HwState::hwSuccess, 4);  // its change is pending before that of the other
  bench.settle();
  EXPECT_EQ(output->status(kA), tableStatus(kA, kH1));
  answered(kH2, HwState::hwFail, 5);
  bench.settle();
  EXPECT_EQ(output->status(kA), tableStatus(kA, kH2, EmStatus::hwFail));
  answered(kH1, HwState::hwSuccess, 6);  // as before
  bench.settle();
  EXPECT_EQ(output->status(kA), tableStatus(kA, kH1));
}

// --- Per-database status -----------------------------------------------------------------------------------

using RequestKey = KilnTunnelNiLib::IsemEntryKey;
using Request = KilnTunnelNiLib::IsemSrvConfigEntry;
using Answer = KilnTunnelNiLib::IsemSrvStatusEntry;
using KilnTunnelNiLib::RequestKind;
const auto kRequestKey = requestKeyAs<RequestKey>(kA);

// Features select partitions; features without a name share one.
TEST(FeatureStatus, UnnamedFeaturesAreServedAndUnknownKindsFail) {
  for (const int number : {0, 1, 8, 9, 16, 17, 255}) {
    const Bench bench(1);
    const auto emStatus = std::make_shared<EmLogicalKeyToStatus>();
    const auto config =
        std::make_shared<KilnTunnelNiLib::IsemSrvConfig>(std::make_unique<Collection<RequestKey, Request>>());
    const auto status =
        std::make_shared<KilnTunnelNiLib::IsemSrvStatus>(std::make_unique<Collection<RequestKey, Answer>>());
    const auto feature = static_cast<FeatureType>(number);
    const auto expectStatus = [&](EmStatus expected) {
      bench.settle();
      EXPECT_EQ(status->status().get(kRequestKey), (Answer{kRequestKey, 0, 1, 1, expected, 1})) << number;
    };
    config->config().is(kRequestKey, Request{{mplsEntry(1).emEntry}, 1, RequestKind::add});
    const EmLogicalKey key = logicalKeyOf(feature, kRequestKey);
    emStatus->statusIs(tableStatus(key, kH1, EmStatus::hwKeyConflict));
    const auto stage = bench.create([&] {
      return isemSrvStatusSmFactory(feature, emStatus, config, status, "isemStatus", bench.status,
                                    bench.control());
    });
    expectStatus(EmStatus::hwKeyConflict);
    emStatus->statusIs(tableStatus(key, kH1));
    expectStatus(EmStatus::hwSuccess);
    config->config().is(kRequestKey, Request{{mplsEntry(1).emEntry}, 1, static_cast<RequestKind>(9)});
    expectStatus(EmStatus::hwFail);
  }
}

// --- The table of resources --------------------------------------------------------------------------------

struct Resources {
  explicit Resources(std::uint32_t yieldEvery) : bench(yieldEvery) {}
  auto start() {
    return bench.create([this] {
      return resourceTableSmFactory(entries, statuses, isem, esem, lem, "resources", bench.status,
                                    bench.control());
    });
  }
  void request(const EmLogicalKey& key) { entries->emLogicalKeyToEntryIs(key, mplsEntry(1)); }
  void status(const EmLogicalKey& key, EmStatus status) {
    statuses->statusIs(key, {key, mplsEntry(1), kH1, status});
  }
  [[nodiscard]] ResourceCounts mpls() const {
    return isem->resource().get("isemMpls").value_or(ResourceCounts{});
  }

  Bench bench;
  Ref<EmLogicalKeyToEntry> entries = std::make_shared<EmLogicalKeyToEntry>();
  Ref<EmLogicalKeyToStatus> statuses = std::make_shared<EmLogicalKeyToStatus>();
  Ref<ResourceTable> isem = std::make_shared<ResourceTable>();
  Ref<ResourceTable> esem = std::make_shared<ResourceTable>();
  Ref<ResourceTable> lem = std::make_shared<ResourceTable>();
};

// A new stage counts everything before it checks the rows of an earlier one.
TEST(ResourceTables, UnchangedRowsSurviveARestart) {
  for (const std::uint32_t yieldEvery : {0U, 1U}) {
    Resources r(yieldEvery);
    auto stage = r.start();
    r.request(kA);
    r.request(kB);
    r.request(fodoKey(1));
    r.status(kA, EmStatus::hwSuccess);
    r.status(kB, EmStatus::hwKeyConflict);
    r.bench.settle();
    EXPECT_EQ(r.mpls(), (ResourceCounts{2, 1, 0, 0}));
    stage.reset();
    r.entries->emLogicalKeyToEntryDel(fodoKey(1));
    r.bench.status->completedDel("resources");
    const Recorder isem(r.isem->resource());
    stage = r.start();
    r.bench.settle();
    EXPECT_TRUE(r.bench.completed("resources"));
    EXPECT_TRUE(isem.changes.empty());
    EXPECT_TRUE(r.esem->resource().empty()) << "nothing of it is requested any more";
  }
}

// Rows are published in the order in which their counts changed, however often one of them changes.
TEST(ResourceTables, BusyRowDoesNotDelayOtherRows) {
  Resources r(1);
  const auto stage = r.start();
  r.request(kA);
  r.bench.settle();
  r.request(fodoKey(1));
  int slices = 0;
  for (; r.esem->resource().empty() && slices < 100; ++slices) {
    r.status(kA, slices % 2 == 0 ? EmStatus::hwSuccess : EmStatus::hwFail);
    r.bench.scheduler->runOne();
  }
  EXPECT_LT(slices, 5);
}

}  // namespace
}  // namespace KilnTest
