// One cycle of operations for tools that observe a process from outside: counts under valgrind's callgrind,
// one dump per operation, and profiles of perf, which is enabled for one operation only.
#include <fcntl.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "bench/Chain.h"
#include "bench/Cycle.h"
#include "bench/Subjects.h"
#include "kiln/agent/io/FileDescriptor.h"

namespace KilnBench {
namespace {

/// Under callgrind each operation has its own dump. With perf's control FIFO, perf runs during one operation.
class Watched final : public CycleObserver {
 public:
  Watched(const std::string& perfControl, std::string operation) : operation_(std::move(operation)) {
    if (!perfControl.empty()) control_ = KilnAgent::FileDescriptor(::open(perfControl.c_str(), O_WRONLY));
  }
  void begin(Operation operation) override {
    tell("enable\n", operation);
    CALLGRIND_ZERO_STATS;
  }
  void end(Operation operation) override {
    CALLGRIND_DUMP_STATS_AT(kOperationNames[indexOf(operation)].data());
    tell("disable\n", operation);
  }

 private:
  void tell(std::string_view command, Operation operation) {
    if (!control_.valid() || kOperationNames[indexOf(operation)] != operation_) return;
    if (::write(control_.number(), command.data(), command.size()) < 0) std::perror("perf's control FIFO");
  }

  KilnAgent::FileDescriptor control_;
  std::string operation_;
};

template <class Subject, class... Arguments>
CycleCost run(const CycleSetting& setting, CycleObserver& observer, Arguments... arguments) {
  Subject subject(arguments...);
  return Cycle<Subject>(subject, setting, &observer).run();
}

CycleCost run(const std::string& name, const CycleSetting& setting, CycleObserver& observer) {
  if (name == "floor") return run<FloorChain>(setting, observer);
  if (name == "stageChain") return run<StageChain>(setting, observer);
  if (name == "store") return run<StoreAlone>(setting, observer);
  if (name == "chip") return run<ChipAlone>(setting, observer);
  if (name == "durable") return run<WholeAgent>(setting, observer, KilnAgent::Durability::power);
  if (name == "agent") return run<WholeAgent>(setting, observer);
  if (name == "mixedSingly") return run<ServerOneByOne>(setting, observer);
  return run<ServerWithLists>(setting, observer);
}

}  // namespace
}  // namespace KilnBench

int main(int argc, char** argv) {
  using namespace KilnBench;
  CLI::App app(
      "Runs first inserts, new versions, identical ones, a restart and withdrawals, and prints what each "
      "cost per entry as JSON.");
  CycleSetting setting{.entries = 4'000, .shuffled = true, .rounds = 2};
  std::string subject = "mixed";
  std::string perfControl;
  std::string operation;
  bool warm = false;
  app.add_option("--entries", setting.entries, "how many")->check(CLI::Range(1, 1'500'000));
  app.add_option("--rounds", setting.rounds, "of new versions and of identical ones; the last is printed");
  app.add_option("--burst", setting.burst, "requests after which the server runs until it is idle")
      ->check(CLI::PositiveNumber);
  app.add_option("--subject", subject)
      ->check(CLI::IsMember(
          {"mixed", "mixedSingly", "agent", "durable", "store", "chip", "floor", "stageChain"}));
  app.add_flag("--warm", warm, "runs it once before, so that the memory is there already");
  app.add_option("--perf-control", perfControl, "the FIFO that perf record --control was given");
  app.add_option("--operation", operation, "the one that perf is to see");
  CLI11_PARSE(app, argc, argv);

  if (warm) {
    Watched unobserved({}, {});
    (void)run(subject, setting, unobserved);
  }
  Watched observer(perfControl, operation);
  const CycleCost costs = run(subject, setting, observer);
  nlohmann::ordered_json out;
  for (std::size_t at = 0; at < costs.size(); ++at) {
    out[std::string(kOperationNames[at])] = {{"nanoseconds", costs[at].nanoseconds},
                                             {"allocations", costs[at].allocations},
                                             {"bytes", costs[at].bytes}};
  }
  std::puts(out.dump(2).c_str());
  return 0;
}
