// Each kind of stage starts again over the output that it left: what is stale goes, what still holds is never
// touched, and the result is that of a stage that starts from nothing.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "TestSupport.h"
#include "compose/ComposerOutputMergeSm.h"
#include "compose/ComposerSelectorSm.h"
#include "compose/SwKeyTranslationSm.h"
#include "intake/EmSrvConfigMergeSm.h"
#include "intake/LemSrvConfigSm.h"
#include "program/EmConflictSm.h"
#include "program/EmKeyMergeSm.h"
#include "program/EmSwTableStatusSm.h"
#include "status/EmStatusSm.h"
#include "status/IsemSrvStatusSm.h"

namespace KilnTest {
namespace {

using namespace KilnTunnelNiLib;
constexpr auto kFodoType = EmComposerKeyUnionTag::esemFodoEntryKey;
EmLogicalKey keyOf(std::uint32_t n) {
  return mplsKey(FeatureType::mpls, n);
}

// Each kind: what item `n` with value `v` is in its input, how the stage is made over an output, and which
// collection of the output counts.

struct Intake {
  Intake() { byFeature->lemConfigIs(FeatureType::vpws, lem); }
  using Output = EmSrvConfig;
  Ref<Output> output() const { return std::make_shared<Output>(EmType::lem); }
  static LemEntryKey keyOf(std::uint32_t n) {
    return {FapId::allFap(), LocalCoreId::all(), LemVpwsAcComposerKey{n, 0, 0, 0, 0}};
  }
  void put(std::uint32_t n, std::uint32_t v) {
    lem->config().is(keyOf(n), {{LemVpwsAcEntry{v, 0, 0}}, v, RequestKind::add});
  }
  void drop(std::uint32_t n) { lem->config().del(keyOf(n)); }
  auto make(const Bench& bench, const Ref<Output>& out) const {
    return lemSrvConfigSmFactory(byFeature, out, "stage", bench.status, bench.scheduler, 3);
  }
  static const auto& of(const Output& out) { return out.emLogicalKeyToEntry(); }
  Ref<LemSrvConfigByFeature> byFeature = std::make_shared<LemSrvConfigByFeature>();
  Ref<LemSrvConfig> lem =
      std::make_shared<LemSrvConfig>(std::make_unique<Collection<LemEntryKey, LemSrvConfigEntry>>());
};

struct ConfigMergeKind {
  using Output = EmLogicalKeyToEntry;
  Ref<Output> output() const { return std::make_shared<Output>(); }
  void put(std::uint32_t n, std::uint32_t v) {
    input->configIs(EmType::isem)->emLogicalKeyToEntryIs(keyOf(n), mplsEntry(v));
  }
  void drop(std::uint32_t n) { input->configIs(EmType::isem)->emLogicalKeyToEntryDel(keyOf(n)); }
  auto make(const Bench& bench, const Ref<Output>& out) const {
    return emSrvConfigMergeSmFactory(input, out, "stage", bench.status, bench.scheduler, 3);
  }
  static const auto& of(const Output& out) { return out.emLogicalKeyToEntry(); }
  Ref<EmTypeToConfig> input = std::make_shared<EmTypeToConfig>();
};

struct Selector {
  using Output = EmLogicalKeyConfig;
  Ref<Output> output() const { return std::make_shared<Output>(kMplsType); }
  void put(std::uint32_t n, std::uint32_t v) {
    input->emLogicalKeyToEntryIs(keyOf(n), mplsEntry(v));
    input->emLogicalKeyToEntryIs(fodoKey(n), mplsEntry(v));
  }
  void drop(std::uint32_t n) { input->emLogicalKeyToEntryDel(keyOf(n)); }
  auto make(const Bench& bench, const Ref<Output>& out) const {
    return composerSelectorSmFactory(kMplsType, input, out, "stage", bench.status, bench.control());
  }
  static const auto& of(const Output& out) { return out.request(); }
  Ref<EmLogicalKeyToEntry> input = std::make_shared<EmLogicalKeyToEntry>();
};

/// The translator's hardware keys, or its failure records: even items do not fit.
template <bool failures>
struct Translation {
  struct Output {
    SwTableKeyConfig keys{kFodoType};
    EmComposeFailure failed{kFodoType};
  };
  Ref<Output> output() const { return std::make_shared<Output>(); }
  static EmLogicalKey fodo(std::uint32_t n) { return fodoKey(n % 2 == 0 ? 0x40000 + n : n); }
  void put(std::uint32_t n, std::uint32_t /*v*/) { input->requestIs(fodo(n)); }
  void drop(std::uint32_t n) { input->requestDel(fodo(n)); }
  auto make(const Bench& bench, const Ref<Output>& out) const {
    return swKeyTranslationSmFactory(kFodoType, input, Ref<SwTableKeyConfig>(out, &out->keys), "stage",
                                     bench.status, bench.control(), Ref<EmComposeFailure>(out, &out->failed));
  }
  static const auto& of(const Output& out) {
    if constexpr (failures) {
      return out.failed.failure();
    } else {
      return out.keys.emLogicalKeyToResolvedKey();
    }
  }
  Ref<EmLogicalKeyConfig> input = std::make_shared<EmLogicalKeyConfig>(kFodoType);
};

struct OutputMerge {
  using Output = ResolvedKeyColl;
  Ref<Output> output() const { return std::make_shared<Output>(); }
  void put(std::uint32_t n, std::uint32_t v) {
    input->configIs(kMplsType)->emLogicalKeyToResolvedKeyIs(keyOf(n), mplsHwKey(v));
  }
  void drop(std::uint32_t n) { input->configIs(kMplsType)->emLogicalKeyToResolvedKeyDel(keyOf(n)); }
  auto make(const Bench& bench, const Ref<Output>& out) const {
    return composerOutputMergeSmFactory(input, out, "stage", bench.status, bench.control());
  }
  static const auto& of(const Output& out) { return out.emLogicalKeyToResolvedKey(); }
  Ref<SwTableKeyConfigByComposerType> input = std::make_shared<SwTableKeyConfigByComposerType>();
};

struct KeyMerge {
  using Output = EmMergedEntry;
  Ref<Output> output() const { return std::make_shared<Output>(); }
  void put(std::uint32_t n, std::uint32_t v) {
    entries->emLogicalKeyToEntryIs(keyOf(n), mplsEntry(v));
    keys->emLogicalKeyToResolvedKeyIs(keyOf(n), mplsHwKey(n));
  }
  /// One side suffices.
  void drop(std::uint32_t n) {
    if (n % 2 == 0) entries->emLogicalKeyToEntryDel(keyOf(n));
    if (n % 2 == 1) keys->emLogicalKeyToResolvedKeyDel(keyOf(n));
  }
  auto make(const Bench& bench, const Ref<Output>& out) const {
    return emKeyMergeSmFactory(keys, entries, out, "stage", bench.status, bench.control());
  }
  static const auto& of(const Output& out) { return out.emMergedEntry(); }
  Ref<ResolvedKeyColl> keys = std::make_shared<ResolvedKeyColl>();
  Ref<EmLogicalKeyToEntry> entries = std::make_shared<EmLogicalKeyToEntry>();
};

struct TableStatus {
  using Output = EmLogicalKeyToStatus;
  Ref<Output> output() const { return std::make_shared<Output>(); }
  void put(std::uint32_t n, std::uint32_t v) {
    input->statusIs(mplsHwKey(n), {{keyOf(n), mplsEntry(v)}, EmHwKeyStatus::State::hwSuccess});
  }
  void drop(std::uint32_t n) { input->statusDel(mplsHwKey(n)); }
  auto make(const Bench& bench, const Ref<Output>& out) const {
    return emSwTableStatusSmFactory(input, out, "stage", bench.status, bench.control());
  }
  static const auto& of(const Output& out) { return out.status(); }
  Ref<EmSwTableStatus> input = std::make_shared<EmSwTableStatus>();
};

struct KeyStatus {
  using Output = EmLogicalKeyToStatus;
  Ref<Output> output() const { return std::make_shared<Output>(); }
  void put(std::uint32_t n, std::uint32_t v) {
    const EmRequestStatus status{keyOf(n), mplsEntry(v), mplsHwKey(n), EmStatus::hwFail};
    if (n % 2 == 0) table->statusIs(status);
    if (n % 2 == 1) conflict->statusIs(status);
  }
  void drop(std::uint32_t n) {
    table->statusDel(keyOf(n));
    conflict->statusDel(keyOf(n));
  }
  auto make(const Bench& bench, const Ref<Output>& out) const {
    return emStatusSmFactory(table, conflict, out, "stage", bench.status, bench.control());
  }
  static const auto& of(const Output& out) { return out.status(); }
  Ref<EmLogicalKeyToStatus> table = std::make_shared<EmLogicalKeyToStatus>();
  Ref<EmConflictStatus> conflict = std::make_shared<EmConflictStatus>();
};

struct FeatureStatus {
  using Output = IsemSrvStatus;
  Ref<Output> output() const {
    return std::make_shared<Output>(std::make_unique<Collection<IsemEntryKey, IsemSrvStatusEntry>>());
  }
  void put(std::uint32_t n, std::uint32_t v) {
    config->config().is(requestKeyAs<IsemEntryKey>(keyOf(n)), {{mplsEntry(v).emEntry}, v, RequestKind::add});
    emStatus->statusIs({keyOf(n), mplsEntry(v, v), mplsHwKey(n), EmStatus::hwSuccess});
  }
  void drop(std::uint32_t n) { config->config().del(requestKeyAs<IsemEntryKey>(keyOf(n))); }
  auto make(const Bench& bench, const Ref<Output>& out) const {
    return isemSrvStatusSmFactory(FeatureType::mpls, emStatus, config, out, "stage", bench.status,
                                  bench.control());
  }
  static const auto& of(const Output& out) { return out.status(); }
  Ref<EmLogicalKeyToStatus> emStatus = std::make_shared<EmLogicalKeyToStatus>();
  Ref<IsemSrvConfig> config =
      std::make_shared<IsemSrvConfig>(std::make_unique<Collection<IsemEntryKey, IsemSrvConfigEntry>>());
};

template <class Kind>
class RestartedStage : public testing::Test {};
using StageKinds = testing::Types<Intake, ConfigMergeKind, Selector, Translation<false>, Translation<true>,
                                  OutputMerge, KeyMerge, TableStatus, KeyStatus, FeatureStatus>;
TYPED_TEST_SUITE(RestartedStage, StageKinds);

TYPED_TEST(RestartedStage, TouchesOnlyWhatChanged) {
  for (const std::uint32_t yieldEvery : {0u, 1u}) {
    const Bench bench(yieldEvery);
    TypeParam kind;
    const auto out = kind.output();
    const auto& collection = TypeParam::of(*out);
    for (std::uint32_t n = 1; n <= 8; ++n) kind.put(n, n);
    auto stage = bench.create([&] { return kind.make(bench, out); });
    bench.settle();
    ASSERT_TRUE(bench.completed("stage"));
    const auto before = contentOf(collection);
    ASSERT_GE(before.size(), 4u);

    stage.reset();
    EXPECT_EQ(contentOf(collection), before);
    bench.status->completedDel("stage");
    kind.drop(5);
    kind.drop(6);
    kind.put(3, 30);
    kind.put(9, 9);
    kind.put(10, 10);
    const Recorder recorder(collection);
    stage = bench.create([&] { return kind.make(bench, out); });
    if (yieldEvery == 1) {
      EXPECT_FALSE(bench.completed("stage"));
      bench.scheduler->run(3);
      kind.drop(8);  // while it scans
      kind.put(2, 2);
    } else {
      kind.drop(8);
    }
    bench.settle();
    ASSERT_TRUE(bench.completed("stage"));

    const auto fresh = kind.output();
    const auto freshStage = bench.create([&] { return kind.make(bench, fresh); });
    bench.settle();
    const auto after = contentOf(TypeParam::of(*fresh));
    EXPECT_EQ(contentOf(collection), after);
    for (const auto& change : recorder.changes) {
      const auto was = before.find(change.key);
      const auto is = after.find(change.key);
      const bool same = was != before.end() && is != after.end() && was->second == is->second;
      EXPECT_FALSE(same) << "a key that still holds was touched, at yield-every " << yieldEvery;
      EXPECT_EQ(!change.value.has_value(), is == after.end());
    }
    EXPECT_FALSE(recorder.deletions().empty());
  }
}

}  // namespace
}  // namespace KilnTest
