// The digest of an agent and its judge: states with the same digest behave the same, and every relevant
// difference changes it.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/scenario/Scenario.h"
#include "kiln/server/KilnEmServer.h"
#include "sim/ScheduleRun.h"
#include "sim/SmallScenario.h"
#include "tests/Lines.h"
#include "tests/Sanitized.h"

namespace KilnTest {
namespace {

using namespace KilnSim;
using KilnEmServer::differingParts;
using KilnEmServer::StateDigest;

/// The numbers of tasks, the same in all walks.
class Numbers final : public TaskNumbers {
 public:
  std::uint16_t numberOf(std::string_view name, std::string_view instance) override {
    const auto next = static_cast<std::uint16_t>(numbers_.size() + 1);
    return numbers_.try_emplace({std::string(name), std::string(instance)}, next).first->second;
  }

 private:
  std::map<std::pair<std::string, std::string>, std::uint16_t> numbers_;
};

/// One schedule of a small scenario, choice by choice. In the same state the same choice has the same
/// meaning.
class Walk {
 public:
  explicit Walk(const SmallScenario& scenario) : run_(scenario, true, numbers()) {}

  /// Takes one of the possible choices; false if there is none.
  bool step(std::uint32_t choice) {
    if (over()) return false;
    Choice next = run_.choices()[choice % run_.choices().size()];
    if (next.kind == Choice::Kind::task) next.items = static_cast<std::uint16_t>(choice >> 16U & 1U);
    run_.take(next);
    // Slices that change nothing are not counted as steps.
    while (run_.unchanged() && !over()) run_.take(Choice(run_.choices().front()));
    return true;
  }
  [[nodiscard]] const StateDigest& digest() const { return run_.digest(); }

 private:
  static Numbers& numbers() {
    static Numbers numbers;
    return numbers;
  }
  [[nodiscard]] bool over() const { return run_.ended() || run_.failed(); }

  ScheduleRun run_;
};

using Choices = std::vector<std::uint32_t>;

/// The digests of a walk that makes these choices and then some more. Keys have the same handles only if no
/// other agent exists at the same time.
std::vector<StateDigest> digestsAfter(const SmallScenario& scenario, const Choices& choices,
                                      std::uint32_t seed) {
  Walk walk(scenario);
  for (const std::uint32_t choice : choices) walk.step(choice);
  std::vector<StateDigest> digests = {walk.digest()};
  std::mt19937 random(seed);
  while (digests.size() < 200 && walk.step(static_cast<std::uint32_t>(random())))
    digests.push_back(walk.digest());
  return digests;
}

struct Pair {
  Choices one;
  Choices other;
};

/// Draws walks, and finds states that two of them reach in different ways.
std::vector<Pair> findPairs(const SmallScenario& scenario, std::size_t walks) {
  std::map<StateDigest::Value, Choices> known;
  std::mt19937 random(1);
  std::vector<Pair> pairs;
  for (; walks != 0; --walks) {
    Walk walk(scenario);
    Choices choices;
    bool wasNew = true;  // states after a merged one are merged again
    do {
      const auto [at, isNew] = known.try_emplace(walk.digest().value(), choices);
      if (!isNew && wasNew && at->second != choices) pairs.push_back({at->second, choices});
      wasNew = isNew;
      choices.push_back(static_cast<std::uint32_t>(random()));
    } while (choices.size() < 400 && walk.step(choices.back()));
  }
  return pairs;
}

/// The first parts that differ when two states of one digest are continued; empty if there are none.
std::string difference(const SmallScenario& scenario, const Pair& pair, std::uint32_t seed) {
  const auto one = digestsAfter(scenario, pair.one, seed);
  const auto other = digestsAfter(scenario, pair.other, seed);
  for (std::size_t at = 0; at < std::min(one.size(), other.size()); ++at) {
    const auto parts = differingParts(one[at], other[at]);
    if (!parts.empty()) return fmt::format("after {} steps: {}", at, fmt::join(parts, ", "));
  }
  return one.size() == other.size() ? "" : "one ends before the other";
}

TEST(StateDigest, StatesWithEqualDigestsContinueEqually) {
  for (const char* name : {"moved-and-moved-back", "feature-removed-and-added", "domain-passes-on"}) {
    auto scenario = readSmallScenario(fmt::format("{}/sim/small/{}.jsonl", KILN_SOURCE_DIR, name));
    scenario.troubles = {.refusals = 0, .restarts = 1, .crashes = 1, .losses = 0};
    const auto pairs = findPairs(scenario, kSanitized ? 6 : 20);
    ASSERT_LT(kSanitized ? 0U : 10U, pairs.size()) << name;
    for (std::uint32_t at = 0; at < pairs.size(); ++at) {
      EXPECT_EQ("", difference(scenario, pairs[at], at)) << name;
    }
  }
}

/// The digest of an agent that executes these operations.
class Agent {
 public:
  explicit Agent(const std::vector<std::string>& lines) {
    Plan plan;
    plan.shuffled = false;
    agent_.emplace(agentOptions(plan));
    KilnAgent::Scenario scenario(*agent_, false, 1, {});
    for (const std::string& line : lines) scenario.runLine(line);
  }
  [[nodiscard]] StateDigest digest(StateDigest::Walks walks = StateDigest::Walks::ignored) const {
    StateDigest digest(walks);
    agent_->noteState(digest);
    return digest;
  }

 private:
  std::optional<KilnAgent::EmbeddedAgent> agent_;
};

std::string publish(int label, int lif = 1) {
  return mplsLine("publish", "mpls", label, lif, lif);
}
std::string publishUntagged(int interface) {
  return untaggedLine("publish", "bridging", interface);
}
std::string table(const char* what) {
  return fmt::format(R"({{"op":"table","table":"isemMpls",{}}})", what);
}
std::string answer(const char* order) {
  return fmt::format(R"({{"op":"answer","table":"isemMpls","order":"{}","count":1}})", order);
}
std::string allot(int domain) {
  return fmt::format(R"({{"op":"allot","intfId":1,"systemTcamId":0,"vlanDomain":{}}})", domain);
}
std::string run(int tasks) {
  return fmt::format(R"({{"op":"run","tasks":{}}})", tasks);
}
const std::string kSettleOperation = R"({"op":"settle"})";
const std::string kRestart = R"({"op":"restart"})";
const std::string kCommit = R"({"op":"commit"})";
const std::string kManual = R"({"op":"vlanDomains","mode":"manual"})";

TEST(StateDigest, DependsOnTheStateAndNotOnItsHistory) {
  const std::vector<std::string> direct = {kSettleOperation, publish(1), kSettleOperation, publishUntagged(1),
                                           kSettleOperation, publish(2), kSettleOperation};
  const std::vector<std::string> roundabout = {
      kSettleOperation, publish(2),      publish(3),       kSettleOperation, publishUntagged(1),
      kSettleOperation, withdrawLine(3), kSettleOperation, publish(1),       kSettleOperation};
  const auto walksOf = [](const std::vector<std::string>& lines) {
    return Agent(lines).digest(StateDigest::Walks::noted).value();
  };
#ifdef KILN_ORDERED_COLLECTIONS
  EXPECT_EQ(walksOf(direct), walksOf(roundabout));
#else
  EXPECT_NE(walksOf(direct), walksOf(roundabout));
#endif
  const Agent one(direct);
  const Agent other(roundabout);
  EXPECT_EQ("", fmt::format("{}", fmt::join(differingParts(one.digest(), other.digest()), ", ")));
  EXPECT_EQ(one.digest().value(), other.digest().value());
  const Agent fresh({kSettleOperation});
  const Agent emptied({kSettleOperation, publish(1), publish(1, 2), publishUntagged(1), kSettleOperation,
                       table(R"("answer":"refuse")"), publish(2), kSettleOperation,
                       table(R"("answer":"success")"), withdrawLine(1), withdrawLine(2),
                       R"({"op":"withdrawAll","feature":"bridging","database":"isem"})", kSettleOperation,
                       kRestart, kSettleOperation});
  EXPECT_EQ("", fmt::format("{}", fmt::join(differingParts(fresh.digest(), emptied.digest()), ", ")));
}

TEST(StateDigest, EachDifferenceChangesTheDigest) {
  using Lines = std::vector<std::string>;
  const Lines held = {kSettleOperation, table(R"("answer":"hold")"),
                      publish(1),       kSettleOperation,
                      publish(1, 2),    kSettleOperation};
  const Lines full = {publish(1), kSettleOperation, table(R"("answer":"hold","capacity":0)"),
                      withdrawLine(1)};
  const auto with = [](Lines lines, const Lines& more) {
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
  };
  const auto refused = [](int first, int second) {
    return Lines{
        table(R"("answer":"refuse")"), publish(first), kSettleOperation, publish(second), kSettleOperation,
        table(R"("answer":"success")")};
  };
  const std::vector<std::tuple<const char*, Lines, Lines>> cases = {
      {"an entry", {publish(1, 1)}, {publish(1, 2)}},
      {"a key that waits", {kSettleOperation, publish(1), run(1)}, {kSettleOperation, publish(1), run(2)}},
      {"the order of two keys that wait",
       {kSettleOperation, publish(1), publish(2)},
       {kSettleOperation, publish(2), publish(1)}},
      {"an operation that is answered", held, with(held, {answer("fifo"), kSettleOperation})},
      {"which operation is answered", with(held, {answer("fifo"), kSettleOperation}),
       with(held, {answer("lifo"), kSettleOperation})},
      {"a refused write", {publish(1), kSettleOperation}, refused(1, 1)},
      {"the order of refusals", refused(1, 2), refused(2, 1)},
      {"whether room was made since a write that is unanswered",
       with(full, {kSettleOperation, answer("fifo"), kSettleOperation, publish(2), kSettleOperation}),
       with(full, {publish(2), kSettleOperation, answer("fifo"), kSettleOperation})},
      {"a domain",
       {kManual, publishUntagged(1), allot(5), kSettleOperation},
       {kManual, publishUntagged(1), allot(6), kSettleOperation}},
      {"how far a restart is",
       {publish(1), kSettleOperation, kRestart, run(5)},
       {publish(1), kSettleOperation, kRestart, run(6)}},
      {"what a loss would leave", {publish(1), kSettleOperation}, {publish(1), kSettleOperation, kCommit}},
  };
  for (const auto& [name, one, other] : cases) {
    EXPECT_FALSE(differingParts(Agent(one).digest(), Agent(other).digest()).empty()) << name;
    EXPECT_EQ(Agent(one).digest().value(), Agent(one).digest().value()) << name;
  }
}

}  // namespace
}  // namespace KilnTest
