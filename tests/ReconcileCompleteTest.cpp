// Completion of restart reconciliation: reported once, when the hardware is done.
#include "kiln/server/ReconcileCompleteSm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

/// A base that notifies its subscribers.
template <class Base>
struct Notifier : Base {
  void subscribe(Asic::ChangeSubscriber& subscriber) const override { subscribers.push_back(&subscriber); }
  void unsubscribe(Asic::ChangeSubscriber& subscriber) const override {
    std::erase(subscribers, &subscriber);
  }
  void notify() const {
    const auto notified = subscribers;
    for (Asic::ChangeSubscriber* subscriber : notified) subscriber->handleChange();
  }
  mutable std::vector<Asic::ChangeSubscriber*> subscribers;
};

struct FakeStatus final : Notifier<Asic::OrderedTableStatus> {
  explicit FakeStatus(bool isPending) : pending(isPending) {}
  [[nodiscard]] bool pendingHwWrites() const override { return pending; }
  void pendingIs(bool isPending) {
    pending = isPending;
    notify();
  }
  bool pending;
};

struct FakeOrderedTables final : Notifier<Asic::OrderedTableInterface> {
  void reconcileComplete() override { calls += "reconcile "; }
  void commitHwWrites() override { calls += "commit "; }
  [[nodiscard]] Ref<const Asic::OrderedTableStatus> status() const override { return exposed; }
  void expose(Ref<FakeStatus> next) {
    exposed = std::move(next);
    notify();
  }
  std::string calls;
  Ref<FakeStatus> exposed;
};

class ReconcileComplete : public testing::Test {
 protected:
  void start(Ref<FakeStatus> exposed) {
    tables->exposed = std::move(exposed);
    sm = reconcileCompleteSmFactory("done", record, tables);
  }
  [[nodiscard]] bool completed() const { return record->completedHas("done"); }
  Ref<DependencyStatusRecord> record = std::make_shared<DependencyStatusRecord>();
  Ref<FakeOrderedTables> tables = std::make_shared<FakeOrderedTables>();
  Ref<ReconcileCompleteSm> sm;
};

TEST_F(ReconcileComplete, CompletesImmediatelyWithoutAStatus) {
  start(nullptr);
  EXPECT_EQ(tables->calls, "reconcile commit ");
  EXPECT_TRUE(completed());
}

TEST_F(ReconcileComplete, WaitsForTheHardwareAndReportsOnce) {
  const auto status = std::make_shared<FakeStatus>(true);
  start(status);
  status->pendingIs(true);
  EXPECT_FALSE(completed());
  status->pendingIs(false);
  EXPECT_TRUE(completed());
  const Recorder recorder(record->completed());
  record->completedDel("done");
  status->pendingIs(true);
  status->pendingIs(false);
  tables->expose(nullptr);
  EXPECT_EQ(recorder.changes.size(), 1u);
  EXPECT_EQ(tables->calls, "reconcile commit ");
}

TEST_F(ReconcileComplete, FollowsTheExposedStatus) {
  const auto first = std::make_shared<FakeStatus>(true);
  const auto second = std::make_shared<FakeStatus>(true);
  start(first);
  tables->expose(second);
  first->pendingIs(false);
  EXPECT_FALSE(completed());
  EXPECT_TRUE(first->subscribers.empty());
  const auto third = std::make_shared<FakeStatus>(false);
  tables->expose(third);  // read without a change of its flag
  EXPECT_TRUE(completed());
  sm.reset();
  EXPECT_TRUE(third->subscribers.empty() && tables->subscribers.empty());
}

}  // namespace
}  // namespace KilnTest
