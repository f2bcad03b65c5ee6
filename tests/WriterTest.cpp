// Table writers: which operations reach the table, and which answers count.
#include <gtest/gtest.h>

#include <memory>

#include "kiln/program/SwTableWriters.h"
#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

using HwState = EmHwKeyStatus::State;
using TableState = Asic::SwTableBase::EntryState;
using MplsTable = FakeTable<Asic::IsemMplsKilnSwTable>;
using MplsInterface = FakeInterface<Asic::IsemMplsKilnInterface>;

const EmLogicalKey kL1 = mplsKey(FeatureType::mpls, 1);

EmLogicalKeyAndEntry wanted(std::uint32_t lif, const EmLogicalKey& key = kL1) {
  return {key, mplsEntry(lif)};
}

class WriterTest : public testing::Test {
 protected:
  void SetUp() override {
    interface->tables[Asic::UnitId::allFap()] = table;
    start();
  }
  virtual void start() {
    writer = bench.create([&] {
      return isemMplsSwTableWriterFactory(config, status, "writer", bench.status, interface, bench.control());
    });
    bench.settle();
  }
  void want(const EmHwKey& hwKey, const EmLogicalKeyAndEntry& value) {
    config->configIs(hwKey, value);
    bench.settle();
  }
  void drop(const EmHwKey& hwKey) {
    config->configDel(hwKey);
    bench.settle();
  }

  Bench bench{1};
  Ref<EmSwTableConfig> config = std::make_shared<EmSwTableConfig>();
  Ref<EmSwTableStatus> status = std::make_shared<EmSwTableStatus>();
  Ref<MplsTable> table = std::make_shared<MplsTable>();
  Ref<MplsInterface> interface = std::make_shared<MplsInterface>();
  Ref<IsemMplsSwTableWriter> writer;
};

TEST_F(WriterTest, AnswersAfterTheWriterIsDestroyedAreIgnored) {
  want(kH1, wanted(1));
  want(mplsHwKey(2), wanted(2));
  drop(mplsHwKey(2));
  EXPECT_EQ(writer->writeVersion(), 2u);
  EXPECT_EQ(writer->deleteVersion(), 1u);
  const std::weak_ptr<IsemMplsSwTableWriter> gone = writer;
  writer.reset();
  EXPECT_TRUE(gone.expired());  // the outstanding operation does not keep the writer alive
  table->answerAll();
  EXPECT_TRUE(status->status().empty());
  start();
  table->answerAll();
  EXPECT_TRUE(status->statusHas(kH1));
}

/// A writer that retries.
class RetryTest : public WriterTest {
 protected:
  void start() override {
    writer = bench.create([&] {
      return isemMplsSwTableWriterFactory(config, status, "writer", bench.status, interface, bench.control(),
                                          {.retryRoom = room, .emWrittenKeys = nullptr});
    });
    bench.settle();
  }
  void answer(std::size_t place, TableState state = TableState::success_) {
    table->answer(place, state);
    bench.settle();
  }
  /// The labels of the unanswered operations, removals below 0.
  std::vector<int> waiting() const {
    std::vector<int> labels;
    for (const auto& operation : table->waiting) {
      const int label = static_cast<int>(operation.key.label);
      labels.push_back(operation.entry ? label : -label);
    }
    return labels;
  }
  Ref<TableRoom> room = std::make_shared<TableRoom>();
};

TEST_F(RetryTest, EachAnsweredRemovalRetriesTheKeyThatWaitsLongest) {
  using Labels = std::vector<int>;
  for (std::uint32_t key = 1; key <= 4; ++key) want(mplsHwKey(key), wanted(key));
  answer(0);
  for (const std::uint32_t key : {2, 3, 4}) {
    answer(0, TableState::noResource_);
    EXPECT_EQ(HwState::hwFail, status->status(mplsHwKey(key))->status);
  }
  EXPECT_EQ(waiting(), Labels{}) << "without room nothing is tried again";
  drop(mplsHwKey(2));  // its refusal no longer counts
  drop(mplsHwKey(1));
  EXPECT_EQ(waiting(), (Labels{-2, -1}));
  answer(0);
  EXPECT_EQ(waiting(), (Labels{-1, 3}));
  answer(1, TableState::noResource_);  // from now on it waits behind the fourth
  EXPECT_EQ(waiting(), Labels{-1});
  answer(0);
  EXPECT_EQ(waiting(), Labels{4});
  answer(0);
  EXPECT_EQ(HwState::hwSuccess, status->status(mplsHwKey(4))->status);
  EXPECT_EQ(HwState::hwFail, status->status(mplsHwKey(3))->status);
  drop(mplsHwKey(4));
  want(mplsHwKey(5), wanted(5));
  answer(0);  // a removal that is answered after a write was issued, and before its refusal
  EXPECT_EQ(waiting(), (Labels{5, 3}));
  answer(0, TableState::noResource_);
  EXPECT_EQ(waiting(), (Labels{3, 5}));
  answer(0);
  answer(0);
  drop(mplsHwKey(3));
  drop(mplsHwKey(5));
  table->answerAll();
  EXPECT_EQ(localEntries(*writer), 0u);
}

TEST_F(RetryTest, CompletedReconciliationRetriesEachRefusedKeyOnce) {
  using Labels = std::vector<int>;
  for (std::uint32_t key = 1; key <= 3; ++key) want(mplsHwKey(key), wanted(key));
  answer(0, TableState::noResource_);
  answer(0, TableState::refused_);
  writer->retryRefused();
  bench.settle();
  EXPECT_EQ(waiting(), (Labels{3, 1, 2}));
  answer(0, TableState::refused_);  // not known when reconciliation completed
  EXPECT_EQ(waiting(), (Labels{1, 2, 3}));
  for (int each = 0; each < 3; ++each) answer(0, TableState::refused_);
  EXPECT_EQ(waiting(), Labels{});
}

TEST_F(RetryTest, AKeyWithoutATableIsNotRetried) {
  const EmHwKey hwKey = mplsHwKey(7);
  want(hwKey, {kL1, {EmEntry(KilnTunnelNiLib::EsemFodoEntry{}), 1}});
  EXPECT_EQ(waiting(), std::vector<int>{-7});
  answer(0);
  EXPECT_EQ(HwState::hwFail, status->status(hwKey)->status);
  EXPECT_TRUE(table->waiting.empty());
}

// The walk over a shared collection skips whole pages with keys of other tables, and still ends its slices in
// time, at the same places at every trace level.
TEST_F(WriterTest, WalkPastManyKeysOfOtherTablesYields) {
  writer.reset();
  for (std::uint32_t fodo = 0; fodo < 20'000; ++fodo) {
    const EmHwKey other{FapId::allFap(), LocalCoreId::all(),
                        KilnTunnelNiLib::EsemFodoEntryKey{KilnPlatform::U18(fodo)}};
    config->configIs(other, wanted(1));
  }
  config->configIs(kH1, wanted(1));
  const auto slices = [&] {
    const std::uint64_t before = bench.scheduler->counters().slices;
    start();
    const std::uint64_t done = bench.scheduler->counters().slices - before;
    writer.reset();
    return done;
  };
  const std::uint64_t untraced = slices();
#ifndef KILN_ORDERED_COLLECTIONS  // collections without pages
  EXPECT_GE(untraced, 20'000U / 4096U);
#endif
  const TraceCapture traces(9);
  EXPECT_EQ(slices(), untraced);
}

TEST_F(WriterTest, AnOperationOfADivergentKeyIsFatal) {
  EXPECT_DEATH(writer->deleteTableEntry(mplsHwKey(1, FapId(4), LocalCoreId(2)), {}),
               "Assertion failed: emHwKey.fapId\\(\\) == Hardware::Kiln::FapId::allFap\\(\\)");
}

TEST_F(WriterTest, MissingTableFailsWritesAndAcceptsDeletes) {
  auto wrongEntry = wanted(1);
  wrongEntry.emEntry.emEntry = KilnTunnelNiLib::EsemFodoEntry{1, 1};
  const TraceCapture traces(0);
  want(kH1, wrongEntry);
  table->answerAll();  // the removal of an entry that an earlier write may have left
  EXPECT_EQ(status->status(kH1), (EmSwTableStatusEntry{wrongEntry, HwState::hwFail}));
  EXPECT_EQ(traces.count(0, "reached no table"), 1u);
  EXPECT_EQ(table->writes, 0u);
  for (const bool missing : {true, false}) {
    interface->tables.clear();
    if (!missing)
      interface->tables[Asic::UnitId::allFap()] = std::make_shared<FakeTable<Asic::EsemFodoKilnSwTable>>();
    want(kH1, wanted(missing ? 2 : 3));
    ASSERT_TRUE(status->statusHas(kH1));
    EXPECT_EQ(status->status(kH1)->status, HwState::hwFail);
    drop(kH1);
    EXPECT_TRUE(status->status().empty());
  }
  EXPECT_EQ(writer->numEntries(FapId::allFap(), LocalCoreId::all()), 0u);
}

TEST_F(WriterTest, ARefusedDeleteIsFatal) {
  want(kH1, wanted(1));
  drop(kH1);
  EXPECT_DEATH(table->answer(1, TableState::refused_),
               "Assertion failed: entryState == Asic::SwTableBase::success\\(\\) \\(stage writer");
}

TEST_F(WriterTest, CountsTheEntriesOfAChipsUnit) {
  auto chip = std::make_shared<MplsTable>();
  chip->answerInside = true;
  interface->tables[Asic::UnitId::ofFap(FapId(3))] = chip;
  chip->entryWriteWithResponseHandler({7, 0}, {}, nullptr, [](const auto& /*handle*/) {});
  EXPECT_EQ(writer->numEntries(FapId(3), LocalCoreId(0)), 1u);
  EXPECT_EQ(writer->numEntries(FapId(4), LocalCoreId(0)), 0u);
}

}  // namespace
}  // namespace KilnTest
