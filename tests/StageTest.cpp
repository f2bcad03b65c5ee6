// The stage runtime, on very small stages.
#include "kiln/runtime/stage/Stage.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <string>

#include "kiln/runtime/collections/Entity.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/LocalState.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/PlacedKeys.h"
#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

class Source {
  KILN_COLLECTION(Source, item, int, int)
};
class Sink {
  KILN_COLLECTION(Sink, result, int, int)
};
class Rooms {
  KILN_REFERENCE_COLLECTION(Rooms, room, int, const Source)
};

constexpr int kKeep = 0;     ///< the copying stage keeps the value under the key
constexpr int kBroken = 13;  ///< the copying stage cannot handle this value

/// Copies its source into its sink.
class CopyStage final : public Stage {
 public:
  CopyStage(Ref<const Source> source, Ref<Sink> sink, Ref<DependencyStatus> status, StageControl control)
      : Stage("CopyStage", "copy", std::move(status), std::move(control), "Line 9: from( this.ready )"),
        source_(*this, std::move(source)),
        sink_(*this, std::move(sink)) {}

  [[nodiscard]] InputBase::ScanState scanState() const { return source_.scanState(); }
  [[nodiscard]] OutputBase& output() { return *outputs().front(); }
  std::vector<int> handled;
  std::set<std::string> taskNames;

 private:
  void handleItem(const int& key, const int* value) {
    handled.push_back(key);
    if (const Task* task = control().scheduler->taskCurrentlyRunning()) taskNames.emplace(task->name());
    if (value != nullptr && *value == kBroken) throw std::range_error("thirteen");
    if (value != nullptr && *value == kKeep) {
      sink_.seenIs(key);
    } else {
      sink_.write(key, value);
    }
  }

  Input<Source::itemAttr, "source", &CopyStage::handleItem,
        "Line 3: from( source.item[] ): key={} valueOpt={}">
      source_;
  Output<Sink::resultAttr, "sink", "key"> sink_;
};

struct CopySetUp {
  explicit CopySetUp(std::uint32_t yieldEvery = 0) : bench(yieldEvery) {}
  Ref<CopyStage> start(bool synchronous = false) {
    return bench.create(
        [&] { return makeStage<CopyStage>(source, sink, bench.status, bench.control(synchronous)); });
  }
  Bench bench;
  Ref<Source> source = std::make_shared<Source>();
  Ref<Sink> sink = std::make_shared<Sink>();
};

TEST(Stage, AScanThatYieldsAfterEveryItemMissesNoChange) {
  CopySetUp set(1);
  const TraceCapture traces(9);
  for (int key = 1; key <= 10; ++key) set.source->itemIs(key, key);
  const auto stage = set.start();
  EXPECT_EQ(stage->scanState(), InputBase::ScanState::paused);
  ASSERT_EQ(stage->handled.size(), 1u);
  set.source->itemIs(stage->handled[0], 77);            // visited already
  set.source->itemDel(stage->handled[0] == 5 ? 6 : 5);  // not visited yet
  set.source->itemIs(11, 11);
  set.bench.scheduler->run(4);
  EXPECT_FALSE(stage->initialScanDone());
  EXPECT_FALSE(set.bench.completed("copy"));
  set.bench.settle();
  EXPECT_EQ(contentOf(set.sink->result()), contentOf(set.source->item()));
  EXPECT_TRUE(set.bench.completed("copy"));
  EXPECT_GE(traces.count(7, " SourceSm0 yielding after 1 iterations (10 total items)"), 9u);
  EXPECT_EQ(traces.count(9, "Initial scan done for child SMs. Now scanning with events triggered."), 1u);
  EXPECT_EQ(traces.count(7, "Line 9: from( this.ready ): ready=true"), 1u);
}

TEST(Stage, SynchronousStageIsReadyImmediately) {
  CopySetUp set(1);
  for (int key = 1; key <= 10; ++key) set.source->itemIs(key, key);
  for (int key = 11; key <= 20; ++key) set.sink->resultIs(key, key);
  const auto stage = set.start(true);
  EXPECT_TRUE(stage->ready());
  EXPECT_EQ(contentOf(set.sink->result()), contentOf(set.source->item()));
}

TEST(Stage, ScanThatEndsDuringInitializationIsCheckedAgain) {
  CopySetUp set;
  set.source->itemIs(1, 1);
  const auto stage = set.start();
  EXPECT_EQ(stage->scanState(), InputBase::ScanState::completeBeforeInitialized);
  EXPECT_TRUE(stage->initialScanDone());
  EXPECT_TRUE(set.bench.completed("copy"));
}

class Reconciliation : public testing::TestWithParam<std::uint32_t> {};
INSTANTIATE_TEST_SUITE_P(YieldEvery, Reconciliation, testing::Values(0, 1, 3));

TEST_P(Reconciliation, DeletesOnlyWhatIsStale) {
  CopySetUp set(GetParam());
  set.source->itemIs(1, 1);
  set.source->itemIs(2, 2);
  set.source->itemIs(3, 3);
  set.sink->resultIs(1, 1);
  set.sink->resultIs(2, 99);
  for (int key = 10; key < 20; ++key) set.sink->resultIs(key, key);
  const Recorder recorder(set.sink->result());
  const TraceCapture traces(9);
  const auto stage = set.start();
  if (GetParam() == 1) {
    while (!stage->initialScanDone()) set.bench.scheduler->run(1);
    EXPECT_FALSE(set.bench.completed("copy"));  // not before the deletion scan is done
    EXPECT_GT(set.sink->result().size(), 3u);
    while (stage->output().reconciling()) set.bench.scheduler->run(1);
    EXPECT_EQ(set.bench.scheduler->run(100), 2u)
        << "of three keys that were noted one is forgotten per slice";
  }
  set.bench.settle();
  EXPECT_EQ(contentOf(set.sink->result()), contentOf(set.source->item()));
  EXPECT_TRUE(recorder.of(1).empty());
  EXPECT_EQ(recorder.of(2), (std::vector<std::optional<int>>{2}));
  EXPECT_EQ(recorder.deletions().size(), 10u);
  EXPECT_EQ(stage->output().reconciliationCounts(),
            (OutputBase::ReconciliationCounts{
                .found = 12, .kept = 1, .rewritten = 1, .inserted = 1, .deleted = 10}));
  for (const char* text : {"Reconciling sinkResultOutput: {:}", "Line 9: from( this.ready ): ready={}",
                           "Setting reconciliationState to skip deletions for sinkResultOutput",
                           "Setting reconciliationState to skip nothing for sinkResultOutput",
                           "into( sink.result[ key ] ): inserting k1={}, value={}",
                           "into( sink.result[ key ] ): deleting k1={}"}) {
    EXPECT_GE(traces.countOfText(text), 1u) << text;
  }
  if (GetParam() == 1) {  // a paused scan continues its counts
    EXPECT_EQ(traces.count(7, "after processing 13 items, including 10 deletions ."), 1u);
  }
  EXPECT_EQ(traces.count(9, "already ready, not reconciling."), 0u);
  stage->output().handleInputReady();
  EXPECT_EQ(traces.count(9, "already ready, not reconciling."), 1u);
  set.source->itemDel(1);  // and nothing is held back any more
  set.bench.settle();
  EXPECT_FALSE(set.sink->resultHas(1));
}

TEST(Stage, AwaitedKeysSurviveTheDeletionScan) {
  CopySetUp set;
  for (int key = 1; key <= 4; ++key) set.source->itemIs(key, kKeep);
  for (int key = 1; key <= 5; ++key) set.sink->resultIs(key, 8);
  set.sink->resultDel(4);  // there is no value to keep
  const auto stage = set.start();
  set.bench.settle();
  EXPECT_EQ(contentOf(set.sink->result()), (std::map<int, int>{{1, 8}, {2, 8}, {3, 8}}));
  const auto& counts = stage->output().reconciliationCounts();
  EXPECT_EQ(counts, (OutputBase::ReconciliationCounts{.found = 4, .deleted = 1}));
  EXPECT_EQ(counts.waiting(), 3u);
  set.source->itemIs(1, 8);
  set.source->itemIs(2, 9);
  set.source->itemDel(3);
  set.bench.settle();
  EXPECT_EQ(counts, (OutputBase::ReconciliationCounts{.found = 4, .kept = 1, .rewritten = 1, .deleted = 2}));
  set.source->itemIs(1, 9);  // no longer part of the restart
  set.bench.settle();
  EXPECT_EQ(counts.waiting(), 0u);
  EXPECT_EQ(counts.rewritten, 1u);
}

TEST(Stage, TasksAreNamedAfterTheirWork) {
  CopySetUp set(1);
  for (int key = 1; key <= 3; ++key) set.source->itemIs(key, key);
  set.sink->resultIs(50, 1);
  set.sink->resultIs(51, 1);
  struct NameOfDeletion final : KeySubscriber<int> {
    explicit NameOfDeletion(CopySetUp& owner) : set(owner) { set.sink->result().subscribe(*this); }
    ~NameOfDeletion() { set.sink->result().unsubscribe(*this); }
    void handleChange(const int& key) override {
      if (!set.sink->resultHas(key)) names.emplace(set.bench.scheduler->taskCurrentlyRunning()->name());
    }
    CopySetUp& set;
    std::set<std::string> names;
  } deletion(set);
  const auto stage = set.start();
  set.bench.settle();
  stage->taskNames.erase("create");
  EXPECT_EQ(stage->taskNames, std::set<std::string>{"KilnEmServer::CopyStage-SourceSm0InputScanTask0"});
  EXPECT_TRUE(deletion.names.contains("CopyStage-sinkResultOutputTask"));
}

TEST(Stage, RangeErrorAffectsOneItemOnly) {
  CopySetUp set(1);
  set.source->itemIs(1, 1);
  set.source->itemIs(2, kBroken);
  set.source->itemIs(3, 3);
  set.sink->resultIs(2, 2);
  const TraceCapture traces(0);
  const auto stage = set.start();
  set.bench.settle();
  EXPECT_TRUE(stage->ready());
  EXPECT_EQ(contentOf(set.sink->result()), (std::map<int, int>{{1, 1}, {3, 3}}));
  EXPECT_EQ(traces.count(0, "copy: key 2 left out: thirteen"), 1u);
  set.source->itemIs(4, kBroken);
  set.source->itemIs(5, 5);
  set.bench.settle();
  EXPECT_TRUE(set.sink->resultHas(5));
  EXPECT_EQ(traces.count(0, "key 4 left out"), 1u);
}

TEST(Stage, TeardownWithdrawsButDestructionDoesNot) {
  CopySetUp set(1);
  for (int key = 1; key <= 10; ++key) set.source->itemIs(key, key);
  {
    const auto stage = set.start();
    set.bench.scheduler->run(3);
  }
  EXPECT_GT(set.sink->result().size(), 1u);
  EXPECT_TRUE(set.bench.scheduler->idle());
  {
    const auto stage = set.start();
    set.bench.scheduler->run(2);
    ASSERT_TRUE(stage->output().reconciling());
    const std::size_t found = stage->output().reconciliationCounts().waiting();
    ASSERT_GT(found, 0u);
    ASSERT_GT(set.sink->result().size(), found);
    stage->doDeleteAll();
    EXPECT_EQ(set.sink->result().size(), found);
    for (const auto& [key, value] : contentOf(set.sink->result())) {
      EXPECT_EQ(std::count(stage->handled.begin(), stage->handled.end(), key), 0) << "it was written again";
    }
  }
  const auto stage = set.start();
  set.bench.settle();
  set.source->itemIs(1, 5);  // is pending
  stage->beginDeleteAll();
  for (std::size_t left = 10; left != 0; --left) {
    EXPECT_EQ(stage->keysInOutputs(), left);
    EXPECT_TRUE(set.bench.completed("copy"));
    EXPECT_TRUE(stage->deleteNext());
  }
  EXPECT_FALSE(stage->deleteNext());
  EXPECT_TRUE(set.sink->result().empty());
  EXPECT_FALSE(set.bench.completed("copy"));
  set.source->itemIs(2, 5);
  set.bench.settle();
  EXPECT_TRUE(set.sink->result().empty());
}

TEST(StageDeathTest, NullArgumentsAreNamed) {
  CopySetUp set;
  const auto make = [&](Ref<const Source> source, Ref<Sink> sink, Ref<DependencyStatus> status) {
    makeStage<CopyStage>(std::move(source), std::move(sink), std::move(status), set.bench.control());
  };
  const std::string tail =
      "\\(\\) && \"Pointer SM args cannot be null unless they are marked Optional\" \\(stage copy";
  EXPECT_DEATH(make(nullptr, set.sink, set.bench.status), "Assertion failed: source" + tail);
  EXPECT_DEATH(make(set.source, nullptr, set.bench.status), "Assertion failed: sink" + tail);
  EXPECT_DEATH(make(set.source, set.sink, nullptr), "Assertion failed: dependencyStatus" + tail);
}

// --- Two inputs --------------------------------------------------------------------------------------------

/// Logs its events; `c` is read synchronously, `d` in the initial scan only.
class LogStage final : public Stage {
 public:
  LogStage(const std::vector<Ref<Source>>& sources, Ref<DependencyStatus> status, StageControl control)
      : Stage("LogStage", "log", std::move(status), std::move(control), "Line 1: from( this.ready )"),
        a_(*this, sources[0]),
        b_(*this, sources[1]),
        c_(*this, sources[2]),
        d_(*this, sources[3]) {}
  std::string log;

 private:
  void note(char input, int key) { log += fmt::format("{}{} ", input, key); }
  void handleA(const int& key, const int* /*value*/) { note('a', key); }
  void handleB(const int& key, const int* /*value*/) { note('b', key); }
  void handleC(const int& key, const int* /*value*/) { note('c', key); }
  void handleD(const int& key, const int* /*value*/) { note('d', key); }

  Input<Source::itemAttr, "a", &LogStage::handleA, "from( a.item[] ): key={}"> a_;
  Input<Source::itemAttr, "b", &LogStage::handleB, "from( b.item[] ): key={}"> b_;
  Input<Source::itemAttr, "c", &LogStage::handleC, "from( c.item[] ): key={}", Reaction::immediate> c_;
  Input<Source::itemAttr, "d", &LogStage::handleD, "from( d.item[] ): key={}", Reaction::none> d_;
};

class EventOrder : public testing::TestWithParam<std::uint32_t> {};
INSTANTIATE_TEST_SUITE_P(YieldEvery, EventOrder, testing::Values(0, 1, 2));

TEST_P(EventOrder, FollowsArrivalAcrossInputs) {
  const Bench bench(GetParam());
  std::vector<Ref<Source>> sources;
  for (int i = 0; i < 4; ++i) sources.push_back(std::make_shared<Source>());
  sources[3]->itemIs(1, 1);
  const auto stage =
      bench.create([&] { return makeStage<LogStage>(sources, bench.status, bench.control()); });
  bench.settle();
  EXPECT_TRUE(bench.completed("log"));  // a stage without outputs is ready after its scans
  EXPECT_EQ(stage->log, "d1 ");
  stage->log.clear();
  sources[0]->itemIs(1, 1);
  sources[1]->itemIs(1, 1);
  sources[1]->itemIs(2, 1);
  sources[0]->itemIs(2, 1);
  sources[0]->itemIs(1, 2);  // keeps its place
  sources[1]->itemIs(3, 1);
  sources[3]->itemIs(2, 1);
  EXPECT_EQ(stage->log, "");
  EXPECT_EQ(stage->pendingCount(), 5u);
  EXPECT_EQ(stage->coalescedChanges(), 1u);
  sources[2]->itemIs(1, 1);
  EXPECT_EQ(stage->log, "c1 ");
  bench.settle();
  EXPECT_EQ(stage->log, "c1 a1 b1 b2 a2 b3 ");
}

// --- Nested inputs -----------------------------------------------------------------------------------------

/// Merges the items of rooms into one sink, under 100 times the room's number plus the item's.
class RoomStage final : public Stage {
 public:
  RoomStage(Ref<const Rooms> rooms, Ref<Sink> sink, Ref<DependencyStatus> status, StageControl control)
      : Stage("RoomStage", "rooms", std::move(status), std::move(control), "Line 9: from( this.ready )"),
        rooms_(*this, std::move(rooms)),
        byItem_(*this, "byItem"),
        sink_(*this, std::move(sink)) {}
  bool group = false;

 private:
  void handleItem(const int& room, const int& key, const int* value) {
    if (group) byItem_.update(key, room, value);
    sink_.write(room * 100 + key, value);
  }
  NestedInput<Rooms::roomAttr, Source::itemAttr, "rooms", &RoomStage::handleItem,
              "Line 3: from( rooms.room[].item[] ): room={} key={} valueOpt={}">
      rooms_;
  GroupBy<int, int, int, 1, "roomColl"> byItem_;
  Output<Sink::resultAttr, "sink", "key"> sink_;
};

class NestedInputs : public testing::TestWithParam<std::uint32_t> {
 protected:
  Ref<RoomStage> start() {
    const auto stage =
        bench.create([&] { return makeStage<RoomStage>(rooms, sink, bench.status, bench.control()); });
    bench.settle();
    return stage;
  }
  static Ref<Source> room(const std::map<int, int>& items) {
    auto made = std::make_shared<Source>();
    for (const auto& [key, value] : items) made->itemIs(key, value);
    return made;
  }
  [[nodiscard]] std::map<int, int> expected() const {
    std::map<int, int> flat;
    for (const auto& [number, source] : contentOf(rooms->room())) {
      for (const auto& [key, value] : contentOf(source->item())) flat[number * 100 + key] = value;
    }
    return flat;
  }
  Bench bench{GetParam()};
  Ref<Rooms> rooms = std::make_shared<Rooms>();
  Ref<Sink> sink = std::make_shared<Sink>();
};
INSTANTIATE_TEST_SUITE_P(YieldEvery, NestedInputs, testing::Values(0, 1, 3));

TEST_P(NestedInputs, RemovedOuterEntryRemovesAllItsKeys) {
  const auto one = room({{1, 1}, {2, 2}, {3, 3}});
  rooms->roomIs(1, one);
  rooms->roomIs(2, room({{1, 1}}));
  const auto stage = start();
  EXPECT_EQ(contentOf(sink->result()), expected());
  const TraceCapture traces(7);
  one->itemDelAll();  // emptied just before, so that a walk over it finds no key
  rooms->roomDel(1);
  one->itemIs(7, 7);  // too late
  bench.settle();
  EXPECT_EQ(contentOf(sink->result()), (std::map<int, int>{{201, 1}}));
  one->itemIs(8, 8);
  rooms->roomIs(1, one);
  bench.settle();
  EXPECT_EQ(contentOf(sink->result()), expected());
  rooms->roomDel(1);
  rooms->roomIs(3, room({}));
  one->itemDel(8);
  bench.settle();
  EXPECT_EQ(contentOf(sink->result()), (std::map<int, int>{{201, 1}}));
  EXPECT_GE(traces.count(
                7, "We missed notifications that happened to item before the enclosing entity got deleted"),
            1u);
}

TEST_P(NestedInputs, AReplacedEntryKeepsTheKeysThatBothHave) {
  rooms->roomIs(1, room({{1, 1}, {2, 2}, {3, 3}}));
  const auto stage = start();
  const Recorder recorder(sink->result());
  const auto old = *rooms->room(1);
  rooms->roomIs(1, room({{2, 2}, {3, 30}, {4, 4}}));
  bench.settle();
  EXPECT_EQ(contentOf(sink->result()), expected());
  EXPECT_EQ(recorder.deletions(), std::vector<int>{101});
  const auto replaced = std::const_pointer_cast<Source>(old);
  replaced->itemIs(5, 5);
  replaced->itemDelAll();
  bench.settle();
  EXPECT_EQ(contentOf(sink->result()), expected());
}

TEST_P(NestedInputs, NamesItsChildren) {
  rooms->roomIs(1, room({{1, 1}, {2, 2}}));
  const TraceCapture traces(9);
  start();
  EXPECT_GE(traces.count(9, "RoomSm1 scan"), 1u);
  EXPECT_GE(traces.count(9, "RoomsSm0 scan complete. Processed 1 children."), 1u);
  if (GetParam() == 1) {
    EXPECT_GE(traces.count(7, "child RoomSm1 yielding after 1 iterations (2 total items)"), 1u);
  }
}

TEST_P(NestedInputs, TeardownEndsInnerReactionsToo) {
  const auto one = room({{1, 1}, {2, 2}});
  rooms->roomIs(1, one);
  const auto stage = start();
  rooms->roomIs(1, room({{1, 1}}));
  bench.scheduler->run(1);
  stage->doDeleteAll();
  one->itemIs(9, 9);
  rooms->roomIs(2, one);
  bench.settle();
  EXPECT_TRUE(sink->result().empty());
}

TEST_P(NestedInputs, AnEmptiedGroupIsRemoved) {
  const auto stage = start();
  stage->group = true;
  const auto one = room({{1, 1}, {2, 2}});
  rooms->roomIs(1, one);
  bench.settle();
  EXPECT_EQ(localEntries(*stage), 2u);
  one->itemIs(1, 5);
  one->itemDel(2);
  one->itemDel(3);
  bench.settle();
  EXPECT_EQ(localEntries(*stage), 1u);
  EXPECT_DEATH(
      {
        rooms->roomIs(2, room({{1, 1}}));
        bench.settle();
      },
      "Assertion failed: \\( len\\( roomColl \\) <= 1 \\) \\(stage rooms");
}

TEST(StageDeathTest, ANullNestedArgumentIsFatal) {
  const Bench bench;
  const auto rooms = std::make_shared<Rooms>();
  rooms->roomIs(1, nullptr);
  EXPECT_DEATH(makeStage<RoomStage>(rooms, std::make_shared<Sink>(), bench.status, bench.control()),
               "Sm args can only be null if marked as Optional in the SM type declaration");
}

// --- Values with a key of their own ------------------------------------------------------------------------

struct Keyed {
  int own = 0;
  friend bool operator==(const Keyed&, const Keyed&) = default;
  static constexpr std::string_view kTypeName = "Keyed";
  static constexpr auto fields() { return std::tuple{KilnPlatform::fieldOf("own", &Keyed::own)}; }
};
class KeyedSink {
  KILN_KEYED_COLLECTION(KeyedSink, entry, int, Keyed, own)
};

template <KeyMismatch mismatch>
class KeyedStage final : public Stage {
 public:
  KeyedStage(Ref<const Source> source, Ref<KeyedSink> sink, Ref<DependencyStatus> status,
             StageControl control)
      : Stage("KeyedStage", "keyed", std::move(status), std::move(control), "Line 1: from( this.ready )"),
        source_(*this, std::move(source)),
        sink_(*this, std::move(sink)) {}

 private:
  void handleItem(const int& key, const int* value) { sink_.insert(key, {*value}); }
  Input<Source::itemAttr, "source", &KeyedStage::handleItem, "from( source.item[] ): key={}"> source_;
  Output<KeyedSink::entryAttr, "sink", "key", mismatch> sink_;
};

TEST(StageDeathTest, ValueUnderAForeignKeyIsReportedOrFatal) {
  const Bench bench;
  const auto source = std::make_shared<Source>();
  const auto sink = std::make_shared<KeyedSink>();
  source->itemIs(4, 5);
  const std::string text =
      "In \"into( sink.entry[ key ] )\" the value inserted in the into statement has internal key: 5, but "
      "the key "
      "specified in the into is: 4";
  const TraceCapture traces(0);
  makeStage<KeyedStage<KeyMismatch::report>>(source, sink, bench.status, bench.control());
  EXPECT_EQ(traces.count(0, text), 1u);
  EXPECT_EQ(sink->entry(4), Keyed{5});
  const auto fatal = [&] {
    makeStage<KeyedStage<KeyMismatch::fatal>>(source, sink, bench.status, bench.control());
  };
  EXPECT_DEATH(fatal(), "has internal key: 5, but the key specified in the into is: 4");
  using LemStatus = KilnTunnelNiLib::LemSrvStatus;
  LemStatus status(std::make_unique<Collection<LemStatus::Key, LemStatus::Entry>>());
  EXPECT_DEATH(status.statusIs(LemStatus::Key{FapId(1), {}, {}}, {}),
               "In \"into\\( lemSrvStatus.status\\[ lemEntryKey \\] \\)\" the value inserted");
}

class SetsStage final : public Stage {
 public:
  SetsStage(Ref<DependencyStatus> status, StageControl control)
      : Stage("SetsStage", "sets", std::move(status), std::move(control), "Line 1: from( this.ready )") {}
  KeyPlaces<int> places{*this, "SetsStage.places"};
  std::array<PlacedKeys<int>, 3> sets{PlacedKeys<int>(places), PlacedKeys<int>(places),
                                      PlacedKeys<int>(places)};
};

// Sets that share their position column agree with a model; a walk of one visits the keys that are present
// throughout.
TEST(PlacedKeys, AgreeWithAModelWhileTheyAreWalked) {
  const Bench bench;
  const std::size_t heldBefore = KeySpace<int>::instance().size();
  for (unsigned seed = 0; seed < 200; ++seed) {
    std::mt19937 random(seed);
    const auto stage = makeStage<SetsStage>(bench.status, bench.control());
    std::array<std::set<int>, 3> model;
    const auto change = [&] {
      const int key = static_cast<int>(random() % 200);
      const auto own = static_cast<std::size_t>(key % 3);  // the one set that may hold the key
      if (random() % 2 == 0) {
        stage->sets[own].add(key);
        model[own].insert(key);
      } else {
        stage->sets[own].remove(key);
        model[own].erase(key);
      }
    };
    for (int i = 0; i < 300; ++i) change();
    for (std::size_t walked = 0; walked < model.size(); ++walked) {
      std::set<int> throughout = model[walked];
      std::set<int> visited;
      KilnPlatform::ScanCursor<int> cursor;
      while (const int* key = stage->sets[walked].scanNext(cursor)) {
        ASSERT_TRUE(model[walked].contains(*key)) << "seed " << seed;
        visited.insert(*key);
        for (unsigned changes = random() % 4; changes > 0; --changes) change();
        std::erase_if(throughout, [&](int stood) { return !model[walked].contains(stood); });
      }
      for (const int stood : throughout) ASSERT_TRUE(visited.contains(stood)) << "seed " << seed;
    }
    for (std::size_t own = 0; own < model.size(); ++own) {
      ASSERT_EQ(stage->sets[own].size(), model[own].size());
    }
    ASSERT_EQ(stage->places.size(), model[0].size() + model[1].size() + model[2].size());
  }
  EXPECT_EQ(KeySpace<int>::instance().size(), heldBefore);
}

}  // namespace
}  // namespace KilnTest
