// The cost of an update of the capacity table on 8 FAPs of 2 cores, with few and with many entries in the
// tables.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <cstdint>

#include "bench/Requests.h"
#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/server/KilnEmServer.h"
#include "kiln/status/SemCapacitySm.h"

namespace KilnBench {
namespace {

using namespace KilnAgent;

AgentOptions eightFaps() {
  AgentOptions options;
  options.chip.faps.clear();
  for (std::uint16_t id = 0; id < 8; ++id) {
    using Hardware::Kiln::LocalCoreId;
    options.chip.faps.push_back(
        {Hardware::Kiln::FapId(id), {fmt::format("Fap{}", id), 4, {LocalCoreId(0), LocalCoreId(1)}}, 1});
  }
  return options;
}

/// A changed amount of external use triggers an update, which changes one row.
void changeExternalUse(EmbeddedAgent& agent, std::uint32_t entries) {
  agent.externalUsers().user().is("bench",
                                  {{{Hardware::Kiln::FapId(3), Hardware::Kiln::LocalCoreId(1), 0, entries}}});
  agent.settle();
}

// The counters are per update and count the work without a clock: slices run, and rows written.
void capacityUpdate(benchmark::State& state) {
  EmbeddedAgent agent(eightFaps());
  for (std::uint32_t n = 0; n < static_cast<std::uint32_t>(state.range(0)); ++n) {
    const Request request = requestOf(kMixed, n);
    publish(agent.store(), request, entryOf(request.key, n, 1), 1);
  }
  agent.settle();
  const auto& done = agent.server().capacity()->counters();
  const auto before = done;
  const auto slices = agent.scheduler().counters().slices;
  std::uint32_t round = 0;
  for (auto _ : state) changeExternalUse(agent, ++round % 2);
  const auto updates = static_cast<double>(done.updates - before.updates);
  state.counters["updates"] = updates / static_cast<double>(state.iterations());
  state.counters["rows_written"] = static_cast<double>(done.rowsWritten - before.rowsWritten) / updates;
  state.counters["slices"] = static_cast<double>(agent.scheduler().counters().slices - slices) / updates;
}

// A fixed number of rounds: the tables are filled once.
BENCHMARK(capacityUpdate)->Arg(1'000)->Arg(500'000)->Iterations(10'000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace KilnBench
