// A scenario under the judge of the simulations: for any operations in any order, statuses and tables are
// those that the requests define. The first byte chooses how tasks are ordered and sliced.
#include <algorithm>

#include "fuzz/Fuzz.h"
#include "kiln/agent/scenario/Operation.h"
#include "sim/Run.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  KilnSim::Plan plan;
  plan.seed = data[0];
  plan.shuffled = (data[0] & 1U) != 0;
  plan.yieldEvery = data[0] & 3U;
  std::string_view text = KilnFuzz::textIn(data, size).substr(1);
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    KilnFuzz::refusalOf([&] {
      KilnAgent::Operation operation = KilnAgent::parseOperation(line);
      const bool expects = std::holds_alternative<KilnAgent::ExpectOperation>(operation) ||
                           std::holds_alternative<KilnAgent::ExpectTableOperation>(operation);
      if (!expects) plan.operations.push_back(std::move(operation));
    });
  }
  plan.operations.push_back(KilnAgent::SettleOperation{});
  KilnSim::Tally tally;
  const KilnSim::Verdict verdict = KilnSim::run(plan, tally, nullptr);
  KILN_ASSERT_MESSAGE(verdict.wrong.empty(), "{}", verdict.wrong);
  return 0;
}
