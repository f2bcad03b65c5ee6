// Capacity rows, computed from tables, FAPs, profiles and external users, and the alarms derived from them.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>

#include "kiln/agent/host/CapacityMonitor.h"
#include "kiln/agent/io/InputError.h"
#include "kiln/agent/report/CapacityReport.h"
#include "kiln/agent/scenario/Scenario.h"
#include "kiln/server/KilnEmServerSm.h"
#include "kiln/status/SemCapacitySm.h"
#include "tests/Lines.h"
#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

using KilnAgent::makeCollection;
using KilnMdb::ProfileCapabilities;
using KilnPlatform::TableCapacityEntry;
using KilnPlatform::TableCapacityKey;
using ResolvedTag = EmResolvedKeyUnionTag;

class ManualClock final : public Clock {
 public:
  [[nodiscard]] std::chrono::nanoseconds now() const override { return time; }
  std::chrono::nanoseconds time{1};
};

/// A writer that reports as many entries as the test sets, and counts the calls.
class CountingWriter final : public EmSwTableWriterSm {
 public:
  CountingWriter(ResolvedTag tag, const Ref<EmSwTableConfig>& config, const Ref<EmSwTableStatus>& status,
                 const Bench& bench)
      : EmSwTableWriterSm(tag, config, status, "writer", bench.status, bench.control(), {}) {}
  [[nodiscard]] std::uint32_t numEntries(FapId /*fapId*/, LocalCoreId /*core*/) const override {
    ++asked;
    return entries;
  }
  void writeTableEntry(const EmHwKey& /*hwKey*/, const EmEntry& /*entry*/,
                       ResponseHandler /*handler*/) override {}
  void deleteTableEntry(const EmHwKey& /*hwKey*/, ResponseHandler /*handler*/) override {}
  std::uint32_t entries = 0;
  mutable std::size_t asked = 0;
};

ProfileCapabilities profileOf(std::uint32_t max) {
  ProfileCapabilities profile;
  profile.tables = {
      {64, true, {{60, max}}}, {65, true, {{60, max}}}, {66, true, {{60, max}}}, {37, true, {{60, max}}}};
  return profile;
}

/// The capacity stage alone.
class Capacity : public testing::Test {
 protected:
  static constexpr std::uint32_t kMax = 1000;

  Capacity() {
    for (const KeyTypeInfo& type : kKeyTypeInfo) {
      if (type.memory == TableMemory::none) continue;
      writers[type.tag] = std::make_shared<CountingWriter>(type.tag, config, status, bench);
    }
    profiles->profileCapabilitiesIs(1, profileOf(kMax));
  }

  void addFap(std::uint16_t id, Hardware::Kiln::FapType type, std::uint64_t cores = 2) {
    std::vector<LocalCoreId> all;
    for (std::uint64_t core = 0; core < cores; ++core) all.push_back(LocalCoreId(core));
    profileIds->profileIdIs(FapId(id), 1);
    hardware->fap().is(FapId(id), {fmt::format("Fap{}", id), type, all});
  }
  void start() {
    sm = semCapacitySmFactory(table, clock, "SemCapacity", hardware, profiles, profileIds, users, status,
                              {bench.scheduler, -1});
    for (const auto& [tag, writer] : writers) sm->swTableWriterIs(writer);
    sm->handleInitialized();
    bench.settle();
  }
  /// Used, free and maximum as text; "none" if there is no row.
  std::string row(const char* tableName, const char* feature, const char* chip) const {
    const auto entry = table->entry().get({tableName, feature, "SemCapacity", chip});
    return entry ? fmt::format("{} {} {}", entry->used, entry->free, entry->maxLimit) : "none";
  }
  void holdEntries(ResolvedTag tag, std::uint32_t entries) {
    writers.at(tag)->entries = entries;
    status->statusIs(mplsHwKey(statusNumber++), {});
    bench.settle();
  }
  void use(const char* name, std::uint16_t fap, std::uint64_t core, std::uint8_t semType,
           std::uint32_t entries) {
    users->user().is(name, {{{FapId(fap), LocalCoreId(core), semType, entries}}});
    bench.settle();
  }
  std::size_t asked() const {
    std::size_t sum = 0;
    for (const auto& [tag, writer] : writers) sum += writer->asked;
    return sum;
  }

  Bench bench;
  Ref<KilnPlatform::TableCapacity> table =
      std::make_shared<KilnPlatform::TableCapacity>(makeCollection<TableCapacityKey, TableCapacityEntry>());
  Ref<ManualClock> clock = std::make_shared<ManualClock>();
  Ref<Hardware::Kiln::Status> hardware =
      std::make_shared<Hardware::Kiln::Status>(makeCollection<FapId, Hardware::Kiln::FapInfo>());
  Ref<KilnMdb::CapabilitiesStatus> profiles = std::make_shared<KilnMdb::CapabilitiesStatus>();
  Ref<KilnMdb::MdbLocalStatus> profileIds = std::make_shared<KilnMdb::MdbLocalStatus>();
  Ref<KilnTunnelNiLib::SemCapacityExternalDir> users =
      std::make_shared<KilnTunnelNiLib::SemCapacityExternalDir>(
          makeCollection<std::string, KilnTunnelNiLib::SemCapacityExternal>());
  Ref<EmSwTableConfig> config = std::make_shared<EmSwTableConfig>();
  Ref<EmSwTableStatus> status = std::make_shared<EmSwTableStatus>();
  std::map<ResolvedTag, Ref<CountingWriter>> writers;
  Ref<SemCapacitySm> sm;
  std::uint32_t statusNumber = 0;
};

TEST_F(Capacity, ExternalUseBeyondTheMaximumDoesNotWrap) {
  addFap(4, 4);
  start();
  use("b", 4, 1, 2, 5);
  use("a", 4, 1, 0, 600);
  EXPECT_EQ("1205 0 1000", row("ISEM1", "SRv6", "Fap4/1"));
  use("a", 4, 1, 0, 0xffffffff);
  EXPECT_EQ("4294967295 0 1000", row("ISEM1", "SRv6", "Fap4/1"));
}

TEST_F(Capacity, RowsOfRemovedFapsAreRemovedAlsoAfterARestart) {
  const TableCapacityKey foreign{"ISEM1", "", "another agent", "Fap9/0"};
  table->entry().is({"ISEM1", "", "SemCapacity", "Fap9/0"}, {1, 2, 0, 3});
  table->entry().is({"ISEM3", "", "SemCapacity", "Fap4/0"}, {1, 2, 0, 3});
  table->entry().is(foreign, {1, 2, 0, 3});
  addFap(4, 4);
  addFap(5, 5);
  start();
  EXPECT_EQ("none", row("ISEM1", "", "Fap9/0"));
  EXPECT_EQ("none", row("ISEM3", "", "Fap4/0"));
  hardware->fap().del(FapId(4));
  bench.settle();
  EXPECT_EQ("none", row("ESEM", "", "Fap4/1"));
  EXPECT_EQ("0 1000 1000", row("ESEM", "", "Fap5/1"));
  EXPECT_TRUE(table->entry().has(foreign));
  hardware->fap().is(FapId(5), {"Fap5", 5, {LocalCoreId(0)}});
  bench.settle();
  EXPECT_EQ("none", row("ESEM", "", "Fap5/1")) << "the core is gone";
  profileIds->profileIdDel(FapId(5));
  bench.settle();
  EXPECT_EQ(1U, table->entry().size());
}

TEST_F(Capacity, RowsAreWrittenOnlyIfTheirNumbersChange) {
  addFap(4, 4);
  start();
  const TableCapacityKey changing{"ISEM2", "", "SemCapacity", "Fap4/0"};
  const TableCapacityKey steady{"ESEM", "", "SemCapacity", "Fap4/0"};
  clock->time = std::chrono::nanoseconds(500);
  const Recorder recorder(table->entry());
  holdEntries(ResolvedTag::isem2TagEntryKey, 3);
  EXPECT_EQ(2U, recorder.changes.size()) << "one row for each core";
  EXPECT_EQ(500, table->entry().get(changing)->updated.count());
  EXPECT_EQ(1, table->entry().get(steady)->updated.count());
  sm.reset();
  clock->time = std::chrono::nanoseconds(900);
  start();
  EXPECT_EQ(2U, recorder.changes.size()) << "a new process wrote what stood there";
}

TEST_F(Capacity, UpdateCostIsIndependentOfTheNumberOfEntries) {
  for (std::uint16_t fap = 0; fap < 8; ++fap) addFap(fap, 4);
  start();
  const Recorder recorder(table->entry());
  std::set<std::tuple<std::uint64_t, std::size_t, std::size_t, std::uint64_t>> costs;
  for (const std::uint32_t entries : {1000U, 500000U}) {
    const auto updates = sm->counters().updates;
    const std::size_t askedBefore = asked();
    const auto slices = bench.scheduler->counters().slices;
    const std::size_t rows = recorder.changes.size();
    writers.at(ResolvedTag::isemMplsEntryKey)->entries = entries;
    for (std::uint32_t i = 0; i < entries; ++i) status->statusIs(mplsHwKey(statusNumber++), {});
    bench.settle();
    costs.insert({sm->counters().updates - updates, asked() - askedBefore, recorder.changes.size() - rows,
                  bench.scheduler->counters().slices - slices});
  }
  ASSERT_EQ(1U, costs.size()) << "the number of entries matters";
  // One update in one slice: seven writers were read and one row was written for each of 16 cores.
  EXPECT_EQ(std::tuple(1U, 7U * 16, 16U, 1U), *costs.begin());
}

TEST_F(Capacity, EndlessChangesDoNotDelayAnUpdate) {
  addFap(4, 4);
  start();
  const auto before = sm->counters().updates;
  const EndlessLoad churn(bench.scheduler, 10,
                          [&](std::uint32_t slice) { status->statusIs(mplsHwKey(slice), {}); });
  bench.scheduler->run(std::size_t{CapacityHelper::kPatience} * 5);
  EXPECT_GE(sm->counters().updates - before, 4U);
  EXPECT_LE(sm->counters().updates - before, 5U) << "the rate is not bounded";
}

using CapacityDeathTest = Capacity;

TEST_F(CapacityDeathTest, UnknownTypesAndMissingProfilesAreFatal) {
  EXPECT_DEATH(entryWidth60Bit(ResolvedTag::lemVpwsAcEntryKey), "Unsupported keyType lemVpwsAcEntryKey");
  EXPECT_DEATH(entryWidth60Bit(ResolvedTag::undefined_), "Unsupported keyType ");
  EXPECT_DEATH(entryWidth60Bit(KilnTunnelNiLib::SemType{1}), "Unsupported type 1");
  EXPECT_DEATH(physicalTableIdForKeyType(ResolvedTag::lemVpwsAcEntryKey, 4), "Unsupported keyType ");
  EXPECT_DEATH(physicalTableIdForKeyType(ResolvedTag::isemMplsEntryKey, 6), "Unsupported FapType 6");
  EXPECT_DEATH(physicalTableIdForExternalType(2, 3, 0), "Unsupported type 2");
  EXPECT_DEATH(physicalTableIdForExternalType(0, 2, 0), "Unsupported FapType 2");
  EXPECT_DEATH(isTableOnFapTypeCore(7, LocalCoreId(0), 64), "Unsupported fapType 7");
  addFap(4, 4);
  start();
  EXPECT_DEATH(static_cast<void>(sm->calculateMdbEmMax(64, FapId(9))), "profileIdHas");
  EXPECT_DEATH(static_cast<void>(sm->calculateMdbEmMax(63, FapId(4))), "tableHas");
  profileIds->profileIdIs(FapId(5), 2);
  EXPECT_DEATH(static_cast<void>(sm->calculateMdbEmMax(64, FapId(5))), "profileCapabilities");
  ProfileCapabilities otherKind = profileOf(kMax);
  otherKind.tables.front().exactMatch = false;
  profiles->profileCapabilitiesIs(2, otherKind);
  EXPECT_DEATH(static_cast<void>(sm->calculateMdbEmMax(64, FapId(5))), "emCapabilities");
  const auto lem = std::make_shared<CountingWriter>(ResolvedTag::lemVpwsAcEntryKey, config, status, bench);
  sm->swTableWriterIs(lem);
  EXPECT_DEATH(bench.settle(), "Unsupported keyType lemVpwsAcEntryKey");
  sm->swTableWriterDel(ResolvedTag::lemVpwsAcEntryKey);
}

// --- Alarms ------------------------------------------------------------------------------------------------

class Monitor : public testing::Test {
 protected:
  using Event = KilnAgent::CapacityMonitor::Event;

  void use(const char* chip, std::uint32_t used, const char* feature = "", std::uint32_t max = 100) {
    table.entry().is({"ISEM1", feature, "agent", chip}, {used, max - std::min(max, used), 0, max, ++time});
  }
  /// The events so far, as "raised Fap0/0 90".
  std::string events() {
    bench.settle();
    std::string text;
    for (const auto& alarm : monitor.alarms()) {
      text += fmt::format("{} {} {};", eventName(alarm.event), alarm.instance.chip, alarm.usage.used);
    }
    return text;
  }

  Bench bench;
  KilnPlatform::TableCapacity table{makeCollection<TableCapacityKey, TableCapacityEntry>()};
  KilnAgent::CapacityMonitor monitor{table, bench.scheduler};
  std::chrono::nanoseconds time{0};
};

TEST_F(Monitor, LoadThatOscillatesAroundAThresholdRaisesOneAlarm) {
  for (int i = 0; i < 50; ++i) {
    for (const std::uint32_t used : {89U, 91U, 80U, 90U}) {
      use("Fap0/0", used);
      bench.settle();
    }
  }
  EXPECT_EQ("raised Fap0/0 91;", events());
  for (const std::uint32_t used : {79U, 81U, 89U, 79U}) use("Fap0/0", used), bench.settle();
  EXPECT_EQ("raised Fap0/0 91;cleared Fap0/0 79;", events());
  use("Fap0/0", 90);
  EXPECT_EQ("raised Fap0/0 91;cleared Fap0/0 79;raised Fap0/0 90;", events());
}

TEST_F(Monitor, InstancesShareNoState) {
  use("Fap0/0", 95);
  use("Fap0/1", 85);
  EXPECT_EQ("raised Fap0/0 95;", events());
  use("Fap0/1", 79);
  use("Fap0/0", 85);
  EXPECT_EQ("raised Fap0/0 95;", events());
}

TEST_F(Monitor, UsageThatMovesBetweenFeaturesRaisesNoAlarm) {
  use("Fap0/0", 90);
  use("Fap0/0", 5, "SRv6");
  EXPECT_EQ("raised Fap0/0 95;", events());
  use("Fap0/0", 5);
  use("Fap0/0", 90, "SRv6");
  EXPECT_EQ("raised Fap0/0 95;", events());
}

TEST_F(Monitor, RemovedTableLosesItsAlarmAndHighWatermark) {
  use("Fap0/0", 95);
  bench.settle();
  use("Fap0/0", 10);
  bench.settle();
  EXPECT_EQ(95U, monitor.instances().begin()->second.highWatermark.used);
  EXPECT_EQ(1, monitor.instances().begin()->second.highWatermark.time.count());
  use("Fap0/0", 92);
  EXPECT_EQ("raised Fap0/0 95;cleared Fap0/0 10;raised Fap0/0 92;", events());
  table.entry().delAll();
  EXPECT_EQ("raised Fap0/0 95;cleared Fap0/0 10;raised Fap0/0 92;table gone Fap0/0 92;", events());
  use("Fap0/0", 10);
  bench.settle();
  EXPECT_EQ(10U, monitor.instances().begin()->second.highWatermark.used);
}

TEST_F(Monitor, ATableWithoutRoomIsFullAsSoonAsItIsUsed) {
  use("Fap0/0", 0, "", 0);
  EXPECT_EQ("", events());
  use("Fap0/0", 1, "", 0);
  EXPECT_EQ("raised Fap0/0 1;", events());
  use("Fap0/0", 0, "", 0);
  EXPECT_EQ("raised Fap0/0 1;cleared Fap0/0 0;", events());
}

// --- The whole server --------------------------------------------------------------------------------------

using KilnAgent::EmbeddedAgent;
using KilnAgent::Scenario;

/// FAPs of the three types, and a second profile that lacks tables.
KilnAgent::ChipConfig threeTypes(std::uint32_t max = 40) {
  KilnAgent::ChipConfig chip = KilnAgent::defaultChip();
  chip.faps.clear();
  for (std::uint16_t i = 0; i < 3; ++i) {
    const auto type = static_cast<Hardware::Kiln::FapType>(3 + i);
    chip.faps.push_back({FapId(i), {fmt::format("Fap{}", i), type, {LocalCoreId(0), LocalCoreId(1)}}, 1});
  }
  chip.profiles[1] = profileOf(max);
  chip.profiles[2].tables = {{64, true, {{60, 8}}}, {65, false, {}}, {66, true, {{120, 5}}}};
  return chip;
}

std::string innerEthLine(const char* op) {
  return isemLine(op, "vpws", "isemInnerEth", R"("vsi":1,"profile":0)", R"("lif":1,"vsi":1)");
}
const std::string kInnerEth = innerEthLine("publish");
const std::string kInnerEthAgain = innerEthLine("withdraw") + "\n{\"op\":\"settle\"}\n" + kInnerEth;

/// An agent with FAPs of all types that runs scenarios.
struct Server {
  explicit Server(std::uint32_t max = 40) : agent(optionsOf(max)) {}
  static KilnAgent::AgentOptions optionsOf(std::uint32_t max) {
    KilnAgent::AgentOptions options;
    options.chip = threeTypes(max);
    return options;
  }
  void run(const std::string& text) {
    std::istringstream lines(text);
    scenario.run(lines, "test");
    scenario.settle();
  }
  [[nodiscard]] nlohmann::json shown() const {
    return nlohmann::json::parse(KilnAgent::capacityJson(agent, monitor));
  }
  /// The row of a table of Fap1, core 0.
  [[nodiscard]] nlohmann::json tableOf(const char* name) const {
    const auto rows = shown();
    for (const auto& row : rows.at("tables")) {
      if (row.at("table") == name && row.at("fap") == "Fap1" && row.at("core") == "0") return row;
    }
    return nullptr;
  }

  EmbeddedAgent agent;
  KilnAgent::CapacityMonitor monitor{agent.capacity(), agent.store().taskScheduler()};
  Scenario scenario{agent, false, 1, {}};
};

TEST(CapacityOfTheServer, ChangedProfileChangesTheMaxima) {
  Server server;
  server.run("");
  server.agent.chip().mdbStatus()->profile().is(1, profileOf(77));
  server.agent.chip().mdbStatus()->profile().is(9, profileOf(5));
  server.scenario.settle();
  EXPECT_EQ(77, server.tableOf("ESEM").at("max-limit"));
  const auto& own = dynamic_cast<const KilnEmServerSm&>(server.agent.server());
  EXPECT_EQ(1U, own.mdbCapabilitiesStatus()->profileCapabilities().size()) << "of profiles that no FAP uses";
  server.agent.chip().mdbStatus()->profile().del(1);
  server.scenario.settle();
  EXPECT_TRUE(server.agent.capacity().entry().empty());
}

TEST(CapacityOfTheServer, AFapKeepsItsRowsWhileItChangesItsProfile) {
  Server server;
  server.agent.chip().mdbStatus()->profile().is(9, profileOf(50));
  server.run("");
  // Updates are done at their deadline, whatever other tasks are ready.
  const EndlessLoad churn(server.agent.store().taskScheduler(), 0, [&](std::uint32_t slice) {
    server.agent.externalUsers().user().is("churn", {{{FapId(1), LocalCoreId(0), 0, slice % 2}}});
  });
  const TableCapacityKey row{"ESEM", "", "SemCapacity", "Fap1/0"};
  std::size_t absent = 0;
  for (std::uint32_t slice = 0; slice < 40 * CapacityHelper::kPatience; ++slice) {
    if (slice % 7 == 0) server.agent.chip().profileIs(FapId(1), slice % 2 == 0 ? 1 : 9);
    server.agent.scheduler().run(1);
    if (!server.agent.capacity().entry().has(row)) ++absent;
  }
  EXPECT_EQ(0U, absent);
}

TEST(CapacityOfTheServer, RequestsBeyondTheMaximumAreReportedSeparately) {
  Server server(6);
  std::string lines = R"({"op":"table","table":"isemInnerEth","answer":"hold"})";
  for (int label = 1; label <= 5; ++label) lines += "\n" + publishLine(label);
  server.run(lines);
  server.run(kInnerEth);
  const auto table = server.tableOf("ISEM1");
  EXPECT_EQ(6, table.at("used"));
  EXPECT_EQ(6, table.at("max-limit"));
  EXPECT_EQ(0, table.at("free"));
  EXPECT_EQ(12, table.at("requested"));
  EXPECT_EQ(4, table.at("failed"));
  EXPECT_EQ(2, table.at("pending"));
  EXPECT_TRUE(table.at("used-threshold-upper-exceeded").get<bool>());
  EXPECT_EQ(server.tableOf("ISEM2").at("requested"), 0);
}

TEST(CapacityOfTheServer, KeyTypesShareTheRoomOfTheSmallestFap) {
  Server server(6);
  const auto innerEth = [&] { return server.agent.chip().table(ResolvedTag::isemInnerEthEntryKey).fill(); };
  server.run(publishLine(1) + "\n" + publishLine(2) + "\n" + publishLine(3));
  server.run(kInnerEth);
  EXPECT_EQ(0U, innerEth()) << "there is room for three wide entries";
  server.run(withdrawLine(3));
  server.run(kInnerEthAgain);
  EXPECT_EQ(1U, innerEth());
  // A FAP whose profile is smaller than the others' keeps the stored entries, and accepts no more.
  server.run(R"({"op":"profile","fapId":2,"profile":2})");
  server.run(withdrawLine(1));
  EXPECT_EQ(1U, innerEth());
  server.agent.chip().mdbStatus()->profile().is(2, {{{64, true, {{60, 3}}}}});
  server.run(kInnerEthAgain);
  EXPECT_EQ(0U, innerEth()) << "beside an MPLS entry";
  server.agent.crash();
  server.run(R"({"op":"removeFap","fapId":2})");
  server.run(kInnerEthAgain);
  EXPECT_EQ(1U, innerEth());
}

TEST(CapacityOfTheServer, AlarmsFollowTheLoadAndSurviveARestart) {
  Server server(20);
  for (int label = 0; label < 9; ++label) server.run(publishLine(label));
  const auto raisedOnly = server.shown().at("alarms");
  EXPECT_EQ(5U, raisedOnly.size()) << "ISEM1 of two FAPs with two cores, ISEM2 of one";
  server.run(R"({"op":"restart"})");
  for (int i = 0; i < 5; ++i) server.run(withdrawLine(8)), server.run(publishLine(8));
  EXPECT_EQ(raisedOnly, server.shown().at("alarms"));
  server.run(withdrawLine(8) + "\n" + withdrawLine(7));
  EXPECT_EQ(10U, server.shown().at("alarms").size());
  EXPECT_EQ(18, server.tableOf("ISEM1").at("high-watermark"));
  EXPECT_EQ(14, server.tableOf("ISEM1").at("used"));
}

TEST(CapacityOfTheServer, OperationsThatTheHardwareDoesNotAllowAreRefused) {
  Server server;
  const auto refusal = [&](const char* line) {
    try {
      server.scenario.runLine(line);
    } catch (const KilnAgent::InputError& error) {
      return std::string(error.what());
    }
    return std::string("accepted");
  };
  EXPECT_EQ("there is a FAP 1 already",
            refusal(R"({"op":"addFap","id":1,"name":"Other","type":4,"cores":[0],"profile":1})"));
  EXPECT_EQ("there is a FAP named Fap1 already",
            refusal(R"({"op":"addFap","id":7,"name":"Fap1","type":4,"cores":[0],"profile":1})"));
  EXPECT_EQ("the chip has no profile 5", refusal(R"({"op":"profile","fapId":1,"profile":5})"));
  EXPECT_EQ("there is no FAP 7", refusal(R"({"op":"profile","fapId":7,"profile":1})"));
  EXPECT_NE(refusal(R"({"op":"addFap","id":7,"name":"Fap7","type":6,"cores":[0]})").find("type"),
            std::string::npos);
  EXPECT_NE(refusal(R"({"op":"externalUser","name":"u","usage":[{"fapId":0,"localCoreId":7,"semType":0,)"
                    R"("entries":1}]})")
                .find("localCoreId"),
            std::string::npos);
  EXPECT_EQ("accepted", refusal(R"({"op":"removeFap","fapId":7})"));
}

}  // namespace
}  // namespace KilnTest
