// What a scenario's author is told of mistakes, and what of such a scenario takes effect.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "agent/EmbeddedAgent.h"
#include "agent/InputError.h"
#include "agent/Scenario.h"
#include "sim/Recompute.h"
#include "tests/Golden.h"

namespace KilnTests {
namespace {

using namespace KilnSim;

const std::string kGood =
    R"({"op":"publish","feature":"mpls","database":"isem","requestVersion":1,)"
    R"("key":{"isemMplsEntryKey":{"label":1,"labelSpace":0}},"entry":{"isemMplsEntry":{"lif":7,"vsi":3}}})";

/// A publish of which some part is given.
std::string publish(const std::string& key, const std::string& rest = "", const char* database = "isem",
                    const std::string& entry = R"({"isemMplsEntry":{"lif":7,"vsi":3}})") {
  return fmt::format(
      R"({{"op":"publish","feature":"mpls","database":"{}","key":{},"entry":{},"requestVersion":1{}}})",
      database, key, entry, rest);
}
std::string mplsKey(const std::string& fields) {
  return R"({"isemMplsEntryKey":{)" + fields + "}}";
}
std::string oneTagKey(const char* vlanId) {
  return fmt::format(R"({{"isem1TagEntryKey":{{"intfId":1,"systemTcamId":0,"vlanId":{}}}}})", vlanId);
}

struct Mistake {
  const char* name;
  std::string line;
  const char* told;  ///< part of what is said of it
};

std::ostream& operator<<(std::ostream& out, const Mistake& mistake) {
  return out << mistake.line;
}

std::string mistakeName(const testing::TestParamInfo<Mistake>& info) {
  return info.param.name;
}

class MalformedLine : public testing::TestWithParam<Mistake> {};

TEST_P(MalformedLine, EndsTheRunThereWithNothingOfItExecuted) {
  KilnAgent::EmbeddedAgent agent({});
  KilnAgent::Scenario scenario(agent, false, 1, {});
  std::istringstream lines("// a comment\n" + kGood + "\n\n" + GetParam().line + "\n" +
                           publish(mplsKey(R"("label":2,"labelSpace":0)")) + "\n");
  std::string told;
  try {
    scenario.run(lines, "some.jsonl");
  } catch (const KilnAgent::InputError& error) {
    told = error.what();
  }
  EXPECT_TRUE(told.starts_with("some.jsonl:4: ")) << told;
  EXPECT_NE(told.find(GetParam().told), std::string::npos) << told;
  EXPECT_EQ(told.find('\n'), std::string::npos) << told;
  agent.settle();
  EXPECT_EQ(1U, wantedOf(agent).requests.size());
  EXPECT_EQ("", difference(recompute(wantedOf(agent)), outcomeOf(agent)));
  agent.chip().forEachTable([](const KilnAgent::SoftTable& table) {
    EXPECT_EQ(KilnAgent::SoftTable::AnswerMode::success, table.answerMode());
  });
}

std::string manyFields() {
  std::string line = "{";
  for (int field = 0; field < 100'000; ++field) line += fmt::format("\"{}\":0,", field);
  return line + R"("op":"settle"})";
}

const Mistake kMistakes[] = {
    {"noJson", R"({"op":"settle")", "not a line of JSON"},
    {"noObject", "[]", "object"},
    {"deepNesting",
     R"({"op":"addFap","cores":)" + std::string(100'000, '[') + std::string(100'000, ']') + "}",
     "more than 32 levels are nested"},
    {"manyFields", manyFields(), "more than 64 fields"},
    {"noOperation", R"({"feature":"mpls"})", "op"},
    {"unknownOperation", R"({"op":"publich"})", "unknown operation \"publich\""},
    {"unknownFeature", R"({"op":"removeFeature","feature":"ipsec"})", "ipsec"},
    {"unknownDatabase", R"({"op":"withdrawAll","feature":"mpls","database":"tcam"})", "tcam"},
    {"unknownTable", R"({"op":"table","table":"isem3Tag","answer":"hold"})", "unknown table \"isem3Tag\""},
    {"unknownAnswer", R"({"op":"table","table":"isemMpls","answer":"later"})", "later"},
    {"unknownField", R"({"op":"table","table":"isemMpls","answer":"hold","quick":true})", "quick"},
    {"unknownKeyField", publish(mplsKey(R"("label":2,"labelSpace":0,"ttl":1)")), "ttl"},
    {"unknownKind", publish(mplsKey(R"("label":2,"labelSpace":0)"), R"(,"requestKind":"drop")"), "drop"},
    {"missingKeyField", publish(mplsKey(R"("label":2)")), "labelSpace"},
    {"missingEntry",
     R"({"op":"publish","feature":"mpls","database":"isem","requestVersion":1,"key":)" +
         mplsKey(R"("label":2,"labelSpace":0)") + "}",
     "entry"},
    {"fieldTwice", R"({"op":"table","table":"isemMpls","answer":"hold","answer":"refuse"})", "given twice"},
    {"wideVlan",
     publish(oneTagKey("70000"), "", "isem", R"({"isem1TagEntry":{"lif":1,"vsi":1,"profile":0}})"), "vlanId"},
    {"wideLabel", publish(mplsKey(R"("label":4294967296,"labelSpace":0)")), "label"},
    {"wideLabelSpace", publish(mplsKey(R"("label":2,"labelSpace":256)")), "labelSpace"},
    {"negativeLabel", publish(mplsKey(R"("label":-1,"labelSpace":0)")), "label"},
    {"fractionalLabel", publish(mplsKey(R"("label":1.5,"labelSpace":0)")), "label: a fraction"},
    {"exponent", publish(mplsKey(R"("label":1e3,"labelSpace":0)")), "an exponent"},
    {"negativeZero", publish(mplsKey(R"("label":-0,"labelSpace":0)")), "-0 is out of range"},
    {"nul", publish(mplsKey(R"("label":2,"labelSpace":0)")) + '\0' + "x", "NUL"},
    {"endless", std::string(1'100'000, ' '), "more than 1048576 bytes"},
    {"labelInQuotes", publish(mplsKey(R"("label":"2","labelSpace":0)")), "label"},
    {"wideFapId", publish(R"({"fapId":65536,"localCoreId":0,"isemMplsEntryKey":{"label":2,"labelSpace":0}})"),
     "fapId"},
    {"wideCore", publish(R"({"fapId":0,"localCoreId":7,"isemMplsEntryKey":{"label":2,"labelSpace":0}})"),
     "localCoreId"},
    {"wideDomain", R"({"op":"allot","intfId":1,"systemTcamId":0,"vlanDomain":65536})", "vlanDomain"},
    {"allotWhileAutomatic", R"({"op":"allot","intfId":1,"systemTcamId":0,"vlanDomain":5})", "manual"},
    {"unknownStatus",
     R"({"op":"expect","feature":"mpls","database":"isem","status":"fine","key":)" +
         mplsKey(R"("label":1,"labelSpace":0)") + "}",
     "fine"},
    {"expectsNothing",
     R"({"op":"expect","feature":"mpls","database":"isem","key":)" + mplsKey(R"("label":1,"labelSpace":0)") +
         "}",
     "absent"},
    {"untouchedWithoutWatch",
     R"({"op":"expect","feature":"mpls","database":"isem","result":1,"untouched":true,"key":)" +
         mplsKey(R"("label":1,"labelSpace":0)") + "}",
     R"({"op":"watch"} must come first)"},
    {"keyOfAnotherTable",
     R"({"op":"expectTable","table":"esemFodo","absent":true,"key":)" +
         mplsKey(R"("label":1,"labelSpace":0)") + "}",
     "not a key of the table"},
};

INSTANTIATE_TEST_SUITE_P(All, MalformedLine, testing::ValuesIn(kMistakes), mistakeName);

class RefusedRequest : public testing::TestWithParam<Mistake> {};

TEST_P(RefusedRequest, IsToldInWordsAndTheRunGoesOn) {
  KilnAgent::EmbeddedAgent agent({});
  std::string told;
  KilnAgent::Scenario scenario(agent, false, 1, [&](const std::string& text) { told += text; });
  std::istringstream lines("\n" + GetParam().line + "\n" + kGood + "\n");
  scenario.run(lines, "some.jsonl");
  EXPECT_EQ(1U, scenario.counters().refusals);
  EXPECT_TRUE(told.starts_with("some.jsonl:2: ")) << told;
  EXPECT_NE(told.find("refused: "), std::string::npos) << told;
  EXPECT_NE(told.find(GetParam().told), std::string::npos) << told;
  agent.settle();
  const Outcome outcome = outcomeOf(agent);
  EXPECT_EQ(1U, wantedOf(agent).requests.size());
  EXPECT_EQ(1U, outcome.tables.size());
  EXPECT_EQ("", difference(recompute(wantedOf(agent)), outcome));
}

std::string acKey(const char* inLif, const char* outerVlanId, const char* innerPcp) {
  return fmt::format(
      R"({{"lemVpwsAcEntryKey":{{"inLif":{},"outerVlanId":{},"innerVlanId":0,"outerPcp":0,"innerPcp":{}}}}})",
      inLif, outerVlanId, innerPcp);
}
const std::string kAcEntry = R"({"lemVpwsAcEntry":{"outLif":1,"destination":2,"statisticsId":3}})";
const std::string kOneTagEntry = R"({"isem1TagEntry":{"lif":1,"vsi":1,"profile":0}})";
const std::string kFodoEntry = R"({"esemFodoEntry":{"outLif":1,"editProfile":2}})";

const Mistake kRefusals[] = {
    {"vlan", publish(oneTagKey("5000"), "", "isem", kOneTagEntry), "vlanId is 5000"},
    {"inLif", publish(acKey("1048576", "0", "0"), "", "lem", kAcEntry), "inLif is 1048576"},
    {"outerVlan", publish(acKey("0", "4096", "0"), "", "lem", kAcEntry), "outerVlanId is 4096"},
    {"innerPcp", publish(acKey("0", "0", "8"), "", "lem", kAcEntry), "innerPcp is 8"},
    {"fodoId", publish(R"({"esemFodoEntryKey":{"fodoId":262144}})", "", "esem", kFodoEntry),
     "fodoId is 262144"},
    {"allChipsOneCore", publish(R"({"localCoreId":1,"isemMplsEntryKey":{"label":2,"labelSpace":0}})"),
     "both must be \"all\" or both specific"},
    {"oneChipAllCores", publish(R"({"fapId":1,"isemMplsEntryKey":{"label":2,"labelSpace":0}})"),
     "both must be \"all\" or both specific"},
    {"database", publish(mplsKey(R"("label":2,"labelSpace":0)"), "", "lem"), "not of lem"},
    {"entry", publish(mplsKey(R"("label":2,"labelSpace":0)"), "", "isem", kOneTagEntry), "isem1TagEntry"},
    {"kind", publish(mplsKey(R"("label":2,"labelSpace":0)"), R"(,"requestKind":7)"), "request kind 7"},
};

INSTANTIATE_TEST_SUITE_P(All, RefusedRequest, testing::ValuesIn(kRefusals), mistakeName);

TEST(AcceptedRequest, ReservedVlansAreAllowed) {
  KilnAgent::EmbeddedAgent agent({});
  KilnAgent::Scenario scenario(agent, false, 1, [](const std::string& text) { ADD_FAILURE() << text; });
  scenario.runLine(publish(oneTagKey("0"), "", "isem", kOneTagEntry));
  scenario.runLine(publish(oneTagKey("4095"), "", "isem", kOneTagEntry));
  EXPECT_EQ(2U, wantedOf(agent).requests.size());
}

/// The command line, as a user runs it.
class CommandLine : public testing::Test {
 protected:
  struct Result {
    int code;
    std::string out;
    std::string err;
  };

  /// Runs `kiln-agent run` on a file with these lines.
  Result runLines(const std::string& lines) {
    std::ofstream(path("in.jsonl")) << lines;
    return run("run " + path("in.jsonl"));
  }
  Result run(const std::string& arguments) {
    const auto binary = std::filesystem::read_symlink("/proc/self/exe").parent_path() / kProgram;
    const std::string command = binary.string() + " " + arguments + " >" + path("out") + " 2>" + path("err");
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readWhole(path("out")), readWhole(path("err"))};
  }
  std::string path(const std::string& file) { return directory_ + "/" + file; }
  void SetUp() override {
    directory_ = testing::TempDir() + "kiln-" +
                 testing::UnitTest::GetInstance()->current_test_info()->name() + std::to_string(getpid());
    std::filesystem::create_directories(directory_);
  }
  void TearDown() override { std::filesystem::remove_all(directory_); }

 private:
#ifdef KILN_ORDERED_COLLECTIONS
  static constexpr const char* kProgram = "kiln-agent-ordered";
#else
  static constexpr const char* kProgram = "kiln-agent";
#endif
  std::string directory_;
};

std::string expectLine(const char* status) {
  return R"({"op":"expect","feature":"mpls","database":"isem","status":")" + std::string(status) +
         R"(","key":)" + mplsKey(R"("label":1,"labelSpace":0)") + "}";
}

TEST_F(CommandLine, EndsWithZeroWhereEveryExpectationHolds) {
  const Result result = runLines(kGood + "\n" + expectLine("hwSuccess") + "\n");
  EXPECT_EQ(0, result.code) << result.err;
  EXPECT_EQ("", result.err);
}

TEST_F(CommandLine, EndsWithOneAndTellsWhatWasFoundInstead) {
  const Result result = runLines(kGood + "\n" + expectLine("hwFail") + "\n" + expectLine("hwSuccess") + "\n");
  EXPECT_EQ(1, result.code);
  EXPECT_NE(result.err.find(path("in.jsonl") + ":2: expected "), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("hwFail"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("hwSuccess"), std::string::npos) << result.err;
  EXPECT_EQ(result.err.find(":3: "), std::string::npos) << result.err;
}

TEST_F(CommandLine, EndsWithTwoAtAMalformedLine) {
  const Result result = runLines(kGood + "\n" + R"({"op":"dance"})" + "\n");
  EXPECT_EQ(2, result.code);
  EXPECT_EQ(path("in.jsonl") + ":2: op: unknown operation \"dance\"\n", result.err);
}

TEST_F(CommandLine, EndsWithTwoWhereAFileIsMissing) {
  const Result result = run("run " + path("nowhere.jsonl"));
  EXPECT_EQ(2, result.code);
  EXPECT_NE(result.err.find("nowhere.jsonl"), std::string::npos) << result.err;
}

TEST_F(CommandLine, ARefusedRequestIsToldAndHasItsOwnExitStatus) {
  const Result result = runLines(publish(oneTagKey("5000"), "", "isem", kOneTagEntry) + "\n" + kGood + "\n" +
                                 expectLine("hwSuccess") + "\n");
  EXPECT_EQ(5, result.code) << result.err;
  EXPECT_NE(result.err.find("vlanId is 5000"), std::string::npos) << result.err;
}

}  // namespace
}  // namespace KilnTests
