// The command line: runs scenarios, shows the graph, makes scenarios.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kiln/agent/host/CapacityMonitor.h"
#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/io/InputError.h"
#include "kiln/agent/report/CapacityReport.h"
#include "kiln/agent/report/Dump.h"
#include "kiln/agent/report/GraphText.h"
#include "kiln/agent/report/ReconcileReport.h"
#include "kiln/agent/report/Report.h"
#include "kiln/agent/scenario/Generate.h"
#include "kiln/agent/scenario/Scenario.h"
#include "kiln/agent/service/Send.h"
#include "kiln/agent/service/Serve.h"
#include "kiln/server/KilnEmServer.h"

namespace KilnAgent {
namespace {

constexpr int kExpectationFailed = 1;
constexpr int kBadInput = 2;
constexpr int kDisturbed = 3;
constexpr int kFailed = 4;
constexpr int kRefused = 5;
constexpr std::uint64_t kMaxSeed = std::numeric_limits<std::uint64_t>::max();
/// Records that may change in a run before they are committed.
constexpr std::size_t kMaxBatch = 100'000;
constexpr std::uint64_t kMaxGenerated = 1'000'000'000;
#ifdef KILN_YIELD_EVERY_ITEM
constexpr std::uint32_t kDefaultYieldEvery = 1;
#else
constexpr std::uint32_t kDefaultYieldEvery = 0;
#endif

/// The options of every command that has an agent.
struct AgentArguments {
  std::string chip;
  std::string state;
  bool noSync = false;
  std::optional<std::uint64_t> seed;
  std::uint32_t yieldEvery = kDefaultYieldEvery;
  int traceLevel = 0;
  std::vector<std::string> traceStages;
  std::string traceFile;
};

struct RunArguments : AgentArguments {
  std::vector<std::string> files;
  std::string dump;
};

struct ServeArguments : AgentArguments {
  ServeArguments() { yieldEvery = 0; }
  std::string socket;
  std::uint32_t reserveMib = 0;
};

struct SendArguments {
  std::string socket;
  std::string file;
  bool quiet = false;
};

struct ShowCapacityArguments {
  RunArguments run;
  CapacityThresholds thresholds;
  bool asJson = false;
};

struct ShowReconcileArguments {
  RunArguments run;
  bool asJson = false;
};

struct GraphArguments {
  bool asDot = false;
  bool asJson = false;
};

struct GenerateArguments {
  std::uint64_t requests = 0;
  std::uint64_t seed = 1;
  std::string mix = std::string(kScenarioMixNames[0]);
};

/// A progress line on standard error, overwritten during the run; not shown if standard error is no terminal.
class ProgressLine {
 public:
  explicit ProgressLine(const EmbeddedAgent& agent) : agent_(agent), shown_(isatty(STDERR_FILENO) != 0) {}
  ~ProgressLine() { clear(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void show(const ScenarioCounters& counters) {
    if (!shown_) return;
    fmt::print(stderr, "\r\033[K{} lines, {} slices", grouped(counters.lines),
               grouped(agent_.scheduler().counters().slices));
    std::fflush(stderr);
  }
  void clear() {
    if (shown_) fmt::print(stderr, "\r\033[K");
  }

 private:
  const EmbeddedAgent& agent_;
  bool shown_;
};

/// If a standard descriptor is closed, the first opened file would get its number, and output for it would be
/// written into that file. So each missing one is opened for the other direction: its use then fails.
void occupyStandardDescriptors() {
  for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
    if (::fcntl(number, F_GETFD) != -1 || errno != EBADF) continue;
    if (::open("/dev/null", number == STDIN_FILENO ? O_WRONLY : O_RDONLY) != number) ::_exit(kFailed);
  }
}

/// A line on standard error; lost if that cannot be written.
void tell(const std::string& text) {
  std::fputs((text + '\n').c_str(), stderr);
}

void writeAll(const std::string& path, const std::string& text) {
  std::FILE* file = path == "-" ? stdout : std::fopen(path.c_str(), "w");
  bool written = file != nullptr && std::fwrite(text.data(), 1, text.size(), file) == text.size();
  if (file != nullptr) written = (file == stdout ? std::fflush(file) : std::fclose(file)) == 0 && written;
  if (written) return;
  throw InputError(fmt::format("{}: cannot be written", path == "-" ? "standard output" : path));
}

std::ifstream openScenario(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw InputError(fmt::format("{}: cannot be read", path));
  return file;
}

/// Checks before a run that its scenarios can be read.
void checkScenarios(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    if (path != "-") openScenario(path);
  }
}

/// Checks before a run that its dump can be written. May create the file, and so is the last check.
void checkDump(const std::string& path) {
  if (path.empty() || path == "-") return;
  if (!std::ofstream(path, std::ios::app)) throw InputError(fmt::format("{}: cannot be written", path));
}

std::pair<std::string, int> stageLevel(const std::string& text) {
  const std::size_t at = text.rfind('=');
  if (at == std::string::npos || at + 2 != text.size() || text[at + 1] < '0' || text[at + 1] > '9') {
    throw InputError(fmt::format("--trace-stage {}: expected PART=LEVEL, with a level from 0 to 9", text));
  }
  return {text.substr(0, at), text[at + 1] - '0'};
}

AgentOptions agentOptions(const AgentArguments& arguments) {
  AgentOptions options;
  options.state = arguments.state;
  options.durability = arguments.noSync ? Durability::process : Durability::power;
  if (!arguments.chip.empty()) options.chip = readChipFile(arguments.chip);
  options.seed = arguments.seed;
  options.yieldEvery = arguments.yieldEvery;
  options.traces.level = arguments.traceLevel;
  for (const std::string& text : arguments.traceStages) options.traces.stages.push_back(stageLevel(text));
  options.traces.file = arguments.traceFile;
  options.traces.standardError = true;
  return options;
}

void runFile(Scenario& scenario, const std::string& path) {
  if (path == "-") {
    scenario.run(std::cin, path);
    if (std::ferror(stdin) != 0) throw InputError("standard input: cannot be read");
    return;
  }
  std::ifstream file = openScenario(path);
  scenario.run(file, path);
}

/// Runs the scenarios to quiescence and calls `finish`, also if a line was malformed; the error is thrown
/// afterwards.
int runScenarios(EmbeddedAgent& agent, const RunArguments& arguments,
                 const std::function<void(const ScenarioCounters&, bool malformed)>& finish,
                 const Scenario::Reconciled& reconciled = {}) {
  ProgressLine progress(agent);
  Scenario scenario(
      agent, arguments.yieldEvery != 0, arguments.seed.value_or(1),
      [&](const std::string& text) {
        progress.clear();
        tell(text);
      },
      [&](const ScenarioCounters& counters) {
        if (agent.durable() != nullptr && agent.durable()->pending() >= kMaxBatch) agent.commit();
        progress.show(counters);
      });
  scenario.reconciledIs([&](const ReconcileReport& report) {
    progress.clear();
    if (reconciled) reconciled(report);
  });
  std::optional<InputError> malformed;
  try {
    for (const std::string& path : arguments.files) runFile(scenario, path);
  } catch (const InputError& error) {
    malformed = error;
  }
  scenario.settle();
  agent.commit();
  progress.clear();
  finish(scenario.counters(), malformed.has_value());
  if (malformed) throw InputError(*malformed);
  if (scenario.counters().failedExpects != 0) return kExpectationFailed;
  return scenario.counters().refusals == 0 ? 0 : kRefused;
}

int run(const RunArguments& arguments) {
  checkScenarios(arguments.files);
  EmbeddedAgent agent(agentOptions(arguments));
  checkDump(arguments.dump);
  const auto show = [&](const std::string& text) {
    if (arguments.dump == "-") {
      std::fputs(text.c_str(), stderr);
    } else {
      writeAll("-", text);
    }
  };
  const auto finish = [&](const ScenarioCounters& counters, bool malformed) {
    if (!arguments.dump.empty()) writeAll(arguments.dump, dumpText(agent));
    if (!malformed) show(reportText(agent, counters));
  };
  return runScenarios(agent, arguments, finish,
                      [&](const ReconcileReport& report) { show(reconcileText(reconcileJson(report))); });
}

/// Shows each restart; one that has not ended, with its present state.
int showReconcile(const ShowReconcileArguments& arguments) {
  checkScenarios(arguments.run.files);
  EmbeddedAgent agent(agentOptions(arguments.run));
  Json restarts = Json::array();
  const int result = runScenarios(
      agent, arguments.run, [](const ScenarioCounters& /*counters*/, bool /*malformed*/) {},
      [&](const ReconcileReport& report) { restarts.push_back(reconcileJson(report)); });
  if (agent.reconcileMonitor().restarting()) {
    restarts.push_back(reconcileJson(*agent.reconcileMonitor().report(agent.server())));
  }
  std::string text;
  for (const Json& restart : restarts) text += reconcileText(restart);
  if (restarts.empty()) text = "No restart\n";
  writeAll("-", arguments.asJson ? restarts.dump(1) + "\n" : text);
  const bool disturbed = std::any_of(restarts.begin(), restarts.end(), [](const Json& restart) {
    return restart.at("disturbed").get<std::uint64_t>() != 0;
  });
  return disturbed ? kDisturbed : result;
}

int showCapacity(const ShowCapacityArguments& arguments) {
  if (arguments.thresholds.upperClear > arguments.thresholds.upper) {
    throw InputError(fmt::format("--clear {} is above --upper {}", arguments.thresholds.upperClear,
                                 arguments.thresholds.upper));
  }
  checkScenarios(arguments.run.files);
  EmbeddedAgent agent(agentOptions(arguments.run));
  const CapacityMonitor monitor(agent.capacity(), agent.store().taskScheduler(), arguments.thresholds);
  return runScenarios(agent, arguments.run, [&](const ScenarioCounters& /*counters*/, bool malformed) {
    if (malformed) return;
    writeAll("-", arguments.asJson ? capacityJson(agent, monitor) : capacityText(agent, monitor));
  });
}

int printGraph(bool asDot) {
  EmbeddedAgent agent({});
  agent.settle();
  const KilnEmServer::StageGraph graph = agent.server().graph();
  writeAll("-", asDot ? graphDot(graph) : graphJson(graph));
  return 0;
}

/// Accepts decimal digits only; the command-line library alone would read 010 as eight.
CLI::Validator wholeNumber(std::uint64_t max, std::uint64_t min = 0) {
  const auto read = [min, max](std::string& text) {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc{} || stop != end || number < min || number > max) {
      return fmt::format("\"{}\" is not a whole number from {} to {}", text, min, max);
    }
    text = std::to_string(number);
    return std::string();
  };
  return {read, "WHOLE"};
}

/// An empty text names no file; it is often the value of an unset variable of a script.
CLI::Validator notEmpty() {
  return {[](std::string& text) {
            return text.empty() ? std::string("an empty text names nothing") : std::string();
          },
          "TEXT"};
}

void addAgentOptions(CLI::App* command, AgentArguments& arguments) {
  command->add_option("--trace", arguments.traceLevel, "Highest trace level that is written, 0 to 9")
      ->transform(wholeNumber(9))
      ->capture_default_str();
  command
      ->add_option(
          "--trace-stage", arguments.traceStages,
          "PART=LEVEL: another level for stages whose name contains PART; the last that fits decides")
      ->allow_extra_args(false);
  command->add_option("--trace-file", arguments.traceFile, "Traces go to this file, not to standard error")
      ->check(notEmpty());
  command
      ->add_option("--seed", arguments.seed,
                   "Shuffles tasks and answers, repeatably; without it both keep their order")
      ->transform(wholeNumber(kMaxSeed));
  command
      ->add_option("--yield-every", arguments.yieldEvery,
                   "Slices of work end after this many items, and some run between operations; 0 never")
      ->transform(wholeNumber(std::numeric_limits<std::uint32_t>::max()))
      ->capture_default_str();
  command->add_option("--chip", arguments.chip, "Chip file, JSON with // comments")->check(notEmpty());
  command
      ->add_option("--state", arguments.state,
                   "Directory in which requests, statuses, VLAN domains and the chip's entries outlive the "
                   "process; one that is absent is created; only its owner can read it")
      ->check(notEmpty());
  command->add_flag("--no-sync", arguments.noSync,
                    "Commits survive the death of the process, not a loss of power: faster");
}

/// The options of every command that runs scenarios.
void addRunOptions(CLI::App* command, RunArguments& arguments) {
  command->add_option("FILE", arguments.files, "Scenarios, executed one after the other; - is standard input")
      ->required()
      ->check(notEmpty());
  addAgentOptions(command, arguments);
}

void addRun(CLI::App& app, RunArguments& arguments, int& result) {
  CLI::App* command = app.add_subcommand("run", "Runs scenarios to quiescence and shows the outcome");
  command->footer(
      "Exit status: 0; 1 an expectation did not hold; 2 malformed input; 4 the agent failed; 5 a request was "
      "refused");
  addRunOptions(command, arguments);
  command
      ->add_option(
          "--dump", arguments.dump,
          "Writes the final state as JSON to this file; with - to standard output, and what is shown "
          "to people goes to standard error")
      ->check(notEmpty());
  command->callback([&] { result = run(arguments); });
}

void addOutputOption(CLI::App* command, bool& asJson) {
  command->add_option("-o,--output", asJson, "text or json")
      ->default_str("text")
      ->transform(CLI::CheckedTransformer(std::map<std::string, bool>{{"text", false}, {"json", true}}));
}

void addServe(CLI::App& app, ServeArguments& arguments) {
  CLI::App* command = app.add_subcommand(
      "serve", "Executes operations that come over a socket, until SIGTERM, which withdraws nothing");
  addAgentOptions(command, arguments);
  command->get_option("--state")->required();
  command->add_option("--socket", arguments.socket, "Where to listen; DIR/socket by default")
      ->check(notEmpty());
  command
      ->add_option("--reserve", arguments.reserveMib,
                   "Memory for entries to take from the system at the start, in MiB; about 1 per 1,000 "
                   "entries. Without it the first use of memory lengthens slices")
      ->transform(wholeNumber(1U << 20U));
  command->callback([&] {
    serve({agentOptions(arguments), arguments.socket, std::size_t{arguments.reserveMib} << 20U});
  });
}

void addSend(CLI::App& app, SendArguments& arguments, int& result) {
  CLI::App* command = app.add_subcommand(
      "send", "Sends a scenario's operations to an agent that serves, and shows its answers");
  command->add_option("SOCKET", arguments.socket, "Where the agent listens")->required()->check(notEmpty());
  command->add_option("FILE", arguments.file, "The operations; - is standard input")
      ->required()
      ->check(notEmpty());
  command->add_flag("--quiet", arguments.quiet, "Shows only the answers that are not ok");
  command->callback([&] {
    const SendOutcome outcome = sendFile(arguments.socket, arguments.file, arguments.quiet);
    result = outcome.failed == 0 ? 0 : kExpectationFailed;
  });
}

void addShowCapacity(CLI::App* show, ShowCapacityArguments& arguments, int& result) {
  CLI::App* command = show->add_subcommand(
      "capacity", "How full the exact-match tables are and were, and which thresholds were crossed");
  addRunOptions(command, arguments.run);
  addOutputOption(command, arguments.asJson);
  command->add_option("--upper", arguments.thresholds.upper, "Per cent at which an alarm is raised")
      ->transform(wholeNumber(100, 1))
      ->capture_default_str();
  command->add_option("--clear", arguments.thresholds.upperClear, "Per cent below which it is cleared")
      ->transform(wholeNumber(100, 1))
      ->capture_default_str();
  command->callback([&] { result = showCapacity(arguments); });
}

void addShowReconcile(CLI::App* show, ShowReconcileArguments& arguments, int& result) {
  CLI::App* command = show->add_subcommand(
      "reconcile",
      "What each restart did with what it found; exits with 3 where it disturbed what need not change");
  addRunOptions(command, arguments.run);
  addOutputOption(command, arguments.asJson);
  command->callback([&] { result = showReconcile(arguments); });
}

void addShow(CLI::App& app, ShowCapacityArguments& capacity, ShowReconcileArguments& reconcile, int& result) {
  CLI::App* show =
      app.add_subcommand("show", "Runs scenarios to quiescence and shows one thing of the outcome");
  show->require_subcommand(1);
  addShowCapacity(show, capacity, result);
  addShowReconcile(show, reconcile, result);
}

void addGraph(CLI::App& app, GraphArguments& graph, int& result) {
  CLI::App* command = app.add_subcommand("graph", "Prints the server's graph of stages and collections");
  CLI::Option_group* form = command->add_option_group("form");
  form->add_flag("--dot", graph.asDot, "In Graphviz's language");
  form->add_flag("--json", graph.asJson, "As JSON");
  form->require_option(1);
  command->callback([&] { result = printGraph(graph.asDot); });
}

void addGenerate(CLI::App& app, GenerateArguments& arguments) {
  CLI::App* command =
      app.add_subcommand("generate", "Writes a scenario of realistic shape to standard output");
  command->add_option("--requests", arguments.requests, "How many different requests")
      ->required()
      ->transform(wholeNumber(kMaxGenerated));
  command->add_option("--seed", arguments.seed, "Another seed makes another scenario")
      ->transform(wholeNumber(kMaxSeed))
      ->capture_default_str();
  const std::vector<std::string> names(std::begin(kScenarioMixNames), std::end(kScenarioMixNames));
  command
      ->add_option("--mix", arguments.mix,
                   "metro: all key types; direct: those without VLAN domain; vlan: those with one")
      ->check(CLI::IsMember(names))
      ->capture_default_str();
  command->callback([&arguments, names] {
    const auto mix = std::find(names.begin(), names.end(), arguments.mix) - names.begin();
    generateScenario(stdout, arguments.requests, arguments.seed, static_cast<ScenarioMix>(mix));
  });
}

int runCommandLine(int argc, char** argv) {
  CLI::App app("The exact-match server in an embedded agent", "kiln-agent");
  app.require_subcommand(1);
  int result = 0;
  RunArguments runArguments;
  GenerateArguments generateArguments;
  GraphArguments graphArguments;
  ShowCapacityArguments showCapacityArguments;
  ShowReconcileArguments showReconcileArguments;
  ServeArguments serveArguments;
  SendArguments sendArguments;
  addRun(app, runArguments, result);
  addServe(app, serveArguments);
  addSend(app, sendArguments, result);
  addShow(app, showCapacityArguments, showReconcileArguments, result);
  addGraph(app, graphArguments, result);
  addGenerate(app, generateArguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& help) {
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    throw InputError(fmt::format("{}; see kiln-agent --help", error.what()));
  }
  return result;
}

}  // namespace
}  // namespace KilnAgent

int main(int argc, char** argv) {
  KilnAgent::occupyStandardDescriptors();
  try {
    return KilnAgent::runCommandLine(argc, argv);
  } catch (const KilnAgent::InputError& error) {
    KilnAgent::tell(error.what());
    return KilnAgent::kBadInput;
  } catch (const std::exception& error) {
    KilnAgent::tell(KilnAgent::oneLine(fmt::format("kiln-agent: {}", error.what())));
    return KilnAgent::kFailed;
  }
}
