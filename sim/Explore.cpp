#include "sim/Explore.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <vector>

#include "kiln/agent/io/InputError.h"
#include "sim/ExploredSpace.h"
#include "sim/Minimize.h"
#include "sim/Reduction.h"
#include "sim/ScheduleRun.h"

namespace KilnSim {
namespace {

using Kind = Choice::Kind;

/// A slice that takes longer than this is killed with its process.
constexpr std::chrono::seconds kGrace{10};
/// Number of steps after which a run is treated as endless.
constexpr std::uint32_t kMostSteps = 20'000;

/// Forks. The new process ends with this one.
pid_t startProcess() {
  std::fflush(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) throw KilnAgent::InputError("no process can be started");
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(1);
  }
  return pid;
}

/// Runs a process's work; if shared memory is full, ends it.
template <class Work>
void stopAtFull(ExploredSpace::Header& header, Work&& work) {
  try {
    work();
  } catch (const KilnAgent::InputError&) {
    header.full = true;
    header.stop = true;
  }
}

/// Follows the schedules of one bound, in processes that are forked where the schedules diverge.
class Walk {
 public:
  Walk(ExploredSpace& space, const SmallScenario& scenario, const ExploreOptions& options)
      : space_(space), header_(space.header()), scenario_(scenario), options_(options), recorder_(space) {}

  /// The whole walk, in a process of its own.
  void start() {
    run_.emplace(scenario_, options_.fromReady, space_);
    if (run_->failed()) return space_.addFailure(0, 0, run_->wrong());
    follow(0);
    waitForAll();
  }

 private:
  /// The run has reached the last deviation of the schedule.
  void follow(std::uint32_t schedule) {
    if (header_.stop) return;
    schedule_ = schedule;
    const Schedule& own = space_.schedule(schedule);
    if (own.followed) {
      part(own);
    } else {
      explore(own);
    }
  }

  /// Continues in the default order, and starts other schedules where they deviate.
  void part(const Schedule& own) {
    if (own.parent != kNone) step(own.choice);
    for (std::uint32_t child = own.firstChild; child != kNone; child = space_.schedule(child).sibling) {
      while (position_ < space_.schedule(child).position) step(run_->choices().front());
      startChild(child);
    }
  }

  void startChild(std::uint32_t child) {
    const bool parallel = takeCore();
    const pid_t pid = startProcess();
    if (pid == 0) {
      children_.clear();
      stopAtFull(header_, [&] {
        follow(child);
        waitForAll();
      });
      if (parallel) ++header_.freeCores;
      _exit(0);
    }
    children_.push_back({pid, child, parallel});
    for (Child& each : children_) wait(each, each.parallel ? WNOHANG : 0);
    std::erase_if(children_, [](const Child& each) { return each.pid == 0; });
  }

  struct Child {
    pid_t pid;
    std::uint32_t schedule;
    bool parallel;
  };
  bool takeCore() {
    int free = header_.freeCores;
    while (free > 0 && !header_.freeCores.compare_exchange_weak(free, free - 1)) {
    }
    return free > 0;
  }
  /// With WNOHANG only if the child has ended.
  void wait(Child& child, int options) {
    int status = 0;
    if (waitpid(child.pid, &status, options) == 0) return;
    const bool ended = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (child.parallel && !ended) ++header_.freeCores;
    if (WIFSIGNALED(status)) space_.addFailure(child.schedule, kMostSteps, "the process died\n");
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
      space_.addFailure(child.schedule, kMostSteps, "the explorer failed\n");
    }
    child.pid = 0;
  }
  void waitForAll() {
    ++header_.freeCores;  // this process no longer needs a core
    for (Child& child : children_) wait(child, 0);
    --header_.freeCores;
  }

  ScheduleRun::Slice step(const Choice& choice) {
    ++position_;
    return run_->take(Choice(choice));
  }

  /// Runs to the end, or to a state that another schedule has already continued.
  void explore(const Schedule& own) {
    ++header_.followed;
    std::uint32_t* link = &space_.schedule(schedule_).target;
    if (own.parent != kNone) deviate(own);
    while (!run_->failed() && !header_.stop) {
      if (position_ > kMostSteps) return fail("it does not end\n");
      const auto [number, isNew] = space_.stateOf(here(), schedule_, position_);
      *link = number;
      State& state = space_.state(number);
      state.landmark = state.landmark || atLandmark(own);
      if (!isNew) return merged(number);
      addBranches(number);
      if (run_->ended()) return end();
      defaultStep(number);
      link = &state.next;
    }
    if (run_->failed()) fail(run_->wrong());
  }

  [[nodiscard]] bool atLandmark(const Schedule& own) const {
    const Kind next = run_->choices().front().kind;
    const Kind last = own.choice.kind;
    const bool replaced = last == Kind::restart || last == Kind::crash || last == Kind::loss;
    return next == Kind::operation || next == Kind::end || (replaced && position_ == own.position + 1);
  }

  /// The state. Without merging, each schedule has states of its own.
  [[nodiscard]] StateValue here() const {
    const StateValue value = run_->digest().value();
    if (options_.merged) return value;
    return KilnEmServer::StateDigest::valueOf(value, schedule_, position_);
  }

  void addBranches(std::uint32_t state) {
    const std::vector<Choice>& choices = run_->choices();
    for (std::size_t i = 1; i < choices.size(); ++i) space_.addBranch(state, choices[i]);
  }

  void deviate(const Schedule& own) {
    const Choice choice = own.choice;
    recorder_.before(*run_);
    const ScheduleRun::Slice slice = step(choice);
    recorder_.after(*run_, choice);
    addVariants(own.state, choice, slice);
  }

  /// Slices of the default order that change nothing are not counted as steps.
  void defaultStep(std::uint32_t number) {
    bool more = true;
    while (more) {
      const Choice choice = run_->choices().front();
      recorder_.before(*run_);
      const ScheduleRun::Slice slice = step(choice);
      recorder_.after(*run_, choice);
      more = run_->unchanged() && !run_->ended() && !run_->failed();
      if (more) continue;
      space_.state(number).step = choice;
      addVariants(number, choice, slice);
    }
  }

  /// The same slice, but interrupted, or with a refused write, or both.
  void addVariants(std::uint32_t state, const Choice& choice, const ScheduleRun::Slice& slice) {
    if (choice.kind != Kind::task || choice.refused != Choice::kNoRefusal) return;
    Choice variant = choice;
    for (std::size_t items = 1; choice.items == 0 && slice.othersReady && items <= slice.items; ++items) {
      variant.items = static_cast<std::uint16_t>(items);
      space_.addBranch(state, variant);
    }
    variant = choice;
    for (std::size_t write = 0; run_->refusalsLeft() != 0 && write < slice.writes; ++write) {
      variant.refused = static_cast<std::uint8_t>(write);
      space_.addBranch(state, variant);
    }
  }

  /// A state that was seen before. One in proveEvery of them is continued nevertheless, by the default steps,
  /// which are a function of the state.
  void merged(std::uint32_t number) {
    const bool chosen = options_.proveEvery != 0 && run_->digest().value().low % options_.proveEvery == 0;
    // After a slice that changed nothing, other steps are tried first.
    if (!chosen || run_->unchanged()) return;
    while (!run_->failed() && !run_->ended() && space_.state(number).next != kNone) {
      do {
        step(run_->choices().front());
      } while (run_->unchanged() && !run_->ended() && !run_->failed());
      number = space_.state(number).next;
      if (run_->failed()) return fail(run_->wrong());
      if (space_.state(number).value != run_->digest().value()) {
        return fail("two runs with the same state go on differently\n");
      }
    }
    ++header_.proved;
  }

  void end() {
    space_.addEnd(run_->outcome(), schedule_, position_);
    run_->withdrawEverything();
    if (run_->failed()) fail(run_->wrong());
  }

  void fail(std::string_view text) { space_.addFailure(schedule_, position_, text); }

  ExploredSpace& space_;
  ExploredSpace::Header& header_;
  const SmallScenario& scenario_;
  const ExploreOptions& options_;
  std::optional<ScheduleRun> run_;
  FootprintRecorder recorder_;
  std::uint32_t schedule_ = 0;
  std::uint32_t position_ = 0;
  std::vector<Child> children_;
};

// --- From one bound to the next ----------------------------------------------------------------------------

/// The schedules with one more deviation than those that were followed.
class Frontier {
 public:
  Frontier(ExploredSpace& space, bool reduced) : space_(space), reduced_(reduced) {}

  /// Adds the schedules with up to `bound` deviations that are needed according to present knowledge. Returns
  /// their number.
  std::size_t advance(unsigned bound) {
    lowerBounds();
    const std::uint32_t first = space_.schedules();
    const Reduction reduction(space_);
    for (std::uint32_t i = 0; i < space_.branches(); ++i) {
      Branch& branch = space_.branch(i);
      const State& state = space_.state(branch.state);
      if (branch.taken || state.bound >= bound || (reduced_ && !reduction.needed(branch))) continue;
      branch.taken = true;
      Schedule schedule;
      schedule.parent = state.schedule;
      schedule.position = state.position;
      schedule.state = branch.state;
      schedule.choice = branch.choice;
      schedule.bound = static_cast<std::uint8_t>(state.bound + 1);
      space_.addSchedule(schedule);
    }
    link(first);
    return space_.schedules() - first;
  }

  /// A state that was found with more deviations may be found with fewer later.
  void lowerBounds() {
    for (bool more = true; more;) {
      more = false;
      for (std::uint32_t i = 0; i < space_.schedules(); ++i) {
        const Schedule& schedule = space_.schedule(i);
        const int before = schedule.state == kNone ? -1 : space_.state(schedule.state).bound;
        for (std::uint32_t at = schedule.target; at != kNone; at = space_.state(at).next) {
          if (space_.state(at).bound <= before + 1) break;
          space_.state(at).bound = static_cast<std::uint8_t>(before + 1);
          more = true;
        }
      }
    }
  }

  /// All schedules from `first` on are to be followed; their parents were followed.
  void link(std::uint32_t first) {
    std::vector<bool> needed(space_.schedules());
    for (std::uint32_t i = 0; i < space_.schedules(); ++i) {
      space_.schedule(i).firstChild = kNone;
      space_.schedule(i).followed = i < first;
    }
    std::vector<std::uint32_t> all;
    for (std::uint32_t i = first; i < space_.schedules(); ++i) {
      for (std::uint32_t at = i; at != kNone && !needed[at]; at = space_.schedule(at).parent) {
        needed[at] = true;
        all.push_back(at);
      }
    }
    const auto order = [this](std::uint32_t at) {
      const Schedule& schedule = space_.schedule(at);
      return std::tuple(schedule.position, schedule.choice, at);
    };
    // Each becomes the first child of its parent, so the last positions are linked first.
    std::sort(all.begin(), all.end(), [&](auto a, auto b) { return order(b) < order(a); });
    for (const std::uint32_t at : all) {
      Schedule& schedule = space_.schedule(at);
      if (schedule.parent == kNone) continue;
      schedule.sibling = std::exchange(space_.schedule(schedule.parent).firstChild, at);
    }
  }

 private:
  ExploredSpace& space_;
  bool reduced_;
};

// --- The whole ---------------------------------------------------------------------------------------------

class Exploration {
 public:
  Exploration(const std::string& file, const ExploreOptions& options)
      : scenario_(readSmallScenario(file)),
        options_(options),
        space_(options.frontier, subjectOf(file, options)) {
    if (options_.asTested) options_.deviations = scenario_.bound;
  }

  Explored run() {
    const auto begin = std::chrono::steady_clock::now();
    begin_ = begin;
    ExploredSpace::Header& header = space_.header();
    if (space_.schedules() == 0) {
      space_.addSchedule({});
    } else {
      // An interrupted batch is started again; a complete one is not repeated.
      space_.revertBatch();
      Frontier(space_, options_.reduced).link(header.firstFollowed);
      found_.complete = header.bound != 0;
      found_.bound = header.bound == 0 ? 0 : header.bound - 1;
    }
    while (follow() && space_.failures() == 0 && !found_.exhausted) {
      if (!advance()) break;
    }
    found_.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    finish();
    return found_;
  }

 private:
  /// The settings that must be equal to continue an exploration.
  static StateValue subjectOf(const std::string& file, const ExploreOptions& options) {
    const auto textOf = [](const std::string& path) {
      std::ifstream stream(path, std::ios::binary);
      return std::string(std::istreambuf_iterator<char>(stream), {});
    };
    return KilnEmServer::StateDigest::valueOf(textOf(file), textOf("/proc/self/exe"), options.fromReady,
                                              options.reduced, options.merged, options.proveEvery);
  }

  /// False if the budget was exhausted.
  bool follow() {
    ExploredSpace::Header& header = space_.header();
    header.freeCores = static_cast<int>(options_.jobs) - 1;
    const pid_t pid = startProcess();
    if (pid == 0) {
      setpgid(0, 0);
      stopAtFull(header, [&] { Walk(space_, scenario_, options_).start(); });
      _exit(0);
    }
    setpgid(pid, pid);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
      if (overBudget()) header.stop = true;
      if (overBudget(kGrace)) kill(-pid, SIGKILL);
      usleep(2000);
    }
    if (header.full) throw KilnAgent::InputError("the scenario is too large to be explored");
    if (header.stop) return false;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      space_.addFailure(0, kMostSteps, "the process died\n");
    }
    return true;
  }
  [[nodiscard]] bool overBudget(std::chrono::seconds grace = {}) const {
    const auto used = std::chrono::steady_clock::now() - begin_;
    return options_.budgetSeconds != 0 && used > std::chrono::seconds(options_.budgetSeconds) + grace;
  }

  /// Continues with the rest of this bound, then with the next bound. False if nothing is left, or if the
  /// limit is reached.
  bool advance() {
    ExploredSpace::Header& header = space_.header();
    space_.beginBatch();
    Frontier frontier(space_, options_.reduced);
    if (frontier.advance(header.bound) != 0) return true;
    found_.complete = true;
    found_.bound = header.bound;
    if (header.bound >= options_.deviations) return false;
    ++header.bound;
    found_.exhausted = frontier.advance(header.bound) == 0;
    return !found_.exhausted;
  }

  void finish() {
    found_.schedules = space_.header().followed;
    found_.states = space_.states();
    for (std::uint32_t i = 0; i < space_.branches(); ++i) {
      const Branch& branch = space_.branch(i);
      const bool beyond = !found_.exhausted && space_.state(branch.state).bound >= found_.bound;
      if (!beyond) ++(branch.taken ? found_.branches : found_.leftOut);
    }
    for (std::uint32_t i = 0; i < space_.ends(); ++i) found_.ends.push_back(space_.end(i).outcome);
    std::sort(found_.ends.begin(), found_.ends.end());
    for (std::uint32_t i = 0; i < space_.states(); ++i) {
      const State& state = space_.state(i);
      if (!state.landmark) continue;
      found_.landmarks.push_back(state.value);
    }
    std::sort(found_.landmarks.begin(), found_.landmarks.end());
    found_.proved = space_.header().proved;
    if (space_.failures() == 0) checkEnds();
    if (space_.failures() == 0) checkProgress();
    if (space_.failures() != 0) tell();
  }

  /// All schedules of one list of operations have equal ends, unless the scenario states otherwise.
  void checkEnds() {
    if (space_.ends() < 2 || scenario_.endsDiffer) return;
    std::uint32_t last = 0;
    for (std::uint32_t i = 1; i < space_.ends(); ++i) {
      if (space_.end(last).outcome < space_.end(i).outcome) last = i;
    }
    const End& end = space_.end(last);
    space_.addFailure(end.schedule, end.position, "schedules end with different statuses or tables\n");
  }

  /// The default steps from every state must lead to an end.
  void checkProgress() {
    std::vector<std::uint8_t> seen(space_.states());  // 1: on the path from here, 2: reaches an end
    std::vector<std::uint32_t> way;
    for (std::uint32_t i = 0; i < space_.states(); ++i) {
      way.clear();
      std::uint32_t at = i;
      for (; at != kNone && seen[at] == 0; at = space_.state(at).next) {
        seen[at] = 1;
        way.push_back(at);
      }
      if (at != kNone && seen[at] == 1) {
        const State& state = space_.state(at);
        return space_.addFailure(state.schedule, state.position, "a cycle of states without progress\n");
      }
      for (const std::uint32_t each : way) seen[each] = 2;
    }
  }

  /// Writes the failing schedule with the fewest steps as a scenario.
  void tell() {
    std::uint32_t least = 0;
    for (std::uint32_t i = 1; i < space_.failures(); ++i) {
      if (space_.failure(i).position < space_.failure(least).position) least = i;
    }
    const Failure& failure = space_.failure(least);
    found_.failure = failure.text;
    if (options_.out.empty()) return;
    Plan plan;
    plan.shuffled = false;
    plan.operations = operationsOf(failure.schedule, failure.position);
    Verdict verdict = runApart(plan);
    if (!verdict.wrong.empty()) {
      plan = minimize(std::move(plan));
      verdict = runApart(plan);
    }
    std::ofstream(options_.out) << scenarioOf(plan, verdict);
    found_.failure += fmt::format("{} deviations; {} operations in {}{}\n",
                                  space_.schedule(failure.schedule).bound, plan.operations.size(),
                                  options_.out, verdict.wrong.empty() ? ", which do not fail alone" : "");
  }

  /// The operations of a schedule, up to this many steps or its death; it runs in a process of its own.
  std::vector<KilnAgent::Operation> operationsOf(std::uint32_t schedule, std::uint32_t positions) {
    int ends[2];
    if (pipe(ends) != 0) throw KilnAgent::InputError("no pipe");
    std::fflush(nullptr);
    const pid_t pid = startProcess();
    if (pid == 0) {
      dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
      replay(schedule, positions, ends[1]);
      _exit(0);
    }
    close(ends[1]);
    std::vector<KilnAgent::Operation> operations;
    std::FILE* const lines = fdopen(ends[0], "r");
    if (lines == nullptr) throw KilnAgent::InputError("no pipe");
    char* buffer = nullptr;
    std::size_t size = 0;
    while (getline(&buffer, &size, lines) > 0) {
      operations.push_back(KilnAgent::parseOperation(std::string_view(buffer)));
    }
    std::free(buffer);
    std::fclose(lines);
    waitpid(pid, nullptr, 0);
    return operations;
  }

  void replay(std::uint32_t schedule, std::uint32_t positions, int record) {
    std::vector<std::uint32_t> way;
    for (std::uint32_t at = schedule; at != kNone; at = space_.schedule(at).parent) way.push_back(at);
    ScheduleRun run(scenario_, options_.fromReady, space_, record);
    std::uint32_t position = 0;
    const auto goOn = [&](std::uint32_t until) {
      while (position < until && !run.failed() && !run.ended()) {
        ++position;
        run.take(Choice(run.choices().front()));
      }
    };
    for (auto at = way.rbegin() + 1; at != way.rend(); ++at) {
      goOn(space_.schedule(*at).position);
      ++position;
      run.take(space_.schedule(*at).choice);
    }
    goOn(positions);
    if (!run.failed() && run.ended()) run.withdrawEverything();
  }

  SmallScenario scenario_;
  ExploreOptions options_;
  ExploredSpace space_;
  Explored found_;
  std::chrono::steady_clock::time_point begin_;
};

}  // namespace

Explored explore(const std::string& file, const ExploreOptions& options) {
  return Exploration(file, options).run();
}

std::string textOf(const Explored& explored) {
  const std::string reached = explored.exhausted  ? "exhausted"
                              : explored.complete ? fmt::format("bounded at {}", explored.bound)
                                                  : "nothing complete";
  std::string text =
      fmt::format("{}: {} schedules, {} states, {} of them landmarks, {} choices tried, {} left out, {} {}",
                  reached, explored.schedules, explored.states, explored.landmarks.size(), explored.branches,
                  explored.leftOut, explored.ends.size(), explored.ends.size() == 1 ? "end" : "ends");
  if (explored.proved != 0) text += fmt::format(", {} merges compared", explored.proved);
  return text + fmt::format(", {:.1f} s", explored.seconds);
}

}  // namespace KilnSim
