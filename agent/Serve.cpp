#include "agent/Serve.h"

#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "agent/CapacityReport.h"
#include "agent/Dump.h"
#include "agent/ReconcileReport.h"
#include "agent/Service.h"
#include "runtime/PageArena.h"

namespace KilnAgent {
namespace {

/// One slice of work, and how long slices follow each other before clients are heard again.
constexpr std::chrono::microseconds kSliceBudget{500};
constexpr std::chrono::milliseconds kTurnBudget{2};
constexpr std::size_t kLinesPerTurn = 256;
constexpr std::size_t kMaxClients = 64;
/// How long a stopping agent tries to send its last answers.
constexpr std::chrono::seconds kFarewell{1};

template <class T, class... Among>
constexpr bool kIsAmong = (std::is_same_v<T, Among> || ...);
/// Operations whose effect is kept in the store.
template <class T>
constexpr bool kIsDurable =
    kIsAmong<T, PublishOperation, WithdrawOperation, WithdrawAllOperation, RemoveFeatureOperation,
             AddFeatureOperation, VlanDomainsOperation, AllotOperation, RevokeOperation, ShareOperation>;
/// Operations whose effect is gone with the process.
template <class T>
constexpr bool kIsVolatile = kIsAmong<T, TableOperation, AnswerOperation, ExternalUserOperation,
                                      AddFapOperation, RemoveFapOperation, ProfileOperation>;

/// Whether the operation is about the agent when nothing is pending.
bool needsIdleAgent(const Operation& operation) {
  return std::visit(
      []<class T>(const T& specific) {
        if constexpr (kIsAmong<T, ExpectOperation, ExpectTableOperation>) {
          return !specific.now;
        } else {
          return kIsAmong<T, SettleOperation, AnswerOperation>;
        }
      },
      operation);
}

/// SIGTERM and SIGINT as something to be read.
FileDescriptor stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  return FileDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

AgentOptions withSlices(AgentOptions options) {
  options.sliceBudget = kSliceBudget;
  return options;
}

}  // namespace

Service::Service(const ServeOptions& options, FileDescriptor stop)
    : signals_(std::move(stop)),
      agent_(withSlices(options.agent)),
      listener_(options.socket.empty() ? StateDirectory::socketIn(options.agent.state) : options.socket) {
  addQueries();
}

void Service::run() {
  while (turn()) {
  }
  stop();
}

bool Service::turn() {
  waitForEvents();
  takeLines();
  runSlices();
  runWaiting();
  commitIfDue();
  if (readiness_.update()) {
    commit();
    readiness_.readyAndCommitted();
  }
  sendAnswers();
  return !stopping_;
}

// --- Events ------------------------------------------------------------------------------------------------

void Service::waitForEvents() {
  std::vector<pollfd> watched{{signals_.number(), POLLIN, 0},
                              {clients_.size() < kMaxClients ? listener_.number() : -1, POLLIN, 0}};
  for (const Client& client : clients_) {
    const LineConnection& connection = client.connection;
    const int events = (connection.mayReceive() ? POLLIN : 0) | (connection.hasUnsent() ? POLLOUT : 0);
    watched.push_back({connection.closed() ? -1 : connection.number(), static_cast<short>(events), 0});
  }
  const bool busy = !agent_.scheduler().idle() || linesLeft();
  if (::poll(watched.data(), watched.size(), busy ? 0 : readiness_.patience()) <= 0) return;
  stopping_ = watched[0].revents != 0;
  auto seen = watched.begin() + 2;
  for (Client& client : clients_) {
    const short events = (seen++)->revents;
    if ((events & (POLLIN | POLLHUP | POLLERR)) != 0) client.connection.receive();
    if ((events & (POLLHUP | POLLERR)) != 0) client.connection.hungUp();
  }
  if (watched[1].revents != 0) acceptClients();
}

void Service::acceptClients() {
  while (clients_.size() < kMaxClients) {
    std::optional<LineConnection> connection = listener_.accept();
    if (!connection) return;
    clients_.emplace_back(std::move(*connection));
  }
}

// --- Lines -------------------------------------------------------------------------------------------------

bool Service::anyWaiting() const {
  return std::any_of(clients_.begin(), clients_.end(),
                     [](const Client& client) { return client.waiting.has_value(); });
}

/// While one client waits for the agent to become idle, the others' lines wait too, so that it does.
void Service::takeLines() {
  linesLeft_ = false;
  for (Client& client : clients_) {
    std::size_t taken = 0;
    while (client.connection.keepsUp()) {
      if (taken == kLinesPerTurn || anyWaiting()) {
        linesLeft_ = true;
        break;
      }
      const std::optional<LineConnection::Line> line = client.connection.takeLine();
      if (!line) break;
      takeLine(client, *line);
      ++taken;
    }
  }
}

void Service::takeLine(Client& client, const LineConnection::Line& line) {
  try {
    if (line.tooLong)
      throw InputError(fmt::format("the line has more than {} bytes", LineConnection::kMaxLine));
    if (line.cutOff) throw InputError("the line has no end");
    if (Scenario::isBlank(line.text)) return;
    const Json json = parseLine(line.text);
    if (json.value("op", Json()) == "show") return answer(client, line.number, queries_.answer(json));
    Operation operation = readOperation(json);
    if (needsIdleAgent(operation)) {
      client.waiting.emplace(line.number, std::move(operation));
    } else {
      answer(client, line.number, execute(operation));
    }
  } catch (const InputError& error) {
    answer(client, line.number, {{"ok", false}, {"error", error.what()}});
  }
}

/// What is to be answered. Throws InputError where the agent's state does not allow the operation.
Json Service::execute(const Operation& operation) {
  said_.clear();
  scenario_.execute(operation);
  if (!said_.empty()) throw InputError(said_);
  Json answer{{"ok", true}};
  std::visit(
      [&]<class T>(const T&) {
        if constexpr (kIsDurable<T> || kIsVolatile<T>) answer["durable"] = kIsDurable<T>;
      },
      operation);
  return answer;
}

void Service::answer(Client& client, std::uint64_t line, Json answer) {
  answer["line"] = line;
  client.uncommitted += answer.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

// --- Work --------------------------------------------------------------------------------------------------

void Service::runSlices() {
  const Clock::time_point end = Clock::now() + kTurnBudget;
  while (Clock::now() < end && agent_.scheduler().runOne()) {
  }
  if (agent_.scheduler().idle()) agent_.noteQuiet();
}

void Service::runWaiting() {
  for (Client& client : clients_) {
    if (!client.waiting || !agent_.scheduler().idle()) continue;
    const auto [line, operation] = *std::exchange(client.waiting, std::nullopt);
    try {
      answer(client, line, execute(operation));
    } catch (const InputError& error) {
      answer(client, line, {{"ok", false}, {"error", error.what()}});
    }
  }
}

/// Answers leave when everything up to them is committed.
void Service::commitIfDue() {
  const std::size_t pending = agent_.durable()->pending();
  const bool idle = agent_.scheduler().idle() && !linesLeft();
  if (pending == 0 || pace_.due(pending) || idle) commit();
}

void Service::commit() {
  if (agent_.durable()->pending() != 0) pace_.commit([this] { agent_.commit(); });
  for (Client& client : clients_) client.connection.send(std::exchange(client.uncommitted, {}));
}

void Service::sendAnswers() {
  for (Client& client : clients_) client.connection.flush();
  std::erase_if(clients_, [](const Client& client) {
    return client.connection.exhausted() && !client.waiting && client.uncommitted.empty() &&
           !client.connection.hasUnsent();
  });
}

void Service::stop() {
  readiness_.stopping();
  commit();
  const Clock::time_point end = Clock::now() + kFarewell;
  const auto unsent = [](const Client& client) { return client.connection.hasUnsent(); };
  for (sendAnswers(); std::any_of(clients_.begin(), clients_.end(), unsent) && Clock::now() < end;
       sendAnswers()) {
    ::poll(nullptr, 0, 1);
  }
}

// --- Queries -----------------------------------------------------------------------------------------------

Json Service::aboutAgent() const {
  const DurableStore::Counters& durable = agent_.durable()->counters();
  Json tables = Json::object();
  agent_.chip().forEachTable([&](const SoftTable& table) {
    const HardwareCounters& counters = table.counters();
    tables[std::string(table.stem())] = {
        {"written", counters.written}, {"removed", counters.removed}, {"unchanged", counters.unchanged}};
  });
  return {{"ready", readiness_.ready()},  {"idle", agent_.scheduler().idle()}, {"clients", clients_.size()},
          {"loaded", durable.loaded},     {"commits", durable.commits},        {"records", durable.records},
          {"hardware", std::move(tables)}};
}

void Service::addQueries() {
  const auto add = [this](const char* what, auto content) {
    queries_.queryIs(what, [what, content](const Json& line) {
      refuseOtherMembers(line, {"op", "what"}, {});
      return Json{{"ok", true}, {what, content()}};
    });
  };
  add("agent", [this] { return aboutAgent(); });
  add("dump", [this] { return Json::parse(dumpText(agent_)); });
  add("reconcile", [this]() -> Json {
    const auto report = agent_.reconcileMonitor().report(agent_.server());
    return report ? reconcileJson(*report) : nullptr;
  });
  add("capacity", [this] { return Json::parse(capacityJson(agent_, capacity_)); });
}

void serve(const ServeOptions& options) {
  KilnEmServer::PageArena::instance().reserve(options.reserved);
  Service(options, stopSignals()).run();
}

}  // namespace KilnAgent
