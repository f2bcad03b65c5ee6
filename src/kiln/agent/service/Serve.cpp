#include "kiln/agent/service/Serve.h"

#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "kiln/agent/report/CapacityReport.h"
#include "kiln/agent/report/Dump.h"
#include "kiln/agent/report/ReconcileReport.h"
#include "kiln/agent/service/Service.h"
#include "kiln/runtime/collections/PageArena.h"

namespace KilnAgent {
namespace {

/// Duration of one slice, and the times after which slices, and the clients' lines and answers, yield to each
/// other.
constexpr std::chrono::microseconds kSliceBudget{500};
constexpr std::chrono::milliseconds kTurnBudget{2};
constexpr std::chrono::nanoseconds kClientsBudget = std::chrono::milliseconds(2);
/// Maximum unsent size of a long answer; short answers may accumulate more, so that one commit can
/// acknowledge many.
constexpr std::size_t kLongAnswerAhead = std::size_t{64} << 10U;
constexpr std::size_t kMostUncommitted = std::size_t{1} << 20U;
/// Time for which a client may leave its answers unread before its connection may be closed for another one.
constexpr std::chrono::seconds kUnreadPatience{60};
/// Interval of the search for such clients if there are too many.
constexpr std::chrono::milliseconds kLookForUnread{1000};
/// Time for which a stopping agent tries to send its last answers.
constexpr std::chrono::seconds kFarewell{1};

template <class T, class... Among>
constexpr bool kIsAmong = (std::is_same_v<T, Among> || ...);
/// Operations whose effect is stored.
template <class T>
constexpr bool kIsDurable =
    kIsAmong<T, PublishOperation, WithdrawOperation, WithdrawAllOperation, RemoveFeatureOperation,
             AddFeatureOperation, VlanDomainsOperation, AllotOperation, RevokeOperation, ShareOperation>;
/// Operations whose effect ends with the process.
template <class T>
constexpr bool kIsVolatile = kIsAmong<T, TableOperation, AnswerOperation, ExternalUserOperation,
                                      AddFapOperation, RemoveFapOperation, ProfileOperation>;

/// Whether the operation is executed only when nothing is pending.
bool needsIdleAgent(const Operation& operation) {
  return std::visit(
      []<class T>(const T& specific) {
        if constexpr (kIsAmong<T, ExpectOperation, ExpectTableOperation>) {
          return !specific.now;
        } else {
          return kIsAmong<T, SettleOperation, AnswerOperation, RunOperation>;
        }
      },
      operation);
}

/// An operation that a serving agent executes itself: slices run in its turns, and each answer is a commit.
bool isOfService(const Operation& operation) {
  return std::visit([]<class T>(const T&) { return kIsAmong<T, RunOperation, CommitOperation>; }, operation);
}

/// Refuses operations that would discard acknowledged state, or choose the next task in place of the agent.
void refuseWhatHarms(const Operation& operation) {
  if (std::holds_alternative<SliceOperation>(operation)) {
    throw InputError("a serving agent decides by itself which task runs; see \"run\"");
  }
  const auto* crash = std::get_if<CrashOperation>(&operation);
  if (crash == nullptr || !crash->lost) return;
  throw InputError(
      "a serving agent does not discard what it acknowledged; without \"lost\" the server restarts");
}

/// A descriptor that is readable after SIGTERM or SIGINT.
FileDescriptor stopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  return FileDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

/// Items that one step of a long answer evaluates or withdraws.
constexpr int kItemsPerPiece = 64;

/// The report on the latest restart; a restart in progress is evaluated in steps.
class ReconcileSource final : public TextSource {
 public:
  explicit ReconcileSource(const EmbeddedAgent& agent) : agent_(agent) {}
  bool next(std::string& out) override {
    const ReconcileMonitor& monitor = agent_.reconcileMonitor();
    if (!monitor.restarting()) {
      out += monitor.ended() ? reconcileJson(*monitor.ended()).dump() : "null";
      return false;
    }
    if (!judgement_ || judgement_->outdated()) judgement_.emplace(monitor, agent_.server());
    if (judgement_->step(kItemsPerPiece)) return true;
    out += reconcileJson(judgement_->report()).dump();
    return false;
  }

 private:
  const EmbeddedAgent& agent_;
  std::optional<ReconcileMonitor::Judgement> judgement_;
};

/// Withdraws a feature's requests of a database, some per piece; its text is the begin of the answer.
template <class Db>
class WithdrawAll final : public TextSource {
 public:
  WithdrawAll(MemoryStateStore& store, KilnEmServer::FeatureType feature)
      : store_(store), feature_(feature), requests_(store.requests<Db>(feature)) {}
  bool next(std::string& out) override {
    if (store_.requests<Db>(feature_) != requests_) requests_ = nullptr;  // the feature was removed
    for (int item = 0; item < kItemsPerPiece && requests_ != nullptr; ++item) {
      const auto* key = requests_->config().scanNext(cursor_);
      if (key == nullptr) break;
      store_.requestDel<Db>(feature_, typename Db::EntryKey(*key));
      if (item + 1 == kItemsPerPiece) return true;
    }
    out += R"({"durable":true)";
    return false;
  }

 private:
  MemoryStateStore& store_;
  KilnEmServer::FeatureType feature_;
  Ref<const KilnTunnelNiLib::SrvConfig<Db>> requests_;  ///< the collection at the first step
  KilnPlatform::ScanCursor<typename Db::EntryKey> cursor_;
};

AgentOptions withSlices(AgentOptions options) {
  options.sliceBudget = kSliceBudget;
  options.traces.mayLose = true;
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
  serveClients();
  runSlices();
  runWaiting();
  commitIfDue();
  if (readiness_.update()) {
    commit();
    readiness_.readyAndCommitted();
  }
  sendAnswers();
  memory_.turn(!busy());
  return !stopping_;
}

// --- Events ------------------------------------------------------------------------------------------------

void Service::waitForEvents() {
  std::vector<pollfd> watched{{signals_.number(), POLLIN, 0},
                              {mayAccept() ? listener_.number() : -1, POLLIN, 0}};
  for (const Client& client : clients_) {
    const LineConnection& connection = client.connection;
    const int events = (connection.mayReceive() ? POLLIN : 0) | (connection.hasUnsent() ? POLLOUT : 0);
    watched.push_back({connection.closed() ? -1 : connection.number(), static_cast<short>(events), 0});
  }
  if (::poll(watched.data(), watched.size(), patience()) <= 0) {
    if (clients_.empty()) mostClients_ = kMostClients;  // descriptors may be free again
    return;
  }
  stopping_ = watched[0].revents != 0;
  auto seen = watched.begin() + 2;
  for (Client& client : clients_) {
    const short events = (seen++)->revents;
    const bool readable = (events & (POLLIN | POLLHUP | POLLERR)) != 0;
    if (readable && client.connection.receive()) client.active = Clock::now();
    if ((events & (POLLHUP | POLLERR)) != 0) client.connection.hungUp();
  }
  if (watched[1].revents != 0) acceptClients();
}

int Service::patience() const {
  if (busy()) return 0;
  int patience = readiness_.patience();
  const auto atMost = [&](std::chrono::milliseconds time) {
    const int most = static_cast<int>(time.count());
    patience = patience < 0 ? most : std::min(patience, most);
  };
  if (const auto memory = memory_.patience()) atMost(*memory);
  if (clients_.size() >= mostClients_) atMost(kLookForUnread);
  return patience;
}

/// Without a free descriptor, the present number of clients becomes the maximum.
void Service::acceptClients() {
  if (!makeRoomForClient()) return;
  do {
    std::optional<LineConnection> connection = listener_.accept();
    if (!connection) {
      if (listener_.outOfDescriptors()) mostClients_ = clients_.size();
      return;
    }
    clients_.emplace_back(std::move(*connection));
  } while (clients_.size() < mostClients_);
}

bool Service::mayAccept() const {
  return clients_.size() < mostClients_ || std::any_of(clients_.begin(), clients_.end(), isDispensable);
}

/// A client waits: if there are too many, closes the connection that has been idle for longest.
bool Service::makeRoomForClient() {
  if (clients_.size() < mostClients_) return true;
  auto longest = clients_.end();
  for (auto client = clients_.begin(); client != clients_.end(); ++client) {
    if (client->connection.receive()) client->active = Clock::now();
    if (!isDispensable(*client)) continue;
    if (longest == clients_.end() || client->active < longest->active) longest = client;
  }
  if (longest == clients_.end()) return false;
  clients_.erase(longest);
  return true;
}

bool Service::isDispensable(const Client& client) {
  const bool answered = !client.waiting && !client.longAnswer && client.uncommitted.empty();
  if (client.connection.hasUnsent()) return Clock::now() - client.active >= kUnreadPatience;
  return answered && !client.connection.mayHaveLine();
}

// --- Lines -------------------------------------------------------------------------------------------------

bool Service::hasStep(const Client& client) {
  if (client.waiting) return false;
  if (client.longAnswer) return client.connection.unsent() + client.uncommitted.size() < kLongAnswerAhead;
  return client.connection.keepsUp() && client.uncommitted.size() < kMostUncommitted &&
         client.connection.mayHaveLine();
}

bool Service::anyStep() const {
  return std::any_of(clients_.begin(), clients_.end(), hasStep);
}

/// Each client with work gets the same time; a client that used more has the excess deducted in later turns.
void Service::serveClients() {
  const Clock::time_point begin = Clock::now();
  const auto active = std::count_if(clients_.begin(), clients_.end(), hasStep);
  const Clock::duration share = kClientsBudget / std::max<std::ptrdiff_t>(active, 1);
  Clock::time_point now = begin;
  for (std::size_t left = clients_.size(); left != 0 && now - begin < 2 * kClientsBudget; --left) {
    Client& client = clients_.front();
    client.credit = std::min<Clock::duration>(client.credit + share, share);
    while (client.credit.count() > 0 && hasStep(client)) {
      step(client);
      const Clock::time_point before = std::exchange(now, Clock::now());
      client.credit -= now - before;
    }
    clients_.splice(clients_.end(), clients_, clients_.begin());
  }
}

void Service::step(Client& client) {
  if (client.longAnswer) return continueLongAnswer(client);
  if (const auto line = client.connection.takeLine()) takeLine(client, *line);
}

void Service::takeLine(Client& client, const LineConnection::Line& line) {
  try {
    if (line.tooLong)
      throw InputError(fmt::format("the line has more than {} bytes", LineConnection::kMaxLine));
    if (line.cutOff) throw InputError("the line has no end");
    if (Scenario::isBlank(line.text)) return;
    const Json json = parseLine(line.text);
    if (json.value("op", Json()) != "show") return takeOperation(client, line.number, readOperation(json));
    auto [name, content] = queries_.answer(json);
    client.longAnswer = LongAnswer{line.number, std::move(content)};
    client.uncommitted += fmt::format(R"({{"{}":)", name);
  } catch (const InputError& error) {
    answer(client, line.number, {{"ok", false}, {"error", error.what()}});
  }
}

void Service::takeOperation(Client& client, std::uint64_t line, Operation operation) {
  refuseWhatHarms(operation);
  if (const auto* withdraw = std::get_if<WithdrawAllOperation>(&operation)) {
    client.longAnswer =
        LongAnswer{line, withDatabase(withdraw->database, [&]<class Db>() -> std::unique_ptr<TextSource> {
                     return std::make_unique<WithdrawAll<Db>>(agent_.store(), withdraw->feature);
                   })};
    return;
  }
  if (!needsIdleAgent(operation)) return answer(client, line, execute(operation));
  constexpr std::uint64_t kNever = std::numeric_limits<std::uint64_t>::max();
  const auto* run = std::get_if<RunOperation>(&operation);
  const std::uint64_t slices = agent_.scheduler().counters().slices;
  const std::uint64_t end = run == nullptr || run->tasks > kNever - slices ? kNever : slices + run->tasks;
  client.waiting = Waiting{line, std::move(operation), end};
}

/// Returns the answer. Throws InputError if the agent's state does not allow the operation.
Json Service::execute(const Operation& operation) {
  said_.clear();
  if (!isOfService(operation)) scenario_.execute(operation);
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

void Service::continueLongAnswer(Client& client) {
  if (client.longAnswer->content->next(client.uncommitted)) return;
  client.uncommitted += fmt::format(",\"line\":{},\"ok\":true}}\n", client.longAnswer->line);
  client.longAnswer.reset();
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
    if (!client.waiting) continue;
    const bool enough = agent_.scheduler().counters().slices >= client.waiting->endSlice;
    if (!enough && !agent_.scheduler().idle()) continue;
    const Waiting waiting = *std::exchange(client.waiting, std::nullopt);
    try {
      answer(client, waiting.line, execute(waiting.operation));
    } catch (const InputError& error) {
      answer(client, waiting.line, {{"ok", false}, {"error", error.what()}});
    }
  }
}

/// Answers are sent when everything up to them is committed.
void Service::commitIfDue() {
  const std::size_t pending = agent_.durable()->pending();
  const bool idle = agent_.scheduler().idle() && !anyStep();
  if (pending == 0 || pace_.due(pending) || idle) commit();
}

void Service::commit() {
  if (agent_.durable()->pending() != 0) pace_.commit([this] { agent_.commit(); });
  for (Client& client : clients_) client.connection.send(std::exchange(client.uncommitted, {}));
}

void Service::sendAnswers() {
  for (Client& client : clients_) {
    if (client.connection.flush()) client.active = Clock::now();
  }
  const std::size_t removed = std::erase_if(clients_, [](const Client& client) {
    const LineConnection& connection = client.connection;
    return connection.exhausted() && !client.waiting && !client.longAnswer && client.uncommitted.empty() &&
           !connection.hasUnsent();
  });
  if (removed != 0) mostClients_ = kMostClients;
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
  queries_.queryIs("agent", [this] { return std::make_unique<ReadyText>(aboutAgent().dump()); });
  queries_.queryIs("reconcile", [this] { return std::make_unique<ReconcileSource>(agent_); });
  queries_.queryIs("dump", [this] { return dumpInPieces(agent_); });
  queries_.queryIs("capacity", [this] { return capacityInPieces(agent_, capacity_); });
}

void serve(const ServeOptions& options) {
  const auto refuse = [&] {
    throw InputError(
        fmt::format("--reserve {}: the system does not have so much memory", options.reserved >> 20U));
  };
  // A system that overcommits memory would kill the agent when the memory is used.
  const auto pages = static_cast<std::size_t>(::sysconf(_SC_PHYS_PAGES));
  if (options.reserved / static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) > pages) refuse();
  try {
    KilnEmServer::PageArena::instance().reserve(options.reserved);
  } catch (const std::bad_alloc&) {
    refuse();
  }
  Service(options, stopSignals()).run();
}

}  // namespace KilnAgent
