// The whole server in random runs: whatever happens in whatever order, it ends where the recompute says.
//
// KILN_SEEDS=first-last in the environment runs these seeds in place of the usual ones.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "tests/Golden.h"
#include "tests/RandomRun.h"

namespace KilnTests {
namespace {

struct Seeds {
  unsigned long long first = 1;
  unsigned long long last = 180;
};

Seeds seeds() {
  Seeds seeds;
  if (const char* given = std::getenv("KILN_SEEDS")) {
    std::sscanf(given, "%llu-%llu", &seeds.first, &seeds.last);
  }
  return seeds;
}

/// Runs the seeds whose setting has this number of items per slice.
Tally runSeeds(std::uint32_t yieldEvery) {
  Tally tally;
  for (auto seed = seeds().first; seed <= seeds().last; ++seed) {
    const RunSetting setting = settingOf(seed);
    if (setting.yieldEvery != yieldEvery) continue;
    const std::string wrong = runSteps(setting, drawSteps(setting), tally);
    EXPECT_EQ("", wrong) << "to run this alone: KILN_SEEDS=" << seed << "-" << seed;
    if (!wrong.empty()) break;
  }
  return tally;
}

/// A test of rare events that never saw them proves nothing.
void expectRareEvents(const Tally& tally) {
  EXPECT_GT(tally.quiet, 0U);
  EXPECT_GT(tally.restarts, 0U);
  EXPECT_GT(tally.coalesced, 0U) << "no change met its key waiting already";
  EXPECT_GT(tally.staleAnswers, 0U) << "no answer was overtaken by a newer request";
}

TEST(WholeServer, EndsAsRecomputedYieldingAfterEveryItem) {
  const Tally tally = runSeeds(1);
  expectRareEvents(tally);
  EXPECT_GT(tally.scanPauses, 0U) << "no initial scan was paused";
}

TEST(WholeServer, EndsAsRecomputedYieldingAfterThreeItems) {
  const Tally tally = runSeeds(3);
  expectRareEvents(tally);
  EXPECT_GT(tally.scanPauses, 0U) << "no initial scan was paused";
}

TEST(WholeServer, EndsAsRecomputedNeverYielding) {
  const Tally tally = runSeeds(0);
  expectRareEvents(tally);
  EXPECT_EQ(tally.scanPauses, 0U);
}

TEST(WholeServer, RestartOfTheQuietServerChangesNothingThatOthersSee) {
  for (std::uint64_t seed = 3000; seed < 3030; ++seed) {
    RunSetting setting = settingOf(seed);
    setting.tablesRefuse = setting.tablesHold = false;
    const std::vector<Step> steps = drawSteps(setting);
    for (const bool crash : {false, true}) {
      EXPECT_EQ("", restartAfter(setting, steps, crash)) << "seed " << seed << (crash ? ", crash" : "");
    }
  }
}

std::string digestOf(const std::string& text) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return fmt::format("{:016x} of {} bytes", hash, text.size());
}

// Without refusing tables the end is a function of the operations: the same in any order of tasks, and with
// either implementation of the collections, for both of which the one file holds.
TEST(WholeServer, FinalStatesAreThoseOfEveryOrderAndCollectionImplementation) {
  std::string digests;
  for (std::uint64_t seed = 1000; seed < 1020; ++seed) {
    RunSetting setting{.seed = seed};
    const std::vector<Step> steps = drawSteps(setting);
    FinalState first;
    Tally tally;
    setting.shuffled = false;
    ASSERT_EQ("", runSteps(setting, steps, tally, &first));
    setting.shuffled = true;
    for (const std::uint32_t yieldEvery : {0U, 1U, 3U}) {
      setting.yieldEvery = yieldEvery;
      FinalState state;
      ASSERT_EQ("", runSteps(setting, steps, tally, &state));
      EXPECT_EQ(first.outcome, state.outcome) << "seed " << seed;
      EXPECT_EQ(first.dump, state.dump) << "seed " << seed;
    }
    digests += fmt::format("{} {}\n", seed, digestOf(first.outcome));
  }
  expectGolden("final-states.txt", digests);
}

}  // namespace
}  // namespace KilnTests
