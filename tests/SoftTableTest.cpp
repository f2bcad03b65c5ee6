// The ordered-table layer over the software tables: what a restart keeps, claims and drops.

#include <gtest/gtest.h>

#include <memory>

#include "kiln/agent/chip/SoftChip.h"
#include "kiln/agent/platform/CooperativeScheduler.h"

namespace KilnTest {
namespace {

using KilnAgent::SoftChip;
using KilnTunnelNiLib::IsemMplsEntry;
using KilnTunnelNiLib::IsemMplsEntryKey;
using Table = Asic::IsemMplsKilnSwTable;
constexpr auto kTag = KilnEmServer::EmResolvedKeyUnionTag::isemMplsEntryKey;

class OrderedLayer : public testing::Test, public Asic::ChangeSubscriber {
 protected:
  OrderedLayer() { chip.status()->subscribe(*this); }
  ~OrderedLayer() override { chip.status()->unsubscribe(*this); }
  void handleChange() override { ++flagChanges; }

  Table& table() {
    const auto interface = chip.interface<Asic::IsemMplsKilnInterface>();
    return dynamic_cast<Table&>(*interface->orderedSwTable(Asic::UnitId::allFap()));
  }
  void write(std::uint32_t label, std::uint32_t lif) {
    table().entryWriteWithResponseHandler({label, 0}, {lif, 1}, nullptr, [](const auto&) {});
  }
  void remove(std::uint32_t label) {
    table().entryRemoveWithResponseHandler({label, 0}, nullptr, [](const auto&) {});
  }
  const IsemMplsEntry* find(std::uint32_t label) { return table().entrys().find({label, 0}); }
  /// Three entries of an earlier server.
  void leaveThree() {
    for (const std::uint32_t label : {1U, 2U, 3U}) write(label, label);
    scheduler->runUntilIdle();
    chip.serverEnded();
  }

  KilnPlatform::Ref<KilnAgent::CooperativeScheduler> scheduler =
      std::make_shared<KilnAgent::CooperativeScheduler>();
  SoftChip chip{KilnAgent::defaultChip(), scheduler, std::nullopt};
  int flagChanges = 0;
};

TEST_F(OrderedLayer, RestartKeepsEntriesAndTouchesOnlyDifferences) {
  leaveThree();
  ASSERT_EQ(3U, table().size());
  EXPECT_EQ(2U, find(2)->lif);
  const auto before = chip.counters();
  write(1, 1);
  write(2, 20);
  scheduler->runUntilIdle();
  ASSERT_NE(nullptr, find(3)) << "dropped before the server said that it is reconciled";
  chip.reconcileComplete();
  EXPECT_EQ(nullptr, find(3));
  EXPECT_EQ(before.written + 1, chip.counters().written);
  EXPECT_EQ(before.unchanged + 1, chip.counters().unchanged);
  EXPECT_EQ(before.removed + 1, chip.counters().removed);
  chip.reconcileComplete();
  EXPECT_EQ(2U, table().size()) << "what was claimed once stays";
}

TEST_F(OrderedLayer, DropsArePendingUntilTheCommitHasDrainedThem) {
  leaveThree();
  flagChanges = 0;
  chip.reconcileComplete();
  scheduler->runUntilIdle();
  EXPECT_TRUE(chip.status()->pendingHwWrites());
  chip.commitHwWrites();
  EXPECT_TRUE(chip.status()->pendingHwWrites());
  scheduler->runUntilIdle();
  EXPECT_FALSE(chip.status()->pendingHwWrites());
  EXPECT_EQ(2, flagChanges);
}

TEST_F(OrderedLayer, AnOperationIsPendingUntilItsAnswerHasBeenDelivered) {
  using Mode = KilnAgent::SoftTable::AnswerMode;
  auto& soft = chip.table(kTag);
  bool pendingInAnswer = false;
  const auto writeWithAnswer = [&] {
    table().entryWriteWithResponseHandler(
        {1, 0}, {1, 1}, nullptr, [&](const auto&) { pendingInAnswer = chip.status()->pendingHwWrites(); });
  };
  for (const Mode mode : {Mode::success, Mode::refuse, Mode::hold}) {
    for (const bool insideCall : {false, true}) {
      pendingInAnswer = false;
      soft.answerModeIs(mode);
      soft.answerInsideCallIs(insideCall);
      writeWithAnswer();
      EXPECT_EQ(!insideCall || mode == Mode::hold, chip.status()->pendingHwWrites());
      scheduler->runUntilIdle();
      soft.answerModeIs(Mode::success);
      scheduler->runUntilIdle();
      EXPECT_TRUE(pendingInAnswer);
      EXPECT_FALSE(chip.status()->pendingHwWrites());
    }
  }
  soft.answerModeIs(Mode::hold);
  writeWithAnswer();
  chip.serverEnded();
  EXPECT_FALSE(chip.status()->pendingHwWrites()) << "held answers are dropped";
}

TEST_F(OrderedLayer, LateOperationsKeepTheirOrderPerKey) {
  using Order = KilnAgent::SoftTable::Order;
  auto& soft = chip.table(kTag);
  soft.appliesIs(KilnAgent::SoftTable::Applies::answered);
  soft.answerModeIs(KilnAgent::SoftTable::AnswerMode::hold);
  soft.capacityIs(1);
  write(1, 1);
  remove(1);
  write(1, 2);
  write(2, 2);
  remove(1);
  EXPECT_EQ(0U, table().size());
  soft.answer(Order::fifo, 1);
  scheduler->runUntilIdle();
  EXPECT_EQ(1U, find(1)->lif);
  soft.answer(Order::lifo, 1);
  scheduler->runUntilIdle();
  EXPECT_EQ(nullptr, find(1));
  EXPECT_EQ(2U, soft.counters().written) << "those issued before, which are still held";
  soft.answer(Order::fifo, 3);
  scheduler->runUntilIdle();
  EXPECT_EQ(nullptr, find(1));
  EXPECT_NE(nullptr, find(2)) << "there was room when it was applied, not when it was issued";
}

TEST_F(OrderedLayer, EntryWithUnappliedOperationIsNotDropped) {
  leaveThree();
  auto& soft = chip.table(kTag);
  soft.appliesIs(KilnAgent::SoftTable::Applies::answered);
  write(1, 1);
  write(2, 20);
  chip.reconcileComplete();
  EXPECT_EQ(2U, find(2)->lif);
  EXPECT_EQ(nullptr, find(3));
  const auto before = chip.counters();
  chip.serverDied();
  EXPECT_EQ(20U, find(2)->lif) << "what was issued has effect though the server died";
  EXPECT_EQ(before.written + 1, chip.counters().written);
}

TEST_F(OrderedLayer, RestartDuringARestartUnclaimsEverything) {
  leaveThree();
  write(1, 1);
  chip.serverDied();
  chip.status()->subscribe(*this);
  EXPECT_FALSE(chip.status()->pendingHwWrites());
  write(2, 2);
  remove(3);
  write(3, 3);
  chip.reconcileComplete();
  EXPECT_EQ(nullptr, find(1)) << "claimed only by a server that died since";
  EXPECT_NE(nullptr, find(2));
  EXPECT_NE(nullptr, find(3));
}

TEST_F(OrderedLayer, RefusedOrUnfittingRewriteClaimsNothing) {
  leaveThree();
  auto& soft = chip.table(kTag);
  soft.answerModeIs(KilnAgent::SoftTable::AnswerMode::refuse);
  write(1, 1);
  soft.answerModeIs(KilnAgent::SoftTable::AnswerMode::success);
  soft.capacityIs(2);
  write(4, 4);
  write(2, 2);
  chip.reconcileComplete();
  EXPECT_EQ(1U, table().size());
  EXPECT_NE(nullptr, find(2));
}

}  // namespace
}  // namespace KilnTest
