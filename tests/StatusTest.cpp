// From the tables' answers to the statuses that features see.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>

#include "TestSupport.h"
#include "program/EmSwTableStatusSm.h"
#include "program/IsemMplsSwTableWriter.h"
#include "status/EmStatusSm.h"
#include "status/IsemSrvStatusSm.h"
#include "status/ResourceTableSm.h"

namespace KilnTest {
namespace {

using HwState = EmHwKeyStatus::State;
const EmLogicalKey kA = mplsKey(FeatureType::mpls, 1);
const EmLogicalKey kB = mplsKey(FeatureType::evpn, 1);
const EmHwKey kH3 = mplsHwKey(3);

EmRequestStatus tableStatus(const EmLogicalKey& key, const EmHwKey& hwKey,
                            EmStatus state = EmStatus::hwSuccess, const EmConfigEntry& entry = mplsEntry(1)) {
  return {key, entry, hwKey, state};
}

// --- Software-table status
// -----------------------------------------------------------------------------------

struct TableStatusSetUp {
  explicit TableStatusSetUp(std::uint32_t yieldEvery = 0, std::optional<std::uint64_t> seed = std::nullopt)
      : bench(yieldEvery, seed) {}
  void start() {
    stage = bench.create(
        [&] { return emSwTableStatusSmFactory(input, output, "swStatus", bench.status, bench.control()); });
  }
  void answer(const EmHwKey& hwKey, const EmLogicalKey& key, HwState state = HwState::hwSuccess) {
    input->statusIs(hwKey, {{key, mplsEntry(1)}, state});
  }
  Bench bench;
  Ref<EmSwTableStatus> input = std::make_shared<EmSwTableStatus>();
  Ref<EmLogicalKeyToStatus> output = std::make_shared<EmLogicalKeyToStatus>();
  Ref<EmSwTableStatusSm> stage;
};

TEST(SwTableStatus, ANewOwnerReplacesTheOldOne) {
  TableStatusSetUp set;
  set.start();
  set.answer(kH1, kA, HwState::hwFail);
  set.bench.settle();
  EXPECT_EQ(set.output->status(kA), tableStatus(kA, kH1, EmStatus::hwFail));
  const Recorder recorder(set.output->status());
  set.answer(kH1, kA);
  set.bench.settle();
  EXPECT_TRUE(recorder.deletions().empty());
  set.answer(kH1, kB);
  set.bench.settle();
  ASSERT_EQ(recorder.changes.size(), 3u);
  EXPECT_EQ(recorder.changes[1].key, kA);  // deleted before the new owner's is inserted
  EXPECT_EQ(contentOf(set.output->status()),
            (std::map<EmLogicalKey, EmRequestStatus>{{kB, tableStatus(kB, kH1)}}));
  set.input->statusDel(kH1);
  set.bench.settle();
  EXPECT_TRUE(set.output->status().empty());
  EXPECT_EQ(localEntries(*set.stage), 0u);
}

TEST(SwTableStatus, WhenTheLatestOfSeveralGoesAnotherThatStandsTakesItsPlace) {
  TableStatusSetUp set;
  set.start();
  for (const EmHwKey& hwKey : {kH1, kH2, kH3}) {
    set.answer(hwKey, kA);
    set.bench.settle();
  }
  EXPECT_EQ(set.output->status(kA), tableStatus(kA, kH3));
  const Recorder recorder(set.output->status());
  set.input->statusDel(kH3);  // both go before either is handled
  set.input->statusDel(kH2);
  set.bench.settle();
  EXPECT_EQ(set.output->status(kA), tableStatus(kA, kH1));
  EXPECT_TRUE(recorder.deletions().empty());
}

TEST(SwTableStatus, TheLatestAnswerIsPublishedInWhateverOrderChangesAreHandled) {
  TableStatusSetUp set;
  set.start();
  const auto answered = [&](const EmHwKey& hwKey, HwState state, std::uint32_t answer) {
    set.input->statusAgain(hwKey, {{kA, mplsEntry(1)}, state, answer});
  };
  answered(kH1, HwState::hwSuccess, 1);
  set.bench.settle();
  answered(kH1, HwState::hwFail, 2);
  answered(kH2, HwState::hwSuccess, 3);
  answered(kH1, HwState::hwSuccess, 4);  // its change waits already, before that of the other
  set.bench.settle();
  EXPECT_EQ(set.output->status(kA), tableStatus(kA, kH1));
  answered(kH2, HwState::hwFail, 5);
  set.bench.settle();
  EXPECT_EQ(set.output->status(kA), tableStatus(kA, kH2, EmStatus::hwFail));
  answered(kH1, HwState::hwSuccess, 6);  // as it was
  set.bench.settle();
  EXPECT_EQ(set.output->status(kA), tableStatus(kA, kH1));
}

TEST(SwTableStatus, AnotherOwnersStatusIsNotTakenOver) {
  TableStatusSetUp set;
  set.start();
  set.answer(kH1, kA);
  set.bench.settle();
  set.answer(kH2, kA);
  set.bench.settle();
  set.input->statusDel(kH2);
  set.answer(kH1, kB);  // not handled yet when the first change is
  const TraceCapture traces(0);
  set.bench.settle();
  EXPECT_EQ(contentOf(set.output->status()),
            (std::map<EmLogicalKey, EmRequestStatus>{{kB, tableStatus(kB, kH1)}}));
  EXPECT_TRUE(traces.messages().empty());
}

// --- Per-key status
// ------------------------------------------------------------------------------------------

struct KeyStatusSetUp {
  void start() {
    stage = bench.create(
        [&] { return emStatusSmFactory(table, conflict, out, "emStatus", bench.status, bench.control()); });
    bench.settle();
  }
  Bench bench{1};
  Ref<EmLogicalKeyToStatus> table = std::make_shared<EmLogicalKeyToStatus>();
  Ref<EmConflictStatus> conflict = std::make_shared<EmConflictStatus>();
  Ref<EmLogicalKeyToStatus> out = std::make_shared<EmLogicalKeyToStatus>();
  Ref<EmStatusSm> stage;
};

TEST(KeyStatus, TheTablesStatusTakesPrecedence) {
  KeyStatusSetUp set;
  set.start();
  const TraceCapture traces(0);
  const EmRequestStatus refused{kA, mplsEntry(1), kH1, EmStatus::hwKeyConflict};
  const auto expectOut = [&](const std::optional<EmRequestStatus>& expected, std::size_t unexpected) {
    set.bench.settle();
    EXPECT_EQ(set.out->status(kA), expected);
    EXPECT_EQ(traces.count(0, "Unexpected table status"), unexpected);
  };
  set.conflict->statusIs(refused);
  expectOut(refused, 0);
  set.table->statusIs(tableStatus(kA, kH1));
  expectOut(tableStatus(kA, kH1), 1);
  set.conflict->statusIs({kA, mplsEntry(2), kH1, EmStatus::hwKeyConflict});
  expectOut(tableStatus(kA, kH1), 1);  // not looked at from that side
  set.table->statusDel(kA);
  expectOut(EmRequestStatus{kA, mplsEntry(2), kH1, EmStatus::hwKeyConflict}, 1);
  set.conflict->statusDel(kA);
  expectOut(std::nullopt, 1);
  set.table->statusIs(tableStatus(kA, kH2));
  expectOut(tableStatus(kA, kH2), 1);
}

// --- Per-database status
// -------------------------------------------------------------------------------------

using RequestKey = KilnTunnelNiLib::IsemEntryKey;
using Request = KilnTunnelNiLib::IsemSrvConfigEntry;
using Answer = KilnTunnelNiLib::IsemSrvStatusEntry;
using KilnTunnelNiLib::RequestKind;
const auto kRequestKey = requestKeyAs<RequestKey>(kA);

struct FeatureStatusSetUp {
  explicit FeatureStatusSetUp(std::uint32_t yieldEvery = 1) : bench(yieldEvery) {}
  void create() {
    stage = bench.create([&] {
      return isemSrvStatusSmFactory(feature, emStatus, config, status, "isemStatus", bench.status,
                                    bench.control());
    });
  }
  void start() {
    create();
    bench.settle();
  }
  void request(std::uint32_t version, std::uint32_t lif = 1, RequestKind kind = RequestKind::add) {
    config->config().is(kRequestKey, Request{{mplsEntry(lif).emEntry}, version, kind});
    bench.settle();
  }
  void serverSays(std::uint32_t version, EmStatus state, std::uint32_t lif = 1) {
    emStatus->statusIs(tableStatus(kA, kH1, state, mplsEntry(lif, version)));
    bench.settle();
  }
  [[nodiscard]] std::optional<Answer> published() const { return status->status().get(kRequestKey); }
  static Answer answer(std::uint32_t version, EmStatus state) {
    return {kRequestKey, 0, version, 1, state, 1};
  }

  FeatureType feature = FeatureType::mpls;
  Bench bench;
  Ref<EmLogicalKeyToStatus> emStatus = std::make_shared<EmLogicalKeyToStatus>();
  Ref<KilnTunnelNiLib::IsemSrvConfig> config =
      std::make_shared<KilnTunnelNiLib::IsemSrvConfig>(std::make_unique<Collection<RequestKey, Request>>());
  Ref<KilnTunnelNiLib::IsemSrvStatus> status =
      std::make_shared<KilnTunnelNiLib::IsemSrvStatus>(std::make_unique<Collection<RequestKey, Answer>>());
  Ref<IsemSrvStatusSm> stage;
};

TEST(FeatureStatus, OnlyAnswersToTheCurrentRequestArePublished) {
  FeatureStatusSetUp set;
  set.start();
  set.request(1);
  EXPECT_EQ(set.published(), std::nullopt);
  set.serverSays(1, EmStatus::hwSuccess);
  EXPECT_EQ(set.published(), set.answer(1, EmStatus::hwSuccess));
  set.request(2);  // raised: the old answer stays, under its old version
  EXPECT_EQ(set.published(), set.answer(1, EmStatus::hwSuccess));
  set.serverSays(2, EmStatus::hwFail);
  EXPECT_EQ(set.published(), set.answer(2, EmStatus::hwFail));
  set.request(2, 9);  // another entry under the same version
  set.serverSays(2, EmStatus::hwSuccess);
  EXPECT_EQ(set.published(), set.answer(2, EmStatus::hwFail));
  set.serverSays(2, EmStatus::hwSuccess, 9);
  EXPECT_EQ(set.published(), set.answer(2, EmStatus::hwSuccess));
  set.emStatus->statusDel(kA);
  set.bench.settle();
  EXPECT_EQ(set.published(), set.answer(2, EmStatus::hwSuccess));
  set.serverSays(2, EmStatus::hwSuccess, 9);
  set.config->config().del(kRequestKey);
  set.bench.settle();
  EXPECT_TRUE(set.status->status().empty());
}

TEST(FeatureStatus, AHeldRequestIsAnsweredWhateverTheServerHolds) {
  FeatureStatusSetUp set;
  set.start();
  set.request(1);
  set.serverSays(1, EmStatus::hwSuccess);
  set.request(5, 1, RequestKind::hold);
  EXPECT_EQ(set.published(), (Answer{kRequestKey, 0, 5, 1, EmStatus::hwPending, 3}));
  set.serverSays(5, EmStatus::hwFail);
  EXPECT_EQ(set.published()->result, 3);
}

TEST(FeatureStatus, ARequestThatIsLeftOutFailsAndTakesNoOtherRequestsStatus) {
  RequestKey ofOtherDatabase = kRequestKey;
  ofOtherDatabase.emComposerKey = KilnTunnelNiLib::EsemFodoComposerKey{1};
  RequestKey oneCore = kRequestKey;
  oneCore.localCoreId = Hardware::Kiln::LocalCoreId(1);
  for (const RequestKey& key : {ofOtherDatabase, oneCore}) {
    FeatureStatusSetUp set;
    const EmLogicalKey logicalKey = logicalKeyOf(FeatureType::mpls, key);
    set.emStatus->statusIs(tableStatus(logicalKey, kH1, EmStatus::hwSuccess, mplsEntry(1, 3)));
    set.config->config().is(key, Request{{mplsEntry(1).emEntry}, 3, RequestKind::add});
    set.start();
    EXPECT_EQ(set.status->status().get(key), (Answer{key, 0, 3, 1, EmStatus::hwFail, 1}));
    set.config->config().is(key, Request{{mplsEntry(1).emEntry}, 4, RequestKind::modify});
    set.bench.settle();
    EXPECT_EQ(set.status->status().get(key), (Answer{key, 0, 4, 1, EmStatus::hwFail, 1}));
    set.config->config().del(key);
    set.bench.settle();
    EXPECT_TRUE(set.status->status().empty());
  }
  FeatureStatusSetUp set;
  set.start();
  set.request(5, 1, static_cast<RequestKind>(9));
  EXPECT_EQ(set.published(), set.answer(5, EmStatus::hwFail)) << "of a kind that is unknown";
}

TEST(FeatureStatus, OtherFeaturesStatusesNeverArrive) {
  FeatureStatusSetUp set;
  set.start();
  set.request(1);
  set.emStatus->statusIs(tableStatus(kB, kH1));
  set.bench.settle();
  EXPECT_TRUE(set.status->status().empty());
}

// Features are told apart by channels; one that has no name has a channel, too.
TEST(FeatureStatus, EveryNumberOfAFeatureIsServed) {
  for (const int number : {0, 1, 8, 9, 16, 17, 255}) {
    FeatureStatusSetUp set;
    set.feature = static_cast<FeatureType>(number);
    set.config->config().is(kRequestKey, Request{{mplsEntry(1).emEntry}, 1, RequestKind::add});
    const EmLogicalKey key = logicalKeyOf(set.feature, kRequestKey);
    set.emStatus->statusIs(tableStatus(key, kH1));
    set.start();
    EXPECT_EQ(set.published(), set.answer(1, EmStatus::hwSuccess)) << number;
    set.emStatus->statusIs(tableStatus(key, kH1, EmStatus::hwFail));
    set.bench.settle();
    EXPECT_EQ(set.published(), set.answer(1, EmStatus::hwFail)) << number;
  }
}

TEST(FeatureStatus, ARestartShowsNoStatusThatVanishesAndReturns) {
  FeatureStatusSetUp set;
  set.request(1);
  set.status->statusIs(set.answer(1, EmStatus::hwSuccess));
  auto orphan = set.answer(1, EmStatus::hwSuccess);
  orphan.key = requestKeyAs<RequestKey>(mplsKey(FeatureType::mpls, 99));
  set.status->statusIs(orphan);
  const Recorder recorder(set.status->status());
  set.start();
  EXPECT_TRUE(set.bench.completed("isemStatus"));
  set.serverSays(1, EmStatus::hwSuccess);
  EXPECT_EQ(recorder.deletions(), std::vector<RequestKey>{orphan.key});
  EXPECT_EQ(recorder.changes.size(), 1u);
}

// A request may be withdrawn and published again at any moment of a restart, and so may the server's status
// of it: the status that was found is not deleted and inserted again.
TEST(FeatureStatus, ARequestThatIsPublishedAgainDuringARestartKeepsItsStatus) {
  for (const std::uint32_t yieldEvery : {1, 3}) {
    for (std::size_t steps = 0; steps < 40; ++steps) {
      FeatureStatusSetUp set(yieldEvery);
      set.config->config().is(kRequestKey, Request{{mplsEntry(1).emEntry}, 1, RequestKind::add});
      const auto others = [&](std::uint32_t label) {
        return requestKeyAs<RequestKey>(mplsKey(FeatureType::mpls, label));
      };
      for (std::uint32_t label = 50; label < 60; ++label) {
        auto orphan = set.answer(1, EmStatus::hwSuccess);
        orphan.key = others(label);
        set.status->statusIs(orphan);
      }
      set.status->statusIs(set.answer(1, EmStatus::hwSuccess));
      set.create();
      set.bench.scheduler->run(steps);
      const Recorder recorder(set.status->status());
      set.config->config().del(kRequestKey);
      set.config->config().is(kRequestKey, Request{{mplsEntry(1).emEntry}, 1, RequestKind::add});
      set.bench.settle();
      ASSERT_TRUE(recorder.of(kRequestKey).empty()) << "after " << steps << " tasks";
      ASSERT_EQ(set.status->status().size(), 1u);
    }
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

// A new stage counts everything before it judges the rows that an earlier one left.
TEST(ResourceTables, RowsThatAreStillTrueStandThroughARestart) {
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
TEST(ResourceTables, ARowThatChangesAllTheTimeKeepsNoOtherBack) {
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
