// Properties on which the simulation depends: plans that can be written and read, and a judge that detects
// faults.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/scenario/Scenario.h"
#include "sim/Minimize.h"
#include "sim/Plan.h"
#include "sim/Recompute.h"
#include "sim/Watch.h"
#include "tests/Lines.h"

namespace KilnTest {
namespace {

using namespace KilnSim;

TEST(Simulation, WrittenPlanRunsIdentically) {
  for (const std::string_view profile : kProfiles) {
    const Plan plan = drawPlan(7, 150, profile);
    Tally tally;
    const Verdict verdict = run(plan, tally, nullptr);
    ASSERT_EQ("", verdict.wrong);
    const std::string path = testing::TempDir() + "/plan.jsonl";
    std::ofstream(path) << scenarioOf(plan, verdict);
    const Plan read = readPlan(path);
    Tally again;
    EXPECT_EQ(verdict.digests, run(read, again, nullptr).digests) << profile;
    EXPECT_EQ(tally.tasks, again.tasks) << profile;
    // An agent that only executes the scenario ends in the same state.
    KilnAgent::EmbeddedAgent agent(agentOptions(read));
    KilnAgent::Scenario scenario(agent, true, 1, {});
    std::ifstream lines(path);
    scenario.run(lines, "plan");
    EXPECT_EQ(tally.tasks, agent.scheduler().counters().slices) << profile;
  }
}

/// Number of failed expectations in an agent that only executes the scenario of a plan; the plan's last
/// operation showed that a status and an entry were touched.
std::uint64_t failedExpects(const std::vector<std::string>& lines) {
  using namespace KilnTunnelNiLib;
  Plan plan;
  plan.shuffled = false;
  for (const std::string& line : lines) plan.operations.push_back(KilnAgent::parseOperation(line));
  const auto published = std::get<KilnAgent::PublishOperation>(plan.operations[0]);
  Verdict verdict;
  verdict.at = plan.operations.size() - 1;
  verdict.expected = {
      KilnAgent::ExpectOperation{published.feature, published.database, published.key, EmStatus::hwSuccess, 1,
                                 1, false, true, true},
      KilnAgent::ExpectTableOperation{TableTag::isemMplsEntryKey, hwKeyOf(IsemMplsEntryKey{1, 0}),
                                      published.entry, true, true}};
  KilnAgent::EmbeddedAgent agent(agentOptions(plan));
  KilnAgent::Scenario scenario(agent, false, 1, {});
  std::istringstream written(scenarioOf(plan, verdict));
  scenario.run(written, "plan");
  EXPECT_EQ(2U, scenario.counters().expects);
  return scenario.counters().failedExpects;
}

TEST(Simulation, WrittenPlanDetectsObjectsTouchedSinceTheLastQuietMoment) {
  const std::string publish = publishLine(1);
  const std::string withdraw = withdrawLine(1);
  const std::string run = R"({"op":"run","tasks":500})";
  const std::string settle = R"({"op":"settle"})";
  const std::string answer = R"({"op":"answer","table":"isemMpls","order":"fifo","count":1})";
  for (const std::string& quiet : {settle, answer}) {
    EXPECT_EQ(0U, failedExpects({publish, run, withdraw, run, publish, quiet, settle})) << quiet;
    EXPECT_EQ(2U, failedExpects({publish, quiet, run, withdraw, run, publish, settle})) << quiet;
  }
}

TEST(Simulation, CrashLosesUncommittedChanges) {
  KilnAgent::EmbeddedAgent agent({});
  KilnAgent::Scenario scenario(agent, false, 1, {});
  scenario.runLine(publishLine(1));
  scenario.settle();
  scenario.runLine(R"({"op":"commit"})");
  scenario.runLine(withdrawLine(1));
  scenario.runLine(publishLine(2));
  scenario.runLine(R"({"op":"removeFeature","feature":"srv6"})");
  scenario.settle();
  scenario.runLine(R"({"op":"crash","lost":true})");
  scenario.settle();
  EXPECT_TRUE(agent.store().features().has(FeatureType::srv6));
  const Wanted wanted = wantedOf(agent);
  ASSERT_EQ(1U, wanted.requests.size());
  EXPECT_EQ("", difference(recompute(wanted), outcomeOf(agent)));
}

/// Publishes, in place of the server, a status that the server would not publish.
std::string wrongAfter(EmStatus status, std::uint32_t version, bool withRequest) {
  using KilnTunnelNiLib::Isem;
  KilnAgent::EmbeddedAgent agent({});
  agent.settle();
  Watch watch(agent);
  const KilnTunnelNiLib::IsemEntryKey key{Hardware::Kiln::FapId::allFap(), Hardware::Kiln::LocalCoreId::all(),
                                          KilnTunnelNiLib::IsemMplsComposerKey{1, 0}};
  if (withRequest) {
    agent.store().requestIs<Isem>(
        FeatureType::mpls, key,
        {{KilnTunnelNiLib::IsemMplsEntry{1, 1}}, 4, KilnTunnelNiLib::RequestKind::add});
  }
  agent.store().isemSrvStatus(FeatureType::mpls)->statusIs({key, {}, version, 1, status, 1});
  return watch.takeWrong();
}

TEST(Simulation, JudgeDetectsFalseStatuses) {
  EXPECT_EQ("", wrongAfter(EmStatus::hwPending, 4, true));
  EXPECT_NE("", wrongAfter(EmStatus::hwPending, 3, true));
  EXPECT_NE("", wrongAfter(EmStatus::hwSuccess, 4, true));
  EXPECT_NE("", wrongAfter(EmStatus::hwPending, 4, false));
}

}  // namespace
}  // namespace KilnTest
