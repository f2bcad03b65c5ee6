// Restarts of the whole agent, checked entry by entry: by the changes that features see, and by the
// operations at the tables.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/scenario/Generate.h"
#include "kiln/agent/scenario/Scenario.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/server/KilnEmServer.h"
#include "tests/Lines.h"

namespace KilnTest {
namespace {

using KilnAgent::ReconcileReport;

/// The settings of a restart.
struct Setting {
  std::uint32_t yieldEvery = 0;
  std::optional<std::uint64_t> seed = std::nullopt;
  bool holdAnswers = false;
  bool crash = false;
};

std::string generated(std::uint64_t requests) {
  char* text = nullptr;
  std::size_t size = 0;
  std::FILE* file = open_memstream(&text, &size);
  generateScenario(file, requests, 1, KilnAgent::ScenarioMix::metro);
  std::fclose(file);
  std::string scenario(text, size);
  std::free(text);
  return scenario;
}

std::string publishMpls(const char* feature, int label, int lif, int version = 1) {
  return mplsLine("publish", feature, label, lif, version, 77) + "\n";
}
std::string withdrawMpls(const char* feature, int label) {
  return mplsLine("withdraw", feature, label, 0, 0, 77) + "\n";
}

/// Requests of all types; some of them conflict, are refused by a table, wait for a domain, or do not fit.
std::string settledScenario(std::uint64_t requests) {
  std::string text = generated(requests);
  const auto add = [&](const std::string& line) { text += line + "\n"; };
  add(R"({"op":"vlanDomains","mode":"manual"})");
  for (int label = 0; label < 40; ++label) {
    text += publishMpls("mpls", label, label) + publishMpls("evpn", label, label + 1);
  }
  add(R"({"op":"settle"})");
  add(R"({"op":"table","table":"isemMpls","answer":"refuse"})");
  for (int label = 100; label < 120; ++label) text += publishMpls("mpls", label, label);
  add(R"({"op":"settle"})");
  add(R"({"op":"table","table":"isemMpls","answer":"success"})");
  add(R"({"op":"allot","intfId":900001,"systemTcamId":9,"vlanDomain":2047})");
  add(R"({"op":"allot","intfId":900000,"systemTcamId":9,"vlanDomain":500})");
  for (int intf = 900000; intf < 900005; ++intf) add(untaggedLine("publish", "bridging", intf, intf, 1, 9));
  return text;
}

class Restarted {
 public:
  Restarted(const Setting& setting, const std::string& scenario)
      : setting_(setting), agent_(optionsOf(setting)) {
    run(scenario);
    scenario_.settle();
  }
  void run(const std::string& text) {
    std::istringstream lines(text);
    scenario_.run(lines, "test");
  }
  ReconcileReport restart() {
    if (setting_.holdAnswers) answers("hold");
    run(setting_.crash ? R"({"op":"crash"})" : R"({"op":"restart"})");
    scenario_.settle();
    if (setting_.holdAnswers) {
      EXPECT_TRUE(agent_.reconcileMonitor().restarting()) << "answers are still to come";
      answers("success");
      scenario_.settle();
    }
    EXPECT_FALSE(agent_.reconcileMonitor().restarting());
    return *agent_.reconcileMonitor().ended();
  }
  [[nodiscard]] KilnAgent::EmbeddedAgent& agent() { return agent_; }
  [[nodiscard]] std::uint64_t failedExpects() const { return scenario_.counters().failedExpects; }

 private:
  static KilnAgent::AgentOptions optionsOf(const Setting& setting) {
    KilnAgent::AgentOptions options;
    options.yieldEvery = setting.yieldEvery;
    options.seed = setting.seed;
    return options;
  }
  void answers(const char* mode) {
    for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
      run(fmt::format(R"({{"op":"table","table":"{}","answer":"{}"}})", type.stem, mode));
    }
  }
  Setting setting_;
  KilnAgent::EmbeddedAgent agent_;
  KilnAgent::Scenario scenario_{agent_, false, 1, {}};
};

std::uint64_t sumOf(const ReconcileReport& report,
                    const std::function<std::uint64_t(const KilnAgent::TableReconcile&)>& of) {
  std::uint64_t sum = 0;
  for (const auto& table : report.tables) sum += of(table);
  return sum;
}

/// Nothing was touched, and each stage and table found its earlier content.
void expectNothingTouched(const ReconcileReport& report) {
  EXPECT_EQ(report.state, ReconcileReport::State::complete);
  EXPECT_EQ(report.statusesChanged, 0U);
  EXPECT_EQ(report.disturbed, 0U);
  std::size_t kept = 0;
  for (const auto& stage : report.stages) {
    for (const auto& output : stage.outputs) {
      EXPECT_EQ(output.counts.waiting(), 0U) << stage.stage;
      kept += output.counts.kept;
    }
  }
  EXPECT_EQ(kept, report.statusesFound);
  for (const auto& table : report.tables) {
    EXPECT_GT(table.found, 0U) << "a table without entries shows nothing";
    EXPECT_EQ(table.hardware.written + table.hardware.removed + table.calls.removals, 0U);
  }
}

// With many keys memory is prefetched, and released keys are freed later.
TEST(Hitless, ManyKeysAreAddedKeptAndRemoved) {
  Restarted run({}, generated(9000));
  ASSERT_TRUE(KilnEmServer::KeySpace<KilnEmServer::EmLogicalKey>::instance().exceedsCache());
  EXPECT_EQ(run.failedExpects(), 0U);
  run.run(publishMpls("evpn", 5000, 1) + R"({"op":"settle"})");  // a single event among many keys
  const std::size_t programmed = run.agent().server().winners().config().size();
  const ReconcileReport report = run.restart();
  expectNothingTouched(report);
  EXPECT_GT(report.statusesFound, 8000U);
  EXPECT_EQ(sumOf(report, [](const auto& table) { return table.calls.writes; }), programmed);
  for (const auto feature : KilnPlatform::EnumNames<KilnEmServer::FeatureType>::kNames) {
    run.run(fmt::format(R"({{"op":"removeFeature","feature":"{}"}})", feature));
  }
  run.run(R"({"op":"settle"})");
  for (const auto& [name, size] : run.agent().server().leftovers()) EXPECT_EQ(size, 0U) << name;
  EXPECT_EQ(run.agent().server().winners().config().size(), 0U);
}

TEST(Hitless, InterruptedRestartIsJudgedAcrossBothRestarts) {
  const std::string scenario = settledScenario(200);
  for (std::uint64_t seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE(seed);
    Restarted run({.yieldEvery = 1, .seed = seed, .holdAnswers = seed % 3 == 0, .crash = seed % 2 == 0},
                  scenario);
    run.run(R"({"op":"table","table":"isemMpls","capacity":1})");
    run.run(R"({"op":"restart"})");
    run.agent().scheduler().run(seed * 150);
    const ReconcileReport report = run.restart();
    expectNothingTouched(report);
    EXPECT_EQ(run.agent().reconcileMonitor().endedCount(), 2U) << "the first was interrupted";
  }
}

// The monitor itself: it must report disturbances, but not the effects of requests and domains.
TEST(Hitless, DisturbancesAreDetectedUnlessCausedByRequestsOrDomains) {
  const std::string scenario = settledScenario(50);
  const auto flap = [&](const std::string& meanwhile,
                        const std::function<void(KilnAgent::EmbeddedAgent&)>& act) {
    Restarted run({}, scenario);
    run.run(R"({"op":"restart"})"
            "\n" +
            meanwhile);
    act(run.agent());
    run.agent().settle();
    return *run.agent().reconcileMonitor().ended();
  };
  const auto key = KilnTunnelNiLib::IsemMplsEntryKey{7, 77};
  const auto rewriteEntry = [&](KilnAgent::EmbeddedAgent& agent) {
    auto* table = dynamic_cast<Asic::IsemMplsKilnSwTable*>(
        agent.chip().interface<Asic::IsemMplsKilnInterface>()->orderedSwTable(Asic::UnitId::allFap()));
    table->entryRemoveWithResponseHandler(key, nullptr, [](const auto&) {});
  };
  const ReconcileReport entry = flap("", rewriteEntry);
  EXPECT_EQ(entry.disturbed, 1U);
  EXPECT_EQ(sumOf(entry, [](const auto& table) { return table.needless; }), 2U) << "a removal and a write";
  EXPECT_EQ(flap(withdrawMpls("evpn", 7) + publishMpls("evpn", 7, 8), rewriteEntry).disturbed, 0U);

  const auto flapStatus = [&](KilnAgent::EmbeddedAgent& agent) {
    const auto status = agent.store().isemSrvStatus(KilnEmServer::FeatureType::evpn);
    const KilnTunnelNiLib::IsemEntryKey own{Hardware::Kiln::FapId::allFap(),
                                            Hardware::Kiln::LocalCoreId::all(),
                                            KilnTunnelNiLib::IsemMplsComposerKey{7, 77}};
    const auto before = *status->status().get(own);
    status->status().del(own);
    status->status().is(own, before);
  };
  EXPECT_EQ(flap("", flapStatus).disturbed, 1U);
  EXPECT_EQ(flap(publishMpls("mpls", 7, 7, 2), flapStatus).disturbed, 0U) << "contends for the same key";

  const auto flapDomainRequest = [&](KilnAgent::EmbeddedAgent& agent) {
    auto& config = agent.vlanDomains().config()->config();
    config.del({900001, 9});
    config.is({900001, 9}, {});
  };
  EXPECT_EQ(flap("", flapDomainRequest).disturbed, 1U);
}

}  // namespace
}  // namespace KilnTest
