// Cases of the conflict stage that tests of the whole server do not reach: ties, missing inputs, timing and
// the end of the stage.
#include <gtest/gtest.h>

#include "kiln/program/EmConflictSm.h"
#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

using Feature = FeatureType;

/// The conflict stage, with or without the optional inputs about keys without a hardware entry.
struct ConflictSetUp {
  explicit ConflictSetUp(std::uint32_t yieldEvery = 0) : bench(yieldEvery) {}
  void start(bool withRequests) {
    stage = bench.create([&] {
      return emConflictSmFactory(merged, config, status, "conflict", bench.status, bench.control(),
                                 withRequests ? requests : nullptr, withRequests ? failures : nullptr);
    });
  }
  void place(const EmLogicalKey& key, const EmHwKey& hwKey, const EmConfigEntry& entry = mplsEntry(1)) {
    merged->emMergedEntryIs(key, {entry, hwKey});
  }

  Bench bench;
  Ref<EmMergedEntry> merged = std::make_shared<EmMergedEntry>();
  Ref<EmSwTableConfig> config = std::make_shared<EmSwTableConfig>();
  Ref<EmConflictStatus> status = std::make_shared<EmConflictStatus>();
  Ref<EmLogicalKeyToEntry> requests = std::make_shared<EmLogicalKeyToEntry>();
  Ref<EmComposeFailureByComposerType> failures = std::make_shared<EmComposeFailureByComposerType>();
  Ref<EmConflictSm> stage;
};

TEST(Conflict, TheFirstCandidateWinsTies) {
  FeatureTypeLogicalKeySet a(Feature::mpls);
  FeatureTypeLogicalKeySet b(Feature::mpls);
  a.logicalKeyToEntryIs(mplsKey(Feature::mpls, 5), mplsEntry(1));
  b.logicalKeyToEntryIs(mplsKey(Feature::mpls, 4), mplsEntry(1));
  EXPECT_EQ(getHighestPriorityKey(&a, &b)->emLogicalKey, mplsKey(Feature::mpls, 5));
  EXPECT_EQ(getHighestPriorityKey(nullptr, &b)->emLogicalKey, mplsKey(Feature::mpls, 4));
  EXPECT_EQ(getHighestPriorityKey(nullptr, nullptr), std::nullopt);
}

TEST(ConflictDeathTest, MixedChipAndCoreIsFatal) {
  for (const EmHwKey& mixed :
       {mplsHwKey(1, FapId::allFap(), LocalCoreId(0)), mplsHwKey(1, FapId(1), LocalCoreId::all())}) {
    ConflictSetUp set;
    set.start(false);
    set.place(mplsKey(Feature::mpls, 1), mixed);
    EXPECT_DEATH(set.bench.settle(),
                 "request must be fap/core convergent or fap/core divergent \\(stage conflict");
  }
}

// --- Keys without a hardware entry -------------------------------------------------------------------------

TEST(Conflict, WithoutOptionalInputsAKeyWithoutHardwareEntryHasADefaultStatus) {
  ConflictSetUp set;
  set.start(false);
  const auto key = mplsKey(Feature::mpls, 1);
  set.place(key, kH1);
  set.bench.settle();
  set.merged->emMergedEntryDel(key);
  set.bench.settle();
  EXPECT_TRUE(set.config->config().empty());
  EXPECT_EQ(set.status->status(key), (EmRequestStatus{key, {}, {}, EmStatus::hwPending}));
  const TraceCapture traces(7);
  set.place(key, kH1);
  set.bench.settle();
  EXPECT_TRUE(set.status->status().empty());
  EXPECT_EQ(traces.countOfText("into( emConflictStatus.status[ emLogicalKey ] ): deleting k1={}"), 1u);
  EXPECT_EQ(traces.countOfText("into( emConflictStatus.status[ logicalKey ] ): deleting k1={}"), 1u);
}

TEST(Conflict, ChurnCannotStarveAPendingStatus) {
  ConflictSetUp set(1);
  set.start(true);
  set.bench.settle();
  const auto waiting = mplsKey(Feature::mpls, 1);
  set.requests->emLogicalKeyToEntryIs(waiting, mplsEntry(1));
  std::uint32_t runs = 0;
  while (!set.status->statusHas(waiting) && runs < 3 * EmConflictSm::kPendingPatience) {
    set.place(mplsKey(Feature::mpls, 2), kH2, mplsEntry(++runs));
    set.bench.scheduler->run(1);
  }
  EXPECT_TRUE(set.status->statusHas(waiting));
  EXPECT_GT(runs, EmConflictSm::kPendingPatience / 2);
}

TEST(Conflict, TeardownWithdrawsStatusesAndDropsWaitingKeys) {
  ConflictSetUp set(1);
  set.start(true);
  set.bench.settle();
  set.place(mplsKey(Feature::mpls, 1), kH1);
  set.place(mplsKey(Feature::bridging, 1), kH1);
  set.requests->emLogicalKeyToEntryIs(mplsKey(Feature::mpls, 7), mplsEntry(1));
  set.bench.scheduler->run(3);  // the events are handled; one key waits for its status
  ASSERT_FALSE(set.bench.scheduler->idle());
  set.stage->doDeleteAll();
  set.bench.settle();
  EXPECT_TRUE(set.config->config().empty());
  EXPECT_TRUE(set.status->status().empty());
}

}  // namespace
}  // namespace KilnTest
