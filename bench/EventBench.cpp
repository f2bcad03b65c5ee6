// The cost of single events that many entries could make more expensive: conflicts, VLAN domains, and one
// entry among many that was not used for a long time.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <vector>

#include "bench/Cycle.h"
#include "bench/Subjects.h"

namespace KilnBench {
namespace {

using KilnEmServer::EmStatus;
using KilnEmServer::FeatureType;
using KilnTunnelNiLib::IntfIdSystemTcamId;
using KilnTunnelNiLib::Isem1TagComposerKey;
using KilnTunnelNiLib::IsemUntaggedComposerKey;

/// Publishes a request with the entry of its key's version 1.
void publishFirst(WholeServer& server, const Request& request, std::uint32_t version = 1) {
  publish(server.store(), request, entryOf(request.key, 1, version), version);
}

void reportPerEvent(benchmark::State& state, std::vector<double> nanoseconds, double events) {
  const double each = median(std::move(nanoseconds)) / events;
  state.counters["ns_per_event"] = each;
}

void require(benchmark::State& state, const WholeServer& server, const Request& request, EmStatus status) {
  const auto found = statusOf(server.store(), request);
  if (!found || found->status != status) state.SkipWithError("what was measured did not do its work");
}

/// Every key is requested by three features, and the winner of each withdraws.
void winnerLeaves(benchmark::State& state) {
  const auto keys = static_cast<std::uint32_t>(state.range(0));
  const auto asked = [](std::uint32_t n, FeatureType feature) {
    Request request = requestOf(RequestMix::isemMplsEntryKey, n);
    request.feature = feature;
    return request;
  };
  WholeServer server;
  for (std::uint32_t n = 0; n < keys; ++n) {
    for (const auto feature : {FeatureType::mpls, FeatureType::evpn, FeatureType::srv6}) {
      publishFirst(server, asked(n, feature));
    }
    if (n % 256 == 255) server.settle();
  }
  server.settle();
  std::vector<double> samples;
  std::uint64_t round = 0;
  for (auto _ : state) {
    const auto order = numbers(keys, true, ++round);
    samples.push_back(timed([&] {
      for (std::uint32_t i = 0; i < keys; ++i) {
        withdraw(server.store(), asked(order[i], FeatureType::srv6));
        if (i % 256 == 255) server.settle();
      }
      server.settle();
    }));
    state.SetIterationTime(samples.back() * 1e-9);
    require(state, server, asked(keys / 2, FeatureType::evpn), EmStatus::hwSuccess);
    for (std::uint32_t n = 0; n < keys; ++n) publishFirst(server, asked(n, FeatureType::srv6));
    server.settle();
  }
  reportPerEvent(state, std::move(samples), keys);
}
BENCHMARK(winnerLeaves)
    ->Name("conflict/winnerLeaves")
    ->RangeMultiplier(10)
    ->Range(1'000, 100'000)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

Request untagged(std::uint32_t n) {
  return {KilnEmServer::EmType::isem, FeatureType::bridging, IsemUntaggedComposerKey{1000 + n, 0}};
}

/// So many interfaces share one domain, so that their requests have one hardware key.
void shareOneDomain(WholeServer& server, std::uint32_t losers) {
  server.vlanDomains().modeIs(KilnAgent::VlanDomainService::Mode::manual);
  for (std::uint32_t n = 0; n <= losers; ++n) {
    server.vlanDomains().allot(IntfIdSystemTcamId{1000 + n, 0}, 7);
    publishFirst(server, untagged(n));
    if (n % 256 == 255) server.settle();
  }
  server.settle();
}

/// One hardware key has many losers: its winner requests another entry, then withdraws and publishes again.
void manyLosers(benchmark::State& state) {
  const auto losers = static_cast<std::uint32_t>(state.range(0));
  WholeServer server;
  shareOneDomain(server, losers);
  require(state, server, untagged(losers), EmStatus::hwKeyConflict);
  std::vector<double> newEntry;
  std::vector<double> leaves;
  std::uint32_t version = 1;
  for (auto _ : state) {
    const auto change = [&] {
      publishFirst(server, untagged(0), ++version);
      server.settle();
    };
    const auto leave = [&] {
      withdraw(server.store(), untagged(0));
      server.settle();
    };
    newEntry.push_back(timed(change));
    require(state, server, untagged(0), EmStatus::hwSuccess);
    leaves.push_back(timed(leave));
    require(state, server, untagged(1), EmStatus::hwSuccess);
    state.SetIterationTime((newEntry.back() + leaves.back()) * 1e-9);
    change();
  }
  state.counters["new_entry_ns"] = median(std::move(newEntry));
  state.counters["winner_leaves_ns"] = median(std::move(leaves));
}
BENCHMARK(manyLosers)
    ->Name("conflict/losersOfOneKey")
    ->RangeMultiplier(10)
    ->Range(10, 10'000)
    ->Iterations(200)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

/// Many keys use one domain: first the interface gets another domain, then one of the keys gets a new
/// version.
void domainChange(benchmark::State& state) {
  const auto keys = static_cast<std::uint32_t>(state.range(0));
  const IntfIdSystemTcamId interface { 1000, 0 };
  const auto asked = [](std::uint32_t n) {
    return Request{KilnEmServer::EmType::isem, FeatureType::subinterface,
                   KilnTunnelNiLib::Isem2TagComposerKey{1000, 0, static_cast<std::uint16_t>(1 + n % 4000),
                                                        static_cast<std::uint16_t>(1 + n / 4000)}};
  };
  WholeServer server;
  server.vlanDomains().modeIs(KilnAgent::VlanDomainService::Mode::manual);
  server.vlanDomains().allot(interface, 1);
  for (std::uint32_t n = 0; n < keys; ++n) {
    publishFirst(server, asked(n));
    if (n % 256 == 255) server.settle();
  }
  server.settle();
  std::vector<double> changes;
  std::vector<double> versions;
  std::uint32_t round = 1;
  for (auto _ : state) {
    changes.push_back(timed([&] {
      server.vlanDomains().allot(interface, static_cast<std::uint16_t>(++round));
      server.settle();
    }));
    versions.push_back(timed([&] {
      publishFirst(server, asked(keys / 2), round);
      server.settle();
    }));
    state.SetIterationTime(changes.back() * 1e-9);
    require(state, server, asked(keys - 1), EmStatus::hwSuccess);
  }
  state.counters["one_new_version_ns"] = median(std::move(versions));
  reportPerEvent(state, std::move(changes), keys);
}
BENCHMARK(domainChange)
    ->Name("domainChange")
    ->RangeMultiplier(10)
    ->Range(1'000, 1'000'000)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

/// One random request of many gets a new version; everything is quiet before the next.
void coldEntry(benchmark::State& state) {
  constexpr std::uint32_t kSingles = 5'000;
  const auto entries = static_cast<std::uint32_t>(state.range(0));
  WholeServer server;
  for (std::uint32_t n = 0; n < entries; ++n) {
    server.publish(n, 1);
    if (n % 256 == 255) server.settle();
  }
  server.settle();
  std::vector<double> samples;
  std::uint32_t version = 1;
  for (auto _ : state) {
    const auto order = numbers(entries, true, ++version);
    samples.push_back(timed([&] {
      for (std::uint32_t i = 0; i < kSingles; ++i) {
        server.publish(order[i % entries], version + i / entries * 100);
        server.settle();
      }
    }));
    state.SetIterationTime(samples.back() * 1e-9);
  }
  reportPerEvent(state, std::move(samples), kSingles);
}
BENCHMARK(coldEntry)
    ->Name("coldEntry/mixed")
    ->RangeMultiplier(10)
    ->Range(1'000, 1'000'000)
    ->Iterations(5)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace KilnBench
