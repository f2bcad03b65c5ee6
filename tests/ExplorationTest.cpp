// The explorer itself: its figures do not depend on how it is run, and the reduction loses no result.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "kiln/agent/io/InputError.h"
#include "sim/Explore.h"
#include "sim/Minimize.h"
#include "sim/Plan.h"
#include "tests/Sanitized.h"

namespace KilnTest {
namespace {

using namespace KilnSim;

std::string small(const std::string& name) {
  return std::string(KILN_SOURCE_DIR "/sim/small/") + name + ".jsonl";
}

std::string scratch(const std::string& name) {
  return testing::TempDir() + std::to_string(getpid()) + "-" + name;
}

ExploreOptions upTo(unsigned deviations) {
  ExploreOptions options;
  options.deviations = deviations;
  options.fromReady = true;
  return options;
}

/// All figures but the time.
std::string figures(Explored explored) {
  explored.seconds = 0;
  return textOf(explored) + explored.failure;
}

TEST(Exploration, FiguresAreIndependentOfProcessesAndInterruptions) {
  if (kSanitized) GTEST_SKIP() << "takes too long";
  const std::string file = small("refused-first-write");
  const unsigned most = 2;
  const Explored one = explore(file, upTo(most));
  EXPECT_EQ(one.failure, "");
  EXPECT_GT(one.schedules, 20U);
  ExploreOptions parallel = upTo(most);
  parallel.jobs = 2;
  EXPECT_EQ(figures(explore(file, parallel)), figures(one));

  ExploreOptions resumed = upTo(most - 1);
  resumed.frontier = scratch("frontier");
  explore(file, resumed);
  resumed.deviations = most;
  EXPECT_EQ(figures(explore(file, resumed)), figures(one));
  EXPECT_THROW(explore(small("hold-and-add"), resumed), KilnAgent::InputError);
  resumed.frontier = file;  // no frontier file
  EXPECT_THROW(explore(file, resumed), KilnAgent::InputError);
  EXPECT_LT(std::filesystem::file_size(file), 100'000U);
  resumed.frontier = scratch("frontier");
  std::filesystem::remove(resumed.frontier);
}

ExploreOptions whole(ExploreOptions options) {
  options.reduced = false;
  return options;
}

/// Small enough to be explored without a bound, also without the reduction.
TEST(Exploration, ReductionKeepsEndsAndLandmarks) {
  if (kSanitized) GTEST_SKIP() << "takes too long";
  const ExploreOptions options = upTo(~0U);
  const Explored reduced = explore(small("same-version-other-entry"), options);
  const Explored all = explore(small("same-version-other-entry"), whole(options));
  EXPECT_TRUE(reduced.exhausted && all.exhausted);
  EXPECT_EQ(all.leftOut, 0U);
  EXPECT_GT(reduced.leftOut, 0U);
  EXPECT_LT(reduced.states, all.states);
  EXPECT_EQ(reduced.ends, all.ends);
  EXPECT_EQ(reduced.landmarks, all.landmarks);
}

TEST(Exploration, ReductionKeepsCrashesAndRefusals) {
  if (kSanitized) GTEST_SKIP() << "takes too long";
  for (const char* name : {"withdrawn-crash", "refused-winner"}) {
    SCOPED_TRACE(name);
    const Explored reduced = explore(small(name), upTo(2));
    const Explored all = explore(small(name), whole(upTo(2)));
    EXPECT_GT(reduced.leftOut, 0U);
    EXPECT_TRUE(std::includes(reduced.landmarks.begin(), reduced.landmarks.end(), all.landmarks.begin(),
                              all.landmarks.end()));
  }
}

TEST(Exploration, MergingKeepsEveryEnd) {
  if (kSanitized) GTEST_SKIP() << "takes too long";
  ExploreOptions options = upTo(2);
  const Explored merged = explore(small("same-version-other-entry"), options);
  options.merged = false;
  const Explored all = explore(small("same-version-other-entry"), options);
  EXPECT_GT(all.schedules, merged.schedules);
  EXPECT_EQ(merged.ends, all.ends);
}

TEST(Exploration, EqualStatesContinueEqually) {
  for (const char* name : {"withdrawn-restart", "moved-and-moved-back", "two-features-one-key"}) {
    SCOPED_TRACE(name);
    ExploreOptions options = upTo(1);
    options.proveEvery = kSanitized ? 4 : 1;
    const Explored explored = explore(small(name), options);
    EXPECT_EQ(explored.failure, "");
    EXPECT_GT(explored.proved, kSanitized ? 2U : 20U);
  }
}

TEST(Exploration, FailureIsWrittenAsAReplayableScenario) {
  // Each request that is refused leads to another end.
  const std::string file = scratch("ends.jsonl");
  {
    std::ifstream lines(small("refused-first-write"));
    std::string header;
    std::getline(lines, header);
    std::ofstream(file) << "// explore: refusals 1\n" << lines.rdbuf();
  }
  ExploreOptions options = upTo(2);
  options.out = scratch("schedule.jsonl");
  const Explored explored = explore(file, options);
  EXPECT_NE(explored.failure.find("schedules end with different statuses or tables"), std::string::npos);
  const Plan plan = readPlan(options.out);
  EXPECT_GT(plan.operations.size(), 3U);
  EXPECT_EQ(runApart(plan).wrong, "");
  std::filesystem::remove(file);
  std::filesystem::remove(options.out);
}

TEST(Exploration, RefusesInvalidSmallScenarios) {
  const std::string file = scratch("none.jsonl");
  for (const char* text : {"", "{\"op\":\"settle\"}\n", "// explore: refusals\n", "// explore: answers 1\n",
                           "// explore: bound 1\n{\"op\":\"run\",\"tasks\":1}\n"}) {
    std::ofstream(file) << text;
    EXPECT_THROW(explore(file, upTo(0)), KilnAgent::InputError) << text;
  }
  std::filesystem::remove(file);
}

}  // namespace
}  // namespace KilnTest
