// The whole road over the embedded agent's chip and in-memory store: what a request costs, in time and
// memory.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "agent/EmbeddedAgent.h"
#include "bench/Requests.h"
#include "server/KilnEmServerSm.h"

namespace KilnAgent {
namespace {

std::size_t heapBytes() {
  return mallinfo2().uordblks + mallinfo2().hblkhd;
}

void perRequest(benchmark::State& state, std::uint32_t requests) {
  state.counters["ns_per_request"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * requests * 1e-9,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void firstInsertMixed(benchmark::State& state) {
  const auto requests = static_cast<std::uint32_t>(state.range(0));
  double bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto agent = std::make_unique<EmbeddedAgent>(AgentOptions{});
    agent->settle();
    const std::size_t before = heapBytes();
    state.ResumeTiming();
    publishAll(*agent, requests, 1);
    state.PauseTiming();
    bytes = static_cast<double>(heapBytes() - before) / requests;
    agent.reset();
    state.ResumeTiming();
  }
  perRequest(state, requests);
  state.counters["bytes_per_request"] = bytes;
}

void newVersionMixed(benchmark::State& state) {
  const auto requests = static_cast<std::uint32_t>(state.range(0));
  EmbeddedAgent agent(AgentOptions{});
  std::uint32_t version = 1;
  publishAll(agent, requests, version);
  for (auto _ : state) publishAll(agent, requests, ++version);
  perRequest(state, requests);
}

void identicalRepublishMixed(benchmark::State& state) {
  const auto requests = static_cast<std::uint32_t>(state.range(0));
  EmbeddedAgent agent(AgentOptions{});
  publishAll(agent, requests, 1);
  for (auto _ : state) publishAll(agent, requests, 1);
  perRequest(state, requests);
}

void restartMixed(benchmark::State& state) {
  const auto requests = static_cast<std::uint32_t>(state.range(0));
  EmbeddedAgent agent(AgentOptions{});
  publishAll(agent, requests, 1);
  for (auto _ : state) {
    agent.restart();
    agent.settle();
  }
  perRequest(state, requests);
}

BENCHMARK(firstInsertMixed)->Arg(10'000)->Arg(200'000)->Unit(benchmark::kMillisecond);
BENCHMARK(newVersionMixed)->Arg(10'000)->Arg(200'000)->Unit(benchmark::kMillisecond);
BENCHMARK(identicalRepublishMixed)->Arg(10'000)->Arg(200'000)->Unit(benchmark::kMillisecond);
BENCHMARK(restartMixed)->Arg(10'000)->Arg(200'000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace KilnAgent

BENCHMARK_MAIN();
