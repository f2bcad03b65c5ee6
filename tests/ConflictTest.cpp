// Who wins a hardware key, and what the others are told.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>

#include "TestSupport.h"
#include "program/EmConflictSm.h"

namespace KilnTest {
namespace {

using Feature = FeatureType;

/// The conflict stage, with or without the inputs that tell it about keys without a hardware entry.
struct ConflictSetUp {
  explicit ConflictSetUp(std::uint32_t yieldEvery = 0, std::optional<std::uint64_t> seed = std::nullopt)
      : bench(yieldEvery, seed) {}
  void start(bool withRequests) {
    stage = bench.create([&] {
      return emConflictSmFactory(merged, config, status, "conflict", bench.status, bench.control(),
                                 withRequests ? requests : nullptr, withRequests ? failures : nullptr);
    });
  }
  void place(const EmLogicalKey& key, const EmHwKey& hwKey, const EmConfigEntry& entry = mplsEntry(1)) {
    merged->emMergedEntryIs(key, {entry, hwKey});
  }
  [[nodiscard]] std::optional<EmLogicalKey> winner(const EmHwKey& hwKey) const {
    const auto value = config->config(hwKey);
    return value ? std::optional(value->emLogicalKey) : std::nullopt;
  }

  Bench bench;
  Ref<EmMergedEntry> merged = std::make_shared<EmMergedEntry>();
  Ref<EmSwTableConfig> config = std::make_shared<EmSwTableConfig>();
  Ref<EmConflictStatus> status = std::make_shared<EmConflictStatus>();
  Ref<EmLogicalKeyToEntry> requests = std::make_shared<EmLogicalKeyToEntry>();
  Ref<EmComposeFailureByComposerType> failures = std::make_shared<EmComposeFailureByComposerType>();
  Ref<EmConflictSm> stage;
};

EmRequestStatus lost(const EmLogicalKey& key, const EmHwKey& hwKey,
                     const EmConfigEntry& entry = mplsEntry(1)) {
  return {key, entry, hwKey, EmStatus::hwKeyConflict};
}

const EmHwKey kD1 = mplsHwKey(1, FapId(4), LocalCoreId(2));  ///< of one core; its twin is kH1

TEST(Conflict, TheGreaterFeatureWinsAndItsGoingHandsOver) {
  ConflictSetUp set;
  set.start(false);
  const auto low = mplsKey(Feature::bridging, 1);
  const auto low2 = mplsKey(Feature::bridging, 2);
  const auto high = mplsKey(Feature::srv6, 1);
  set.place(low, kH1);
  set.place(low2, kH1, mplsEntry(3));
  set.place(high, kH1);
  set.bench.settle();
  EXPECT_EQ(set.winner(kH1), high);
  EXPECT_EQ(contentOf(set.status->status()),
            (std::map<EmLogicalKey, EmRequestStatus>{{low, lost(low, kH1)},
                                                     {low2, lost(low2, kH1, mplsEntry(3))}}));
  set.place(low2, kH1, mplsEntry(3, 2));  // a loser's new version
  set.bench.settle();
  EXPECT_EQ(set.status->status(low2), lost(low2, kH1, mplsEntry(3, 2)));
  const Recorder recorder(set.config->config());
  set.merged->emMergedEntryDel(high);
  set.bench.settle();
  EXPECT_EQ(set.winner(kH1), low);
  EXPECT_TRUE(recorder.deletions().empty());
  EXPECT_FALSE(set.status->statusHas(low));
  EXPECT_TRUE(set.status->statusHas(low2));
}

TEST(Conflict, TheFirstCandidateWinsTies) {
  FeatureTypeLogicalKeySet a(Feature::mpls);
  FeatureTypeLogicalKeySet b(Feature::mpls);
  a.logicalKeyToEntryIs(mplsKey(Feature::mpls, 5), mplsEntry(1));
  b.logicalKeyToEntryIs(mplsKey(Feature::mpls, 4), mplsEntry(1));
  EXPECT_EQ(getHighestPriorityKey(&a, &b)->emLogicalKey, mplsKey(Feature::mpls, 5));
  EXPECT_EQ(getHighestPriorityKey(nullptr, &b)->emLogicalKey, mplsKey(Feature::mpls, 4));
  EXPECT_EQ(getHighestPriorityKey(nullptr, nullptr), std::nullopt);
}

TEST(Conflict, AMovedKeyIsFiledAnewBeforeItLeaves) {
  ConflictSetUp set;
  set.start(false);
  const auto moving = mplsKey(Feature::srv6, 1);
  const auto other1 = mplsKey(Feature::mpls, 1);
  const auto other2 = mplsKey(Feature::mirroring, 2);
  set.place(moving, kH1);
  set.place(other1, kH1);
  set.place(other2, kH2);
  set.bench.settle();
  const Recorder recorder(set.config->config());
  set.place(moving, kH2);
  set.bench.settle();
  EXPECT_EQ(set.winner(kH1), other1);
  EXPECT_EQ(set.winner(kH2), other2);
  EXPECT_EQ(contentOf(set.status->status()),
            (std::map<EmLogicalKey, EmRequestStatus>{{moving, lost(moving, kH2)}}));
  set.merged->emMergedEntryDel(other2);
  set.bench.settle();
  set.place(moving, mplsHwKey(3));
  set.bench.settle();
  EXPECT_EQ(set.winner(kH2), std::nullopt);
  EXPECT_EQ(recorder.changes.back().key, kH2);  // the new key first, then the old one
  EXPECT_EQ(recorder.changes[recorder.changes.size() - 2].key, mplsHwKey(3));
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

TEST(Conflict, ADivergentKeyCompetesWithItsTwin) {
  ConflictSetUp set;
  set.start(false);
  const auto own = mplsKey(Feature::mpls, 1, FapId(4), LocalCoreId(2));
  const auto all = mplsKey(Feature::srv6, 1);
  set.place(all, kH1);
  set.bench.settle();
  EXPECT_EQ(set.winner(kD1), std::nullopt);  // nobody asks for just that core
  set.place(own, kD1);
  set.bench.settle();
  EXPECT_EQ(set.winner(kH1), all);
  EXPECT_EQ(set.winner(kD1), all);
  EXPECT_EQ(set.status->status(own), lost(own, kD1));
  set.place(all, kH1, mplsEntry(8));
  set.bench.settle();
  EXPECT_EQ(set.config->config(kD1)->emEntry, mplsEntry(8));
  set.merged->emMergedEntryDel(all);
  set.bench.settle();
  EXPECT_EQ(set.winner(kH1), std::nullopt);
  EXPECT_EQ(set.winner(kD1), own);
  EXPECT_FALSE(set.status->statusHas(own));
  set.place(mplsKey(Feature::mpls, 0), kH1);  // a tie: the key's own contender
  set.bench.settle();
  EXPECT_EQ(set.winner(kD1), own);
  set.merged->emMergedEntryDel(own);
  set.bench.settle();
  EXPECT_EQ(set.winner(kD1), std::nullopt);
}

// --- Keys without a hardware entry -------------------------------------------------------------------------

TEST(Conflict, AloneTheStageGivesKeysWithoutHardwareEntryADefaultStatus) {
  ConflictSetUp set;
  set.start(false);
  const auto key = mplsKey(Feature::mpls, 1);
  set.place(key, kH1);
  set.bench.settle();
  set.merged->emMergedEntryDel(key);
  set.bench.settle();
  EXPECT_EQ(set.winner(kH1), std::nullopt);
  EXPECT_EQ(set.status->status(key), (EmRequestStatus{key, {}, {}, EmStatus::hwPending}));
  set.place(key, kH1);
  set.bench.settle();
  EXPECT_TRUE(set.status->status().empty());
}

TEST(Conflict, RequestedKeysAreToldThatTheyWaitOrFailed) {
  ConflictSetUp set;
  set.start(true);
  const auto key = mplsKey(Feature::mpls, 1);
  const auto statusOf = [&] { return set.status->status(key); };
  const auto unplaced = [&](EmStatus state, std::uint32_t version) {
    return EmRequestStatus{key, mplsEntry(1, version), {}, state};
  };
  set.requests->emLogicalKeyToEntryIs(key, mplsEntry(1, 1));
  set.bench.settle();
  EXPECT_EQ(statusOf(), unplaced(EmStatus::hwPending, 1));
  set.requests->emLogicalKeyToEntryIs(key, mplsEntry(1, 2));
  set.bench.settle();
  EXPECT_EQ(statusOf(), unplaced(EmStatus::hwPending, 2));
  set.failures->configIs(kMplsType)->failureIs(key, "does not fit");
  set.bench.settle();
  EXPECT_EQ(statusOf(), unplaced(EmStatus::hwFail, 2));
  set.requests->emLogicalKeyToEntryIs(key, mplsEntry(1, 3));
  set.bench.settle();
  EXPECT_EQ(statusOf(), unplaced(EmStatus::hwFail, 3));
  set.failures->configIs(kMplsType)->failureDel(key);
  set.place(key, kH1, mplsEntry(1, 3));
  set.bench.settle();
  EXPECT_EQ(statusOf(), std::nullopt);
  set.merged->emMergedEntryDel(key);  // its domain is withdrawn from under it
  set.bench.settle();
  EXPECT_EQ(statusOf(), unplaced(EmStatus::hwPending, 3));
  set.requests->emLogicalKeyToEntryDel(key);
  set.bench.settle();
  EXPECT_TRUE(set.status->status().empty());
  EXPECT_EQ(localEntries(*set.stage), 0u);
}

TEST(Conflict, AKeyThatComposesAtOnceIsNeverPending) {
  ConflictSetUp set(1);
  set.start(true);
  set.bench.settle();
  const Recorder recorder(set.status->status());
  for (std::uint32_t label = 1; label <= 5; ++label) {
    set.requests->emLogicalKeyToEntryIs(mplsKey(Feature::mpls, label), mplsEntry(1));
  }
  set.bench.scheduler->run(5);  // the requests are seen, but not yet that they compose
  for (std::uint32_t label = 1; label <= 4; ++label)
    set.place(mplsKey(Feature::mpls, label), mplsHwKey(label));
  set.bench.settle();
  ASSERT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(recorder.changes[0].key, mplsKey(Feature::mpls, 5));
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

TEST(Conflict, TeardownWithdrawsAndForgetsWhoWaits) {
  ConflictSetUp set(1);
  set.start(true);
  set.bench.settle();
  set.place(mplsKey(Feature::mpls, 1), kH1);
  set.place(mplsKey(Feature::bridging, 1), kH1);
  set.requests->emLogicalKeyToEntryIs(mplsKey(Feature::mpls, 7), mplsEntry(1));
  set.bench.scheduler->run(3);  // the events are handled; one key waits to be told
  ASSERT_FALSE(set.bench.scheduler->idle());
  set.stage->doDeleteAll();
  set.bench.settle();
  EXPECT_TRUE(set.config->config().empty());
  EXPECT_TRUE(set.status->status().empty());
}

// --- Against a recompute -----------------------------------------------------------------------------------

struct Decided {
  std::map<EmHwKey, EmLogicalKeyAndEntry> config;
  std::map<EmLogicalKey, EmRequestStatus> status;
};

bool beats(const EmLogicalKey& a, const EmLogicalKey& b) {
  return a.featureType != b.featureType ? a.featureType > b.featureType : a < b;
}

/// What the stage must arrive at, from its inputs alone.
Decided recompute(const ConflictSetUp& set) {
  const auto merged = contentOf(set.merged->emMergedEntry());
  Decided decided;
  for (const auto& [key, value] : merged) {
    const auto [at, first] =
        decided.config.try_emplace(value.emHwKey, EmLogicalKeyAndEntry{key, value.emEntry});
    if (!first && beats(key, at->second.emLogicalKey)) at->second = {key, value.emEntry};
  }
  for (auto& [hwKey, winner] : decided.config) {
    const auto twin = decided.config.find(convergentTwin(hwKey));
    if (twin == decided.config.end() || twin->first == hwKey) continue;
    if (twin->second.emLogicalKey.featureType > winner.emLogicalKey.featureType) winner = twin->second;
  }
  for (const auto& [key, value] : merged) {
    if (decided.config.at(value.emHwKey).emLogicalKey != key) {
      decided.status[key] = lost(key, value.emHwKey, value.emEntry);
    }
  }
  for (const auto& [key, entry] : contentOf(set.requests->emLogicalKeyToEntry())) {
    if (merged.contains(key)) continue;
    const bool failed = set.failures->configIs(kMplsType)->failureHas(key);
    decided.status[key] = {key, entry, {}, failed ? EmStatus::hwFail : EmStatus::hwPending};
  }
  return decided;
}

void changeSomething(ConflictSetUp& set, std::mt19937& random) {
  // A key and all that it composes to are of one chip and core.
  const std::uint32_t core = below(random, 4);
  const FapId fap = core < 2 ? FapId::allFap() : FapId(4);
  const LocalCoreId coreId = core < 2 ? LocalCoreId::all() : LocalCoreId(core);
  const auto key = mplsKey(static_cast<Feature>(1 + below(random, 3)), below(random, 4), fap, coreId);
  const auto entry = mplsEntry(below(random, 2));
  const auto failure = set.failures->configIs(kMplsType);
  switch (random() % 7) {
    case 0:
      set.merged->emMergedEntryDel(key);
      break;
    case 1:
      set.merged->emMergedEntryDel(key);
      set.requests->emLogicalKeyToEntryDel(key);
      break;
    case 2:
      failure->failureHas(key) ? failure->failureDel(key) : failure->failureIs(key, "no");
      break;
    default:
      set.requests->emLogicalKeyToEntryIs(key, entry);
      if (random() % 4 != 0) set.place(key, mplsHwKey(below(random, 2), fap, coreId), entry);
  }
}

// With a restart in the middle, during which things change as well. A winner that is the same before and
// after is never withdrawn, nor is a loser's status that stands.
TEST(Conflict, AgreesWithARecomputeThroughRestarts) {
  for (unsigned seed = 0; seed < 300; ++seed) {
    std::mt19937 random(seed);
    ConflictSetUp set(below(random, 3), seed);
    set.start(true);
    for (int round = 0; round < 4; ++round) {
      for (int step = 0; step < 25; ++step) {
        changeSomething(set, random);
        set.bench.scheduler->run(random() % 4);
      }
      set.bench.settle();
      const Decided before = recompute(set);
      ASSERT_EQ(contentOf(set.config->config()), before.config) << "seed " << seed;
      ASSERT_EQ(contentOf(set.status->status()), before.status) << "seed " << seed;
      set.stage.reset();
      if (round % 2 == 0) {
        for (int step = 0; step < 5; ++step) changeSomething(set, random);
      }
      const Decided after = recompute(set);
      const Recorder config(set.config->config());
      const Recorder status(set.status->status());
      set.start(true);
      if (round >= 2) continue;
      set.bench.settle();
      for (const auto& hwKey : config.deletions())
        ASSERT_FALSE(after.config.contains(hwKey)) << "seed " << seed;
      for (const auto& key : status.deletions()) ASSERT_FALSE(after.status.contains(key)) << "seed " << seed;
      if (round == 1) {
        ASSERT_TRUE(status.changes.empty()) << "seed " << seed;
      }
    }
    set.merged->emMergedEntryDelAll();
    set.requests->emLogicalKeyToEntryDelAll();
    set.failures->configIs(kMplsType)->failureDelAll();
    set.bench.settle();
    ASSERT_EQ(localEntries(*set.stage), 0u) << "seed " << seed;
    ASSERT_TRUE(set.config->config().empty() && set.status->status().empty()) << "seed " << seed;
  }
}

}  // namespace
}  // namespace KilnTest
