// The command line of the simulation.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kiln/agent/io/InputError.h"
#include "kiln/agent/report/Report.h"
#include "sim/Explore.h"
#include "sim/Marks.h"
#include "sim/Minimize.h"
#include "sim/Plan.h"
#include "sim/Run.h"

namespace KilnSim {
namespace {

constexpr std::size_t kMostJobs = 64;
constexpr std::size_t kMostMarks = 128;
/// One in so many seeds is run a second time, traced if the first run was not and vice versa, and must do the
/// same; one in so many counts the marks.
constexpr std::uint64_t kTwiceEvery = 8;
constexpr std::uint64_t kMarksEvery = 1;

struct Arguments {
  std::uint64_t seed = 0;
  std::string seeds;
  std::uint64_t fresh = 0;
  std::size_t steps = 2000;
  std::string profile;
  unsigned jobs = 1;
  bool minimized = false;
  std::string out = "minimized.jsonl";
  std::vector<std::string> replay;
  std::string old;
  std::string marks;
  std::uint64_t failures = 10;
  std::vector<std::string> explored;
  ExploreOptions explore;
};

/// One plan to be run, by its seed or its file.
struct Task {
  std::uint64_t seed = 0;
  std::size_t steps = 0;
  std::string profile;
  std::string file;

  [[nodiscard]] Plan plan() const { return file.empty() ? drawPlan(seed, steps, profile) : readPlan(file); }
  [[nodiscard]] std::string name() const { return file.empty() ? fmt::format("seed {}", seed) : file; }
  [[nodiscard]] std::string command() const {
    if (!file.empty()) return fmt::format("kiln-sim --replay {}", file);
    return fmt::format("kiln-sim --seed {} --steps {}{}", seed, steps,
                       profile.empty() ? "" : " --profile " + profile);
  }
};

/// The data that processes share: the progress of each, and their common results.
struct Shared {
  struct Worker {
    std::atomic<std::size_t> next;  ///< index of the task that is running or to be run
    std::atomic<std::size_t> at;    ///< the operation that is running
    std::atomic<bool> running;
  };
  std::array<Worker, kMostJobs> workers;
  std::atomic<std::uint64_t> seeds, steps, tasks, quiet, restarts, faults, failures;
  std::array<std::atomic<std::uint64_t>, kMostMarks> marks;
};

Shared& shareMemory() {
  void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::runtime_error("no memory to share");
  return *new (memory) Shared{};
}

void tellFailure(const Task& task, std::size_t step, const std::string& wrong) {
  const std::string text = fmt::format("FAILED {}, commit {}, step {}:\n{}replay: {}\n", task.name(),
                                       KILN_COMMIT, step, wrong, task.command());
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

/// Runs the tasks, in one process or in several that are replaced when they die.
class Campaign {
 public:
  Campaign(std::vector<Task> tasks, unsigned jobs, std::vector<std::string> marks, std::uint64_t failures)
      : tasks_(std::move(tasks)),
        jobs_(jobs),
        marks_(std::move(marks)),
        failures_(failures),
        shared_(shareMemory()) {
    if (marks_.size() > kMostMarks) throw KilnAgent::InputError("too many marks");
  }

  /// True if every task passed and every mark was hit.
  bool run() {
    begin_ = std::chrono::steady_clock::now();
    std::vector<pid_t> children;
    for (unsigned job = 0; job < jobs_; ++job) {
      shared_.workers[job].next = job;
      children.push_back(start(job));
    }
    for (std::size_t running = children.size(); running != 0;) {
      int status = 0;
      const pid_t ended = waitpid(-1, &status, WNOHANG);
      if (ended <= 0) {
        showProgress();
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        continue;
      }
      const auto job =
          static_cast<unsigned>(std::find(children.begin(), children.end(), ended) - children.begin());
      if (WIFEXITED(status)) {
        if (WEXITSTATUS(status) != 0) ++shared_.failures;
        --running;
      } else {
        died(job);
        children[job] = start(job);
      }
    }
    showResult();
    return shared_.failures == 0 && allMarksHit();
  }

 private:
  pid_t start(unsigned job) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child != 0) return child;
    work(job);
    std::exit(0);  // so that coverage and leak checks of the process can finish
  }

  void work(unsigned job) {
    Shared::Worker& worker = shared_.workers[job];
    for (; worker.next < tasks_.size(); worker.next += jobs_) {
      if (shared_.failures >= failures_) return;
      worker.at = 0;
      runTask(tasks_[worker.next], worker, worker.next);
    }
  }

  void runTask(const Task& task, Shared::Worker& worker, std::size_t index) {
    Tally tally;
    Marks marks;
    const Plan plan = task.plan();
    const bool marked = !marks_.empty() && (index % kMarksEvery == 0 || !task.file.empty());
    Verdict verdict = KilnSim::run(plan, tally, marked ? &marks : nullptr,
                                   [&](std::size_t at) { worker.at.store(at, std::memory_order_relaxed); });
    if (verdict.wrong.empty() && index % kTwiceEvery == 0) compareTraced(plan, tally, !marked, verdict);
    if (!verdict.wrong.empty()) {
      ++shared_.failures;
      tellFailure(task, verdict.step, verdict.wrong);
    }
    for (std::size_t i = 0; marked && i < marks_.size(); ++i) shared_.marks[i] += marks.count(marks_[i]);
    ++shared_.seeds;
    shared_.steps += tally.steps;
    shared_.tasks += tally.tasks;
    shared_.quiet += tally.quiet;
    shared_.restarts += tally.restarts;
    shared_.faults += tally.faults;
  }

  /// Checks that tracing has no side effects.
  static void compareTraced(const Plan& plan, const Tally& tally, bool traced, Verdict& verdict) {
    Tally again;
    Marks marks;
    const Verdict second = KilnSim::run(plan, again, traced ? &marks : nullptr);
    if (second.digests == verdict.digests && again.tasks == tally.tasks) return;
    const auto [first, other] = std::mismatch(verdict.digests.begin(), verdict.digests.end(),
                                              second.digests.begin(), second.digests.end());
    verdict.wrong = fmt::format("traced and untraced runs differ, from quiet moment {} of {} on\n",
                                first - verdict.digests.begin() + 1, verdict.digests.size());
  }

  /// A worker died of a failed assertion or a fault, after it reported what it could.
  void died(unsigned job) {
    Shared::Worker& worker = shared_.workers[job];
    const Task& task = tasks_[worker.next];
    const Plan plan = task.plan();
    const auto steps = std::count_if(
        plan.operations.begin(), plan.operations.begin() + static_cast<std::ptrdiff_t>(worker.at.load()) + 1,
        [](const auto& operation) { return !std::holds_alternative<KilnAgent::RunOperation>(operation); });
    ++shared_.failures;
    tellFailure(task, static_cast<std::size_t>(steps), "the process died\n");
    worker.next += jobs_;
  }

  [[nodiscard]] double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count();
  }
  [[nodiscard]] std::size_t marksHit() const {
    return static_cast<std::size_t>(std::count_if(
        shared_.marks.begin(), shared_.marks.begin() + static_cast<std::ptrdiff_t>(marks_.size()),
        [](const auto& hits) { return hits != 0; }));
  }
  [[nodiscard]] std::string progressText() const {
    using KilnAgent::grouped;
    const double rate = static_cast<double>(shared_.steps) / std::max(seconds(), 0.001);
    std::string text = fmt::format(
        "{} of {} seeds, {} steps ({}/s), {} restarts, {} faults injected, {} quiet moments compared",
        grouped(shared_.seeds), grouped(tasks_.size()), grouped(shared_.steps),
        grouped(static_cast<std::uint64_t>(rate)), grouped(shared_.restarts), grouped(shared_.faults),
        grouped(shared_.quiet));
    if (!marks_.empty()) text += fmt::format(", {} of {} marks hit", marksHit(), marks_.size());
    return text;
  }
  void showProgress() const {
    if (isatty(STDERR_FILENO) == 0) return;
    fmt::print(stderr, "\r\033[K{}", progressText());
    std::fflush(stderr);
  }
  void showResult() const {
    if (isatty(STDERR_FILENO) != 0) fmt::print(stderr, "\r\033[K");
    fmt::print("{}, {} failed, {:.1f} s\n", progressText(), shared_.failures.load(), seconds());
  }
  [[nodiscard]] bool allMarksHit() const {
    for (std::size_t i = 0; i < marks_.size(); ++i) {
      if (shared_.marks[i] == 0) fmt::print("never passed: {}\n", marks_[i]);
    }
    return marksHit() == marks_.size();
  }

  std::vector<Task> tasks_;
  unsigned jobs_;
  std::vector<std::string> marks_;
  std::uint64_t failures_;  ///< stops after so many
  Shared& shared_;
  std::chrono::steady_clock::time_point begin_;
};

/// Lines of seed, steps and profile, which may be missing; # before comments.
void addOldSeeds(const std::string& path, std::vector<Task>& tasks) {
  std::ifstream file(path);
  if (!file) throw KilnAgent::InputError(fmt::format("{}: cannot be read", path));
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line.substr(0, line.find('#')));
    Task task;
    if (words >> task.seed >> task.steps) {
      words >> task.profile;
      tasks.push_back(task);
    }
  }
}

std::vector<Task> tasksOf(const Arguments& arguments) {
  std::vector<Task> tasks;
  for (const std::string& file : arguments.replay) tasks.push_back({0, 0, "", file});
  if (!arguments.old.empty()) addOldSeeds(arguments.old, tasks);
  unsigned long long from = arguments.seed;
  unsigned long long to = arguments.seed;
  if (arguments.fresh != 0) {
    from = static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch() /
                                      std::chrono::microseconds(1));
    to = from + arguments.fresh - 1;
  } else if (!arguments.seeds.empty() &&
             (std::sscanf(arguments.seeds.c_str(), "%llu..%llu", &from, &to) != 2 || from > to)) {
    throw KilnAgent::InputError(fmt::format("--seeds {}: expected FROM..TO", arguments.seeds));
  } else if (arguments.seeds.empty() && arguments.seed == 0) {
    return tasks;
  }
  for (std::uint64_t seed = from; seed <= to; ++seed) {
    tasks.push_back({seed, arguments.steps, arguments.profile, ""});
  }
  return tasks;
}

int minimizeOne(const Arguments& arguments, const Task& task) {
  Plan plan = task.plan();
  if (runApart(plan).wrong.empty()) {
    fmt::print("{} holds\n", task.name());
    return 0;
  }
  plan = minimize(std::move(plan));
  Verdict verdict = runApart(plan);
  Tally tally;
  // A verdict that was reached in this process also has the expectations.
  if (verdict.wrong != "the process died\n") verdict = run(plan, tally, nullptr);
  std::ofstream(arguments.out) << scenarioOf(plan, verdict);
  fmt::print("{}{} operations in {}: {}\n", verdict.wrong, plan.operations.size(), arguments.out,
             replayCommand(plan, arguments.out));
  return 1;
}

/// Explores each of the scenarios; prints one line for each.
int exploreAll(const Arguments& arguments) {
  bool held = true;
  for (const std::string& file : arguments.explored) {
    ExploreOptions options = arguments.explore;
    options.jobs = arguments.jobs;
    options.out = arguments.out;
    const Explored explored = explore(file, options);
    fmt::print("{}: {}\n", file, textOf(explored));
    if (!explored.failure.empty())
      fmt::print("FAILED {}, commit {}:\n{}", file, KILN_COMMIT, explored.failure);
    std::fflush(stdout);
    held = held && explored.failure.empty();
  }
  return held ? 0 : 1;
}

int simulate(const Arguments& arguments) {
  if (!arguments.explored.empty()) return exploreAll(arguments);
  std::vector<Task> tasks = tasksOf(arguments);
  if (tasks.empty()) throw KilnAgent::InputError("no seed; see kiln-sim --help");
  if (arguments.minimized) return minimizeOne(arguments, tasks.front());
  std::vector<std::string> marks;
  if (!arguments.marks.empty()) marks = Marks::listed(arguments.marks);
  return Campaign(std::move(tasks), arguments.jobs, std::move(marks), arguments.failures).run() ? 0 : 1;
}

void addExploreOptions(CLI::App& app, Arguments& arguments) {
  ExploreOptions& explore = arguments.explore;
  app.add_option("--explore", arguments.explored, "Small scenarios of which every schedule is run");
  app.add_option("--deviations", explore.deviations, "From the default order, at most; otherwise no limit");
  app.add_flag("--as-tested", explore.asTested, "At most as many deviations as the scenario says");
  app.add_flag("--from-ready", explore.fromReady, "Does not explore the start of the first server");
  app.add_option("--budget", explore.budgetSeconds, "Seconds after which exploring a scenario stops");
  app.add_option("--frontier", explore.frontier, "A file from which a stopped exploration goes on");
  app.add_option("--prove", explore.proveEvery, "Continues one in so many merges of states, and compares");
  app.add_flag("!--no-merging", explore.merged, "Goes on from states that were seen, too");
  app.add_flag("!--all-orders", explore.reduced,
               "Tries also what only changes the order of independent steps");
}

int runCommandLine(int argc, char** argv) {
  CLI::App app("Simulates the server, its agent and their troubles; every choice comes from the seed",
               "kiln-sim");
  Arguments arguments;
  app.add_option("--seed", arguments.seed, "One seed, above 0");
  app.add_option("--seeds", arguments.seeds, "Seeds FROM..TO");
  app.add_option("--fresh", arguments.fresh, "So many seeds that nobody ran before");
  app.add_option("--steps", arguments.steps, "Operations of each seed")->capture_default_str();
  app.add_option("--profile", arguments.profile, "Of what there is much; otherwise drawn from the seed")
      ->check(CLI::IsMember(std::vector<std::string>(kProfiles.begin(), kProfiles.end())));
  app.add_option("--jobs", arguments.jobs, "Processes")
      ->check(CLI::Range(1U, static_cast<unsigned>(kMostJobs)));
  app.add_option("--old", arguments.old, "A file of seeds that failed once: seed, steps, profile");
  app.add_option("--replay", arguments.replay, "Scenarios that --minimize wrote");
  app.add_option("--marks", arguments.marks, "A file of traces each of which some seed must pass");
  app.add_option("--failures", arguments.failures, "Stops after so many")->capture_default_str();
  app.add_flag("--minimize", arguments.minimized, "Makes the failing seed a short scenario");
  app.add_option("--out", arguments.out, "Where --minimize writes it")->capture_default_str();
  addExploreOptions(app, arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error);
  }
  return simulate(arguments);
}

}  // namespace
}  // namespace KilnSim

int main(int argc, char** argv) {
  try {
    return KilnSim::runCommandLine(argc, argv);
  } catch (const std::exception& error) {
    fmt::print(stderr, "kiln-sim: {}\n", error.what());
    return 2;
  }
}
