#include "sim/Minimize.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

namespace KilnSim {
namespace {

using KilnAgent::Operation;
using KilnAgent::RunOperation;

/// Whether the plan fails, and a scenario can express the failure if it could express the first one.
bool failsLike(const Verdict& first, const Plan& plan) {
  const Verdict verdict = runApart(plan);
  return !verdict.wrong.empty() && (first.expected.empty() || !verdict.expected.empty());
}

/// Leaves out parts of this many operations as long as the plan still fails. True if any was left out.
bool leaveOut(Plan& plan, const Verdict& first, std::size_t part) {
  bool shorter = false;
  for (std::size_t end = plan.operations.size(); end > 0;) {
    const std::size_t begin = end > part ? end - part : 0;
    Plan candidate = plan;
    candidate.operations.erase(candidate.operations.begin() + static_cast<std::ptrdiff_t>(begin),
                               candidate.operations.begin() + static_cast<std::ptrdiff_t>(end));
    if (failsLike(first, candidate)) {
      plan = std::move(candidate);
      shorter = true;
    }
    end = begin;
  }
  return shorter;
}

/// Keeps a change of the plan if the plan still fails.
template <class Change>
void tryChange(Plan& plan, const Verdict& first, Change change) {
  Plan candidate = plan;
  change(candidate);
  if (failsLike(first, candidate)) plan = std::move(candidate);
}

/// Fewer tasks between operations.
void shortenRuns(Plan& plan, const Verdict& first) {
  for (std::size_t at = 0; at < plan.operations.size(); ++at) {
    const auto* run = std::get_if<RunOperation>(&plan.operations[at]);
    if (run == nullptr) continue;
    for (const std::size_t tasks : {std::size_t{1}, run->tasks / 4, run->tasks / 2}) {
      if (tasks >= run->tasks) continue;
      Plan candidate = plan;
      candidate.operations[at] = RunOperation{tasks};
      if (!failsLike(first, candidate)) continue;
      plan = std::move(candidate);
      break;
    }
  }
}

/// The form in which a process reports a verdict to another one.
std::string textOf(const Verdict& verdict) {
  std::string text = fmt::format("{} {} {}\n", verdict.at, verdict.step, verdict.expected.size());
  for (const Operation& expected : verdict.expected) text += operationLine(expected) + "\n";
  return text + verdict.wrong;
}

Verdict verdictIn(const std::string& text) {
  Verdict verdict;
  std::istringstream told(text);
  std::size_t expectations = 0;
  std::string line;
  told >> verdict.at >> verdict.step >> expectations;
  std::getline(told, line);
  while (expectations-- != 0 && std::getline(told, line)) {
    verdict.expected.push_back(KilnAgent::parseOperation(line));
  }
  verdict.wrong.assign(std::istreambuf_iterator<char>(told), {});
  return verdict;
}

}  // namespace

Verdict runApart(const Plan& plan) {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    close(ends[0]);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDERR_FILENO);
    Tally tally;
    const Verdict verdict = run(plan, tally, nullptr);
    const std::string text = textOf(verdict);
    const bool told = write(ends[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
    _exit(told ? 0 : 1);
  }
  close(ends[1]);
  std::string text;
  char part[4096];
  for (ssize_t got; (got = read(ends[0], part, sizeof part)) > 0;) {
    text.append(part, static_cast<std::size_t>(got));
  }
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFSIGNALED(status) && WEXITSTATUS(status) == 0) return verdictIn(text);
  Verdict verdict;
  verdict.wrong = "the process died\n";
  verdict.at = plan.operations.size() - 1;
  return verdict;
}

Plan minimize(Plan plan) {
  const Verdict first = runApart(plan);
  plan.operations.resize(std::min(plan.operations.size(), first.at + 1));
  tryChange(plan, first, [](Plan& candidate) { candidate.shuffled = false; });
  tryChange(plan, first, [](Plan& candidate) { candidate.yieldEvery = 0; });
  for (std::size_t part = plan.operations.size() / 2; part != 0;) {
    if (!leaveOut(plan, first, part) || part > 1) part /= 2;
  }
  shortenRuns(plan, first);
  while (leaveOut(plan, first, 1)) {
  }
  return plan;
}

namespace {

/// Whether the agent becomes quiet during the operation.
bool settles(const Operation& operation) {
  const auto* answer = std::get_if<KilnAgent::AnswerOperation>(&operation);
  return answer != nullptr ? !answer->now : std::holds_alternative<KilnAgent::SettleOperation>(operation);
}

bool isUntouched(const Operation& operation) {
  const auto* status = std::get_if<KilnAgent::ExpectOperation>(&operation);
  const auto* entry = std::get_if<KilnAgent::ExpectTableOperation>(&operation);
  return (status != nullptr && status->untouched) || (entry != nullptr && entry->untouched);
}

/// The operation before which the watch must begin: the judge made no comparison between it and the failure.
/// None if nothing must be untouched.
std::optional<std::size_t> watchedFrom(const Plan& plan, const Verdict& verdict) {
  if (std::none_of(verdict.expected.begin(), verdict.expected.end(), isUntouched)) return std::nullopt;
  std::size_t at = verdict.at;
  while (at > 0 && !settles(plan.operations[at - 1])) --at;
  // An answer is delivered after settling: its effect must be observed.
  return at > 0 && std::holds_alternative<KilnAgent::AnswerOperation>(plan.operations[at - 1]) ? at - 1 : at;
}

}  // namespace

std::string scenarioOf(const Plan& plan, const Verdict& verdict) {
  std::string text = fmt::format("// plan: seed {} shuffled {} yield-every {}\n// {}\n", plan.seed,
                                 plan.shuffled ? 1 : 0, plan.yieldEvery, replayCommand(plan, "THIS"));
  // The first operation, so that the number of tasks between operations is always explicit.
  if (plan.operations.empty() || !std::holds_alternative<RunOperation>(plan.operations[0])) {
    text += KilnAgent::operationLine(RunOperation{0}) + "\n";
  }
  const auto watched = watchedFrom(plan, verdict);
  for (std::size_t at = 0; at < plan.operations.size(); ++at) {
    if (at == watched) {
      if (at != verdict.at && settles(plan.operations[at]))
        text += operationLine(KilnAgent::SettleOperation{}) + "\n";
      text += operationLine(KilnAgent::WatchOperation{}) + "\n";
    }
    if (std::find(verdict.idle.begin(), verdict.idle.end(), at) != verdict.idle.end()) continue;
    text += KilnAgent::operationLine(plan.operations[at]) + "\n";
  }
  for (const Operation& operation : verdict.expected) text += KilnAgent::operationLine(operation) + "\n";
  return text;
}

std::string replayCommand(const Plan& plan, const std::string& file) {
  return fmt::format("kiln-agent run --chip sim/chip.json {}--yield-every {} {}",
                     plan.shuffled ? fmt::format("--seed {} ", plan.seed) : "", plan.yieldEvery, file);
}

}  // namespace KilnSim
