// A run is a function of its operations and its seed, down to the last trace message.

#include <gtest/gtest.h>

#include <string>

#include "tests/RandomRun.h"

namespace KilnTests {
namespace {

std::string traceOf(RunSetting setting) {
  std::string trace;
  setting.trace = &trace;
  Tally tally;
  EXPECT_EQ("", runSteps(setting, drawSteps(setting), tally));
  return trace;
}

/// Where two texts part, with some of what came before.
std::string parting(const std::string& a, const std::string& b) {
  std::size_t at = 0;
  while (at < a.size() && at < b.size() && a[at] == b[at]) ++at;
  const std::size_t from = at < 300 ? 0 : at - 300;
  return "first run: ..." + a.substr(from, 600) + "\nsecond run: ..." + b.substr(from, 600);
}

class TraceIdentity : public testing::TestWithParam<std::uint32_t> {};

TEST_P(TraceIdentity, SameSeedGivesTheSameTrace) {
  for (std::uint64_t seed = 2000; seed < 2003; ++seed) {
    const RunSetting setting{
        .seed = seed, .yieldEvery = GetParam(), .tablesRefuse = true, .tablesHold = true, .steps = 60};
    const std::string first = traceOf(setting);
    const std::string second = traceOf(setting);
    EXPECT_NE(first.find("\n9 "), std::string::npos) << "the most detailed level is missing";
    EXPECT_TRUE(first == second) << parting(first, second);
    RunSetting other = setting;
    other.seed += 100;
    EXPECT_FALSE(first == traceOf(other)) << "another seed does the same";
  }
}

INSTANTIATE_TEST_SUITE_P(Yields, TraceIdentity, testing::Values(0U, 1U, 3U));

}  // namespace
}  // namespace KilnTests
