// The time from a single request to its status, and the duration of slices, while the server is busy with
// others.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "bench/Measure.h"
#include "bench/Subjects.h"
#include "kiln/runtime/collections/PageArena.h"

namespace KilnBench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::microseconds kSliceBudget{200};

double microsecondsSince(Clock::time_point begin) {
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

/// Runs slices and records the duration of each, in microseconds of the thread's own time, so that other
/// programs do not count.
class SliceTimer {
 public:
  explicit SliceTimer(WholeServer& server) : server_(server) {}
  /// False if no task was ready.
  bool runOne() {
    bool ran = false;
    const double nanoseconds = timed([&] { ran = server_.scheduler().runOne(); });
    if (ran) slices_.push_back(nanoseconds * 1e-3);
    return ran;
  }
  void settle() {
    while (runOne()) {
    }
  }
  void report(benchmark::State& state) {
    state.counters["slices"] = static_cast<double>(slices_.size());
    state.counters["slice_p999_us"] = quantile(slices_, 0.999);
    state.counters["worst_slice_us"] = quantile(slices_, 1.0);
  }

 private:
  WholeServer& server_;
  std::vector<double> slices_;
};

void reportLatency(benchmark::State& state, std::vector<double> microseconds) {
  state.counters["p50_us"] = quantile(microseconds, 0.5);
  state.counters["p99_us"] = quantile(microseconds, 0.99);
  state.counters["p999_us"] = quantile(microseconds, 0.999);
  state.counters["worst_us"] = quantile(microseconds, 1.0);
}

void load(WholeServer& server, std::uint32_t entries) {
  for (std::uint32_t n = 0; n < entries; ++n) {
    server.publish(n, 1);
    if (n % 256 == 255) server.settle();
  }
  server.settle();
}

/// An endless sequence of new versions of random entries.
class Churn {
 public:
  Churn(WholeServer& server, std::uint32_t entries) : server_(server), entries_(entries) {}
  void publish(std::uint64_t count) {
    for (; count != 0; --count) server_.publish(static_cast<std::uint32_t>(random_() % entries_), ++version_);
  }

 private:
  WholeServer& server_;
  std::uint32_t entries_;
  std::uint32_t version_ = 1;
  std::mt19937_64 random_{1};
};

/// Publishes single requests of keys that do not churn, one at a time.
class Probe {
 public:
  Probe(WholeServer& server, std::uint32_t first) : server_(server), first_(first) {}
  void publish() {
    ++version_;
    begin_ = Clock::now();
    server_.publish(current(), version_);
  }
  /// Whether the last request has its status; records its latency then.
  bool answered() {
    const auto status = statusOf(server_.store(), requestOf(kMixed, current()));
    if (!status || status->version != version_ || status->status != KilnEmServer::EmStatus::hwSuccess) {
      return false;
    }
    latencies_.push_back(microsecondsSince(begin_));
    return true;
  }
  /// Records how long the last request has waited without an answer.
  void giveUp() { latencies_.push_back(microsecondsSince(begin_)); }
  [[nodiscard]] std::size_t count() const { return latencies_.size(); }
  [[nodiscard]] std::vector<double> latencies() const { return latencies_; }

 private:
  [[nodiscard]] std::uint32_t current() const { return first_ + version_ % 1'000; }
  WholeServer& server_;
  std::uint32_t first_;
  std::uint32_t version_ = 0;
  Clock::time_point begin_;
  std::vector<double> latencies_;
};

/// A rate of changes given by the clock, independent of the server's progress: each entry changes once a
/// second if the rate equals the number of entries.
void latencyAtRate(benchmark::State& state) {
  const auto entries = static_cast<std::uint32_t>(state.range(0));
  const auto perSecond = static_cast<double>(state.range(1));
  constexpr std::size_t kProbes = 5'000;
  constexpr double kAtMost = 10e6;  // microseconds: for a rate that the server cannot handle
  WholeServer server(kMixed, kSliceBudget);
  load(server, entries);
  Churn churn(server, entries);
  SliceTimer slices(server);
  Probe probe(server, entries);
  for (auto _ : state) {
    std::mt19937_64 random(2);
    std::uint64_t due = 0;
    double nextProbe = 0;
    bool waiting = false;
    double now = 0;
    const auto begin = Clock::now();
    while (probe.count() < kProbes && now < kAtMost) {
      now = microsecondsSince(begin);
      const auto want = static_cast<std::uint64_t>(now * 1e-6 * perSecond);
      churn.publish(want - due);
      due = want;
      if (!waiting && now >= nextProbe) {
        probe.publish();
        waiting = true;
      }
      slices.runOne();
      if (waiting && probe.answered()) {
        waiting = false;
        nextProbe = microsecondsSince(begin) + static_cast<double>(random() % 400);
      }
    }
    if (waiting) probe.giveUp();
    state.counters["churn_per_second"] = static_cast<double>(due) / (microsecondsSince(begin) * 1e-6);
    server.settle();
  }
  state.counters["probes"] = static_cast<double>(probe.count());
  reportLatency(state, probe.latencies());
  slices.report(state);
}
BENCHMARK(latencyAtRate)
    ->Name("latency/churn")
    ->ArgNames({"", "perSecond"})
    ->Args({100'000, 20'000})
    ->Args({100'000, 100'000})
    ->Args({100'000, 500'000})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// The server is never idle: whenever it has finished, a burst is published, with a single request.
void latencySaturated(benchmark::State& state) {
  const auto entries = static_cast<std::uint32_t>(state.range(0));
  const auto burst = static_cast<std::uint64_t>(state.range(1));
  constexpr std::size_t kProbes = 2'000;
  WholeServer server(kMixed, kSliceBudget);
  load(server, entries);
  Churn churn(server, entries);
  SliceTimer slices(server);
  Probe probe(server, entries);
  for (auto _ : state) {
    while (probe.count() < kProbes) {
      churn.publish(burst);
      probe.publish();
      while (!probe.answered()) slices.runOne();
      slices.settle();
    }
  }
  reportLatency(state, probe.latencies());
  slices.report(state);
}
BENCHMARK(latencySaturated)
    ->Name("latency/saturated")
    ->ArgNames({"", "burst"})
    ->Args({100'000, 64})
    ->Args({100'000, 256})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// The longest slices of one batch of first inserts, of a restart, and of one batch of withdrawals, including
/// growing and shrinking; with so many bytes per entry reserved before.
void worstSlices(benchmark::State& state) {
  const auto entries = static_cast<std::uint32_t>(state.range(0));
  KilnEmServer::PageArena::instance().reserve(std::size_t{entries} *
                                              static_cast<std::size_t>(state.range(1)));
  for (auto _ : state) {
    WholeServer server(kMixed, kSliceBudget);
    const auto run = [&](const char* name, auto&& cause) {
      SliceTimer slices(server);
      cause();
      slices.settle();
      benchmark::State& out = state;
      slices.report(out);
      out.counters[std::string(name) + "_worst_slice_us"] = out.counters["worst_slice_us"];
    };
    run("insert", [&] {
      for (std::uint32_t n = 0; n < entries; ++n) server.publish(n, 1);
    });
    run("restart", [&] {
      server.stop();
      server.start();
    });
    run("withdraw", [&] {
      for (std::uint32_t n = 0; n < entries; ++n) server.withdraw(n);
    });
  }
  for (const char* each : {"slices", "slice_p999_us", "worst_slice_us"}) state.counters.erase(each);
}
BENCHMARK(worstSlices)
    ->Name("slices/mixed")
    ->ArgNames({"", "reservedPerEntry"})
    ->Args({100'000, 0})
    ->Args({100'000, 1'500})
    ->Args({1'000'000, 0})
    ->Args({1'000'000, 1'500})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace KilnBench
