// The whole path of an entry: the cost of each operation per entry, compared with the floor and the naive
// server, and the share of store and chip.
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "bench/Chain.h"
#include "bench/Cycle.h"
#include "bench/NaiveServer.h"
#include "bench/Subjects.h"

namespace KilnBench {
namespace {

/// A candidate of the comparison: its name, whether it has work to do at a restart, and a cycle over a new
/// instance.
struct Candidate {
  std::string name;
  bool restarts;
  std::function<CycleCost(const CycleSetting&)> cycle;
};

template <class Subject, class... Arguments>
Candidate candidate(std::string name, Arguments... arguments) {
  return {std::move(name), Restartable<Subject>, [=](const CycleSetting& setting) {
            Subject subject(arguments...);
            return Cycle<Subject>(subject, setting).run();
          }};
}

/// Candidates are measured in turns, so that a machine that is slow for a while is slow for all of them.
class Comparison {
 public:
  explicit Comparison(std::vector<Candidate> candidates) : candidates_(std::move(candidates)) {}

  [[nodiscard]] const std::vector<Candidate>& candidates() const { return candidates_; }
  [[nodiscard]] bool restarts(const std::string& name) const {
    return std::any_of(candidates_.begin(), candidates_.end(),
                       [&](const Candidate& each) { return each.name == name && each.restarts; });
  }
  /// The medians of one candidate's cycles; measures all candidates at the first call for a setting.
  const CycleCost& cost(const std::string& name, const CycleSetting& setting) {
    auto& byName = costs_[std::tuple(setting.entries, setting.shuffled, setting.burst)];
    if (byName.empty()) measureAll(setting, byName);
    return byName.at(name);
  }

 private:
  void measureAll(const CycleSetting& setting, std::map<std::string, CycleCost>& byName) {
    const std::uint32_t rounds = std::clamp(600'000U / setting.entries, 3U, 15U);
    std::map<std::string, std::vector<CycleCost>> all;
    for (std::uint32_t round = 0; round < rounds; ++round) {
      for (const Candidate& each : candidates_) all[each.name].push_back(each.cycle(setting));
    }
    for (const auto& [name, cycles] : all) byName[name] = medians(cycles);
  }
  static CycleCost medians(const std::vector<CycleCost>& cycles) {
    CycleCost result;
    for (std::size_t operation = 0; operation < result.size(); ++operation) {
      const auto of = [&](double Cost::*figure) {
        std::vector<double> samples;
        for (const CycleCost& cycle : cycles) samples.push_back(cycle[operation].*figure);
        return median(std::move(samples));
      };
      result[operation] = {of(&Cost::nanoseconds), of(&Cost::allocations), of(&Cost::bytes)};
    }
    return result;
  }

  std::vector<Candidate> candidates_;
  std::map<std::tuple<std::uint32_t, bool, std::uint32_t>, std::map<std::string, CycleCost>> costs_;
};

void report(benchmark::State& state, Comparison& comparison, const std::string& name, Operation operation,
            const CycleSetting& setting) {
  const auto costOf = [&](const std::string& of) { return comparison.cost(of, setting)[indexOf(operation)]; };
  const Cost own = costOf(name);
  for (auto _ : state) state.SetIterationTime(own.nanoseconds * setting.entries * 1e-9);
  state.SetItemsProcessed(state.iterations() * setting.entries);
  state.counters["ns_per_entry"] = own.nanoseconds;
  state.counters["allocations_per_entry"] = own.allocations;
  state.counters["bytes_per_entry"] = own.bytes;
  if (name.starts_with("durable")) {
    const double added = own.nanoseconds - costOf("agent").nanoseconds;
    state.counters["added_ns"] = added;
    state.counters["added_per_road"] = added / costOf("mixed").nanoseconds;
  }
  if (name != "mixed") return;
  state.counters["naive_ns"] = costOf("naive").nanoseconds;
  state.counters["naive_times"] = costOf("naive").nanoseconds / own.nanoseconds;
  if (operation != Operation::restart) {
    state.counters["floor_ns"] = costOf("floor").nanoseconds;
    state.counters["times_floor"] = own.nanoseconds / costOf("floor").nanoseconds;
    state.counters["stage_chain_ns"] = costOf("stageChain").nanoseconds;
    state.counters["naive_chain_ns"] = costOf("naiveChain").nanoseconds;
    state.counters["store_ns"] = costOf("store").nanoseconds;
  }
  state.counters["chip_ns"] = costOf("chip").nanoseconds;
  if (operation == Operation::restart) {
    state.counters["without_chip_s"] =
        (own.nanoseconds - costOf("chip").nanoseconds) * setting.entries * 1e-9;
  } else {
    state.counters["server_bytes"] = own.bytes - costOf("store").bytes - costOf("chip").bytes;
  }
}

void registerComparison(const std::shared_ptr<Comparison>& comparison, const std::string& name,
                        const CycleSetting& setting) {
  for (std::size_t index = 0; index < kOperationNames.size(); ++index) {
    const auto operation = static_cast<Operation>(index);
    if (operation == Operation::restart && !comparison->restarts(name)) continue;
    const auto title = fmt::format("{}/{}/{}/{}", name, kOperationNames[index],
                                   setting.shuffled ? "shuffled" : "inOrder", setting.entries);
    benchmark::RegisterBenchmark(
        title.c_str(), [=](benchmark::State& state) { report(state, *comparison, name, operation, setting); })
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
  }
}

constexpr std::array<std::uint32_t, 4> kSizes = {1'000, 10'000, 100'000, 1'000'000};

bool registerMixed() {
  const auto comparison = std::make_shared<Comparison>(
      std::vector{candidate<FloorChain>("floor"), candidate<StageChain>("stageChain"),
                  candidate<NaiveChain>("naiveChain"), candidate<KilnNaive::Server>("naive"),
                  candidate<ServerWithLists>("mixed", kMixed), candidate<ServerOneByOne>("mixedSingly"),
                  candidate<StoreAlone>("store"), candidate<ChipAlone>("chip")});
  for (const std::uint32_t entries : kSizes) {
    for (const bool shuffled : {false, true}) {
      for (const Candidate& each : comparison->candidates()) {
        registerComparison(comparison, each.name, {entries, shuffled});
      }
    }
  }
  return true;
}

/// All requests in one batch: the server starts after the last one was submitted.
bool registerAtOnce() {
  const auto comparison =
      std::make_shared<Comparison>(std::vector{candidate<ServerWithLists>("mixedAtOnce", kMixed)});
  for (const std::uint32_t entries : {100'000U, 1'000'000U}) {
    registerComparison(comparison, "mixedAtOnce", {entries, true, entries});
  }
  return true;
}

bool registerTypes() {
  KilnPlatform::forEachEnumValue<RequestMix>([](RequestMix type) {
    if (type == kMixed) return;
    const std::string name(mixName(type));
    const auto comparison = std::make_shared<Comparison>(std::vector{candidate<ServerWithLists>(name, type)});
    std::uint32_t last = 0;
    for (const std::uint32_t size : kSizes) {
      const std::uint32_t entries = std::min(size, mostRequests(type));
      if (entries == std::exchange(last, entries)) continue;
      for (const bool shuffled : {false, true}) registerComparison(comparison, name, {entries, shuffled});
    }
  });
  return true;
}

/// The cost of following the store, with commits that wait for the disk and with commits that do not. The
/// waiting time is not the thread's.
bool registerDurable() {
  using KilnAgent::Durability;
  const auto comparison = std::make_shared<Comparison>(
      std::vector{candidate<ServerWithLists>("mixed", kMixed), candidate<WholeAgent>("agent"),
                  candidate<WholeAgent>("durable", Durability::power),
                  candidate<WholeAgent>("durableNoSync", Durability::process)});
  for (const std::uint32_t entries : {10'000U, 100'000U, 1'000'000U}) {
    for (const char* name : {"agent", "durable", "durableNoSync"}) {
      registerComparison(comparison, name, {entries, true});
    }
  }
  return true;
}

const bool registered = registerMixed() && registerAtOnce() && registerTypes() && registerDurable();

}  // namespace
}  // namespace KilnBench
