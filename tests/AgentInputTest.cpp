// Invalid input of the agent: numbers, chip files and outputs of the command line.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>

#include "kiln/agent/chip/ChipConfig.h"
#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/io/InputError.h"
#include "kiln/agent/report/Report.h"
#include "kiln/agent/scenario/Scenario.h"
#include "kiln/runtime/trace/Trace.h"
#include "tests/CommandLine.h"
#include "tests/Lines.h"
#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

using KilnAgent::InputError;

class AgentInput : public CommandLine {};

TEST_F(AgentInput, NumbersOfTheCommandLineAreWholeAndInRange) {
  for (const char* arguments : {"--requests -1", "--requests ''", "--requests 1000000001", "--requests 0x10",
                                "--requests 1 --seed -1", "--requests 1 --seed 18446744073709551616"}) {
    const Result result = run(std::string("generate ") + arguments);
    EXPECT_EQ(result.code, 2) << arguments;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  }
  const std::string lines = write("in.jsonl", publishLine(1));
  EXPECT_EQ(run("run --yield-every 4294967296 " + lines).code, 2);
  EXPECT_EQ(run("run --seed -1 " + lines).code, 2);
  for (const char* argument : {"--trace 010", "--trace 0x1", "--upper 0", "--upper 101", "--clear 0x10"}) {
    EXPECT_EQ(run(fmt::format("show capacity {} {}", argument, lines)).code, 2) << argument;
  }
  EXPECT_NE(run("show capacity --upper 020 --clear 021 " + lines).err.find("--clear 21 is above --upper 20"),
            std::string::npos);
  const Result generated = run("generate --requests 010");
  EXPECT_EQ(generated.code, 0);
  EXPECT_NE(generated.out.find("--requests 10 "), std::string::npos);
}

TEST_F(AgentInput, EmptyOptionsAndTooMuchMemoryAreRefusedInOneLine) {
  const std::string lines = write("in.jsonl", publishLine(1));
  for (const std::string& arguments :
       {"run --state '' " + lines, std::string("serve --state ''"),
        "serve --socket '' --state " + (directory / "state"), "run --dump '' " + lines,
        "run --chip '' " + lines, "run --trace-file '' " + lines, std::string("run ''"),
        "serve --reserve 1048576 --state " + (directory / "state"),
        "serve --reserve 010x --state " + (directory / "state")}) {
    const Result result = run(arguments);
    EXPECT_EQ(2, result.code) << arguments << result.err;
    EXPECT_EQ(1, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
  }
}

TEST_F(AgentInput, FailingOutputIsReportedAndFailingInputWritesNoDump) {
  const std::string lines = write("in.jsonl", publishLine(1));
  for (const char* output : {">/dev/full", ">&-"})
    EXPECT_EQ(run("run " + lines + " " + output).code, 2) << output;
  EXPECT_EQ(run("run - <&-").code, 2);
  EXPECT_EQ(run("run " + lines + " --trace 9 --trace-file /dev/full").code, 0);
  EXPECT_EQ(
      run("run " + lines + " --dump " + (directory / "dump") + " --chip " + (directory / "nowhere")).code, 2);
  EXPECT_EQ(run("run " + lines + " --dump " + (directory / "dump") + " --trace-stage x").code, 2);
  EXPECT_FALSE(std::filesystem::exists(directory / "dump"));
}

TEST_F(AgentInput, UnreadableChipFilesAndDuplicateNamesAreRefused) {
  const auto chipError = [&](const std::string& text) {
    const std::string file = write("chip.json", text);
    return errorOf([&] { KilnAgent::readChipFile(file); });
  };
  EXPECT_EQ(errorOf([&] { KilnAgent::readChipFile(directory / ""); }),
            (directory / "") + ": the chip file cannot be read");
  EXPECT_EQ(chipError(R"({"tables":{"isemMpls":1,"isemMpls":2}})"),
            (directory / "chip.json") + ": field \"isemMpls\" is given twice");
  EXPECT_EQ(chipError(R"({"profiles":[{"id":1,"tables":[)"
                      R"({"id":37,"exactMatch":true,"entriesByWidth":{"060":1,"60":2}}]}]})"),
            (directory / "chip.json") + ": profiles.tables.entriesByWidth: the width 60 is given twice");
  EXPECT_EQ(chipError(R"({"profiles":[{"id":1,"tables":[{"id":37,"exactMatch":true,"entriesByWidth":{}},)"
                      R"({"id":37,"exactMatch":false,"entriesByWidth":{}}]}]})"),
            (directory / "chip.json") + ": profiles.tables: the table 37 is given twice");
  EXPECT_EQ(chipError(R"({"faps":[{"id":1,"name":"A","type":4,"cores":[0,1,0]}]})"),
            (directory / "chip.json") + ": faps.cores: the core 0 is given twice");
}

TEST(AgentLines, ErrorsAreOneLineWithFileAndLine) {
  KilnAgent::EmbeddedAgent agent({});
  KilnAgent::Scenario scenario(agent, false, 1, {});
  const auto errorOfLine = [&](const std::string& line) {
    std::istringstream lines("\n" + line);
    return errorOf([&] { scenario.run(lines, "in"); });
  };
  EXPECT_EQ(errorOfLine(R"({"op":1e400})"), "in:2: not a line of JSON: number overflow parsing '1e400'");
  EXPECT_EQ(errorOfLine(R"({"op":"a\u0000\nb"})"), "in:2: op: unknown operation \"a  b\"");
  const std::string cut = errorOfLine(R"({"op":")" + std::string(10'000, 'x') + R"("})");
  EXPECT_TRUE(cut.ends_with("xxx...")) << cut;
  EXPECT_LE(cut.size(), 310U);
}

// A task of the stages' priority that is always ready: tables and VLAN-domain service still get their turn,
// so that a request that needs both is programmed.
TEST(AgentTasks, TablesAnswerUnderEndlessLoad) {
  KilnAgent::EmbeddedAgent agent({});
  KilnAgent::Scenario scenario(agent, false, 1, {});
  scenario.settle();
  const EndlessLoad load(agent.store().taskScheduler(), 10, [](std::uint32_t /*slice*/) {});
  scenario.runLine(untaggedLine("publish", "subinterface", 1));
  agent.scheduler().run(100 * std::size_t{KilnAgent::kAgentPatience});
  EXPECT_EQ(agent.chip().table(KilnEmServer::EmResolvedKeyUnionTag::isemUntaggedEntryKey).fill(), 1U);
  const auto& statuses =
      agent.store().statuses<KilnTunnelNiLib::Isem>(KilnEmServer::FeatureType::subinterface)->status();
  ASSERT_EQ(statuses.size(), 1U);
  KilnPlatform::forEachIn(statuses, [](const auto& /*key*/, const auto& status) {
    EXPECT_EQ(status.status, KilnEmServer::EmStatus::hwSuccess);
  });
}

TEST(AgentWatch, OverflowIsReported) {
  KilnAgent::EmbeddedAgent agent({});
  KilnAgent::Scenario scenario(agent, false, 1, {});
  scenario.runLine(R"({"op":"watch"})");
  const std::string expect =
      R"({"op":"expect","feature":"mpls","database":"isem","absent":true,"untouched":true,"now":true,)"
      R"("key":{"isemMplsEntryKey":{"label":1,"labelSpace":1}}})";
  scenario.runLine(expect);
  for (std::uint32_t label = 0; label <= KilnAgent::TouchRecord::kMost; ++label) {
    agent.store().restoreStatus<KilnTunnelNiLib::Isem>(
        KilnEmServer::FeatureType::mpls, {.key = {{}, {}, KilnTunnelNiLib::IsemMplsComposerKey{label, 0}}});
  }
  EXPECT_EQ(
      "more than 100000 statuses and entries were touched since the last watch; what was touched is not "
      "known any more",
      errorOf([&] { scenario.runLine(expect); }));
}

TEST(AgentReport, ShowsTablesThatHoldMoreThanTheirCapacityAndTheSeed) {
  KilnAgent::AgentOptions options;
  options.seed = 17;
  KilnAgent::EmbeddedAgent agent(options);
  KilnAgent::Scenario scenario(agent, false, 1, {});
  for (int label = 0; label < 3; ++label) scenario.runLine(publishLine(label));
  for (const char* capacity : {"1", "0"}) {
    scenario.settle();
    scenario.runLine(fmt::format(R"({{"op":"table","table":"isemMpls","capacity":{}}})", capacity));
    const std::string report = KilnAgent::reportText(agent, scenario.counters());
    const char* percent = *capacity == '0' ? "100.0" : "300.0";
    EXPECT_NE(report.find(fmt::format("[{:#<40}] 3 of {} ({} %)", "", capacity, percent)), std::string::npos)
        << report;
    EXPECT_NE(report.find(" yields, seed 17\n"), std::string::npos) << report;
  }
}

TEST(AgentTraces, FullSinksDoNotFail) {
  const KilnPlatform::TraceRecord record{KilnPlatform::TraceDescriptor{1, "x"}, "stage", "x"};
  KilnEmServer::RingTraceSink ring(0);
  ring.write(record);
  EXPECT_TRUE(ring.messages().empty());
  std::FILE* full = std::fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  std::setbuf(full, nullptr);
  EXPECT_NO_THROW(KilnEmServer::StreamTraceSink(full).write(record));
  std::fclose(full);
}

}  // namespace
}  // namespace KilnTest
