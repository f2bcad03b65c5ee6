// Errors in scenarios: their texts, and the part of such a scenario that takes effect.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/io/InputError.h"
#include "kiln/agent/scenario/Scenario.h"
#include "sim/Recompute.h"
#include "tests/CommandLine.h"
#include "tests/Lines.h"

namespace KilnTest {
namespace {

using namespace KilnSim;

const std::string kGood = publishLine(1);

/// A publish line with some parts given.
std::string publish(const std::string& key, const std::string& rest = "", const char* database = "isem",
                    const std::string& entry = R"({"isemMplsEntry":{"lif":7,"vsi":3}})") {
  return fmt::format(
      R"({{"op":"publish","feature":"mpls","database":"{}","key":{},"entry":{},"requestVersion":1{}}})",
      database, key, entry, rest);
}
std::string mplsKeyJson(const std::string& fields) {
  return R"({"isemMplsEntryKey":{)" + fields + "}}";
}
std::string oneTagKey(const char* vlanId) {
  return fmt::format(R"({{"isem1TagEntryKey":{{"intfId":1,"systemTcamId":0,"vlanId":{}}}}})", vlanId);
}

struct Mistake {
  const char* name;
  std::string line;
  const char* told;  ///< part of the error
};

std::ostream& operator<<(std::ostream& out, const Mistake& mistake) {
  return out << mistake.line;
}

std::string mistakeName(const testing::TestParamInfo<Mistake>& info) {
  return info.param.name;
}

class MalformedLine : public testing::TestWithParam<Mistake> {};

TEST_P(MalformedLine, EndsTheRunWithoutBeingExecuted) {
  KilnAgent::EmbeddedAgent agent({});
  KilnAgent::Scenario scenario(agent, false, 1, {});
  std::istringstream lines("// a comment\n" + kGood + "\n\n" + GetParam().line + "\n" +
                           publish(mplsKeyJson(R"("label":2,"labelSpace":0)")) + "\n");
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
    {"unknownKeyField", publish(mplsKeyJson(R"("label":2,"labelSpace":0,"ttl":1)")), "ttl"},
    {"unknownKind", publish(mplsKeyJson(R"("label":2,"labelSpace":0)"), R"(,"requestKind":"drop")"), "drop"},
    {"missingKeyField", publish(mplsKeyJson(R"("label":2)")), "labelSpace"},
    {"missingEntry",
     R"({"op":"publish","feature":"mpls","database":"isem","requestVersion":1,"key":)" +
         mplsKeyJson(R"("label":2,"labelSpace":0)") + "}",
     "entry"},
    {"fieldTwice", R"({"op":"table","table":"isemMpls","answer":"hold","answer":"refuse"})", "given twice"},
    {"wideVlan",
     publish(oneTagKey("70000"), "", "isem", R"({"isem1TagEntry":{"lif":1,"vsi":1,"profile":0}})"), "vlanId"},
    {"wideLabel", publish(mplsKeyJson(R"("label":4294967296,"labelSpace":0)")), "label"},
    {"wideLabelSpace", publish(mplsKeyJson(R"("label":2,"labelSpace":256)")), "labelSpace"},
    {"negativeLabel", publish(mplsKeyJson(R"("label":-1,"labelSpace":0)")), "label"},
    {"fractionalLabel", publish(mplsKeyJson(R"("label":1.5,"labelSpace":0)")), "label: a fraction"},
    {"exponent", publish(mplsKeyJson(R"("label":1e3,"labelSpace":0)")), "an exponent"},
    {"negativeZero", publish(mplsKeyJson(R"("label":-0,"labelSpace":0)")), "-0 is out of range"},
    {"nul", publish(mplsKeyJson(R"("label":2,"labelSpace":0)")) + '\0' + "x", "NUL"},
    {"endless", std::string(1'100'000, ' '), "more than 1048576 bytes"},
    {"labelInQuotes", publish(mplsKeyJson(R"("label":"2","labelSpace":0)")), "label"},
    {"wideFapId", publish(R"({"fapId":65536,"localCoreId":0,"isemMplsEntryKey":{"label":2,"labelSpace":0}})"),
     "fapId"},
    {"wideCore", publish(R"({"fapId":0,"localCoreId":7,"isemMplsEntryKey":{"label":2,"labelSpace":0}})"),
     "localCoreId"},
    {"wideDomain", R"({"op":"allot","intfId":1,"systemTcamId":0,"vlanDomain":65536})", "vlanDomain"},
    {"allotWhileAutomatic", R"({"op":"allot","intfId":1,"systemTcamId":0,"vlanDomain":5})", "manual"},
    {"unknownStatus",
     R"({"op":"expect","feature":"mpls","database":"isem","status":"fine","key":)" +
         mplsKeyJson(R"("label":1,"labelSpace":0)") + "}",
     "fine"},
    {"expectsNothing",
     R"({"op":"expect","feature":"mpls","database":"isem","key":)" +
         mplsKeyJson(R"("label":1,"labelSpace":0)") + "}",
     "absent"},
    {"untouchedWithoutWatch",
     R"({"op":"expect","feature":"mpls","database":"isem","result":1,"untouched":true,"key":)" +
         mplsKeyJson(R"("label":1,"labelSpace":0)") + "}",
     R"({"op":"watch"} must come first)"},
    {"keyOfAnotherTable",
     R"({"op":"expectTable","table":"esemFodo","absent":true,"key":)" +
         mplsKeyJson(R"("label":1,"labelSpace":0)") + "}",
     "not a key of the table"},
};

INSTANTIATE_TEST_SUITE_P(All, MalformedLine, testing::ValuesIn(kMistakes), mistakeName);

const std::string kOneTagEntry = R"({"isem1TagEntry":{"lif":1,"vsi":1,"profile":0}})";

TEST_F(CommandLine, ExitStatusTellsWhetherExpectationsHeld) {
  const auto expects = [](const char* status) {
    return R"({"op":"expect","feature":"mpls","database":"isem","status":")" + std::string(status) +
           R"(","key":)" + mplsKeyJson(R"("label":1,"labelSpace":0)") + "}\n";
  };
  const std::string good = kGood + "\n";
  const struct {
    std::string lines;
    int code;
    const char* told;  ///< begin of the error, after the file's name
  } cases[] = {
      {good + expects("hwSuccess"), 0, ""},
      {good + expects("hwFail") + expects("hwSuccess"), 1, ":2: expected "},
      {good + R"({"op":"dance"})", 2, ":2: op: unknown operation \"dance\"\n"},
      {publish(oneTagKey("5000"), "", "isem", kOneTagEntry) + "\n" + good + expects("hwSuccess"), 5,
       R"(:1: mpls isem {"isem1TagEntryKey":{"intfId":1,"systemTcamId":0,"vlanId":5000}} refused: )"}};
  for (const auto& each : cases) {
    const std::string file = write("in.jsonl", each.lines);
    const Result result = run("run " + file);
    EXPECT_EQ(each.code, result.code);
    EXPECT_TRUE(result.err.starts_with(*each.told == 0 ? "" : file + each.told)) << result.err;
    EXPECT_EQ(each.code == 0 ? 0 : 1, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
    EXPECT_EQ(each.code == 1, result.err.find("hwSuccess") != std::string::npos) << "what was found instead";
  }
  const Result missing = run("run " + (directory / "nowhere.jsonl"));
  EXPECT_EQ(2, missing.code);
  EXPECT_NE(missing.err.find("nowhere.jsonl"), std::string::npos) << missing.err;
}

}  // namespace
}  // namespace KilnTest
