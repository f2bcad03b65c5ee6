// Every example meets its expectations, whatever the order and the length of its slices.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/scenario/Scenario.h"
#include "sim/CapacityCount.h"
#include "tests/Golden.h"

namespace KilnTest {
namespace {

struct Order {
  std::optional<std::uint64_t> seed;
  std::uint32_t yieldEvery;
};
constexpr Order kOrders[] = {{std::nullopt, 0}, {std::nullopt, 1}, {1, 0}, {2, 1}, {3, 3}, {4, 1}, {5, 2}};
constexpr std::size_t kLargeFile = 1U << 20;

std::vector<std::string> examples() {
  std::vector<std::string> paths;
  for (const auto& file : std::filesystem::directory_iterator(KILN_SOURCE_DIR "/examples")) {
    if (file.path().extension() == ".jsonl") paths.push_back(file.path());
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

/// Whether the final state is a function of the operations alone. It is not if room, refusals or domains
/// depend on the order in which requests arrive.
bool independentOfOrder(const std::string& text) {
  const auto has = [&](const char* word) { return text.find(word) != std::string::npos; };
  if (has("\"refuse\"") || has("\"capacity\"") || has("\"auto\"")) return false;
  return has("\"manual\"") || !has("\"intfId\"");
}

std::string runExample(const std::string& text, const std::string& name, const Order& order) {
  KilnAgent::AgentOptions options;
  options.seed = order.seed;
  options.yieldEvery = order.yieldEvery;
  KilnAgent::EmbeddedAgent agent(options);
  std::string said;
  KilnAgent::Scenario scenario(agent, order.yieldEvery != 0, order.seed.value_or(1),
                               [&](const std::string& line) { said.append(line).push_back('\n'); });
  std::istringstream lines(text);
  scenario.run(lines, name);
  scenario.settle();
  EXPECT_EQ(0U, scenario.counters().failedExpects) << said;
  EXPECT_GT(scenario.counters().expects, 0U) << name << " expects nothing";
  EXPECT_EQ("", KilnSim::capacityDifference(agent));
  return dumpWithoutHardware(agent);
}

class Examples : public testing::TestWithParam<std::string> {};

TEST_P(Examples, PassInEveryOrderWithTheSameFinalState) {
  const std::string text = readWhole(GetParam());
  std::string first;
  for (const Order& order : kOrders) {
    SCOPED_TRACE(fmt::format("seed {}, yield every {}", order.seed.value_or(0), order.yieldEvery));
    const std::string state = runExample(text, std::filesystem::path(GetParam()).filename(), order);
    if (first.empty()) first = state;
    if (independentOfOrder(text)) {
      EXPECT_EQ(first, state);
    }
    if (text.size() > kLargeFile && &order != &kOrders[0]) break;
  }
}

std::string exampleName(const testing::TestParamInfo<std::string>& info) {
  std::string name = std::filesystem::path(info.param).stem();
  std::replace(name.begin(), name.end(), '-', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(All, Examples, testing::ValuesIn(examples()), exampleName);

}  // namespace
}  // namespace KilnTest
