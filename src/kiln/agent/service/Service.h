// The service around an agent: its clients, their lines, and the order of commits and answers.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "kiln/agent/host/CapacityMonitor.h"
#include "kiln/agent/io/LineSocket.h"
#include "kiln/agent/io/TextSource.h"
#include "kiln/agent/scenario/Scenario.h"
#include "kiln/agent/service/CommitPace.h"
#include "kiln/agent/service/IdleMemory.h"
#include "kiln/agent/service/Queries.h"
#include "kiln/agent/service/Readiness.h"
#include "kiln/agent/service/Serve.h"

namespace KilnAgent {

/// A serving agent, one turn after the other; serve() defines its answers. A turn is bounded: lines, long
/// answers and the agent's own work get a few milliseconds each, and each client the same time for its lines
/// and answers. Only a single operation, or a commit, can take longer.
class Service {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t kMostClients = 128;

  /// Listens until `stop` is readable; `stop` may be none. Throws InputError if the state or the socket
  /// cannot be used.
  Service(const ServeOptions& options, FileDescriptor stop);

  /// Serves until it is stopped, then sends the remaining answers.
  void run();
  /// Waits for work and does some of it. False if it is to stop. Throws std::runtime_error if a commit fails.
  bool turn();
  /// Adds a client that did not connect through the socket.
  void clientIs(LineConnection connection) { clients_.emplace_back(std::move(connection)); }
  [[nodiscard]] std::size_t clients() const { return clients_.size(); }
  [[nodiscard]] EmbeddedAgent& agent() { return agent_; }

 private:
  /// An operation that waits for the agent to be idle.
  struct Waiting {
    std::uint64_t line;
    Operation operation;
    std::uint64_t endSlice;  ///< when so many slices have run, it no longer waits
  };
  /// An answer that is produced piece by piece, together with the work that it reports; `line` and `ok`
  /// follow its content.
  struct LongAnswer {
    std::uint64_t line;
    std::unique_ptr<TextSource> content;
  };
  struct Client {
    explicit Client(LineConnection taken) : connection(std::move(taken)) {}
    LineConnection connection;
    std::string uncommitted;  ///< answers that wait for the next commit
    std::optional<Waiting> waiting;
    std::optional<LongAnswer> longAnswer;
    /// The time that is left for its lines and answers in this turn; negative after a long one.
    Clock::duration credit{0};
    Clock::time_point active = Clock::now();  ///< when bytes were last received or sent
  };

  void addQueries();
  void waitForEvents();
  [[nodiscard]] bool busy() const { return !agent_.scheduler().idle() || anyStep(); }
  /// Milliseconds until there is work; -1 for no limit.
  [[nodiscard]] int patience() const;
  void acceptClients();
  [[nodiscard]] bool mayAccept() const;
  bool makeRoomForClient();
  /// Whether the client can be closed without the loss of an answer for which it waits.
  static bool isDispensable(const Client& client);
  /// Whether the client has work.
  static bool hasStep(const Client& client);
  [[nodiscard]] bool anyStep() const;
  void serveClients();
  void step(Client& client);
  void takeLine(Client& client, const LineConnection::Line& line);
  void takeOperation(Client& client, std::uint64_t line, Operation operation);
  [[nodiscard]] Json execute(const Operation& operation);
  static void answer(Client& client, std::uint64_t line, Json answer);
  static void continueLongAnswer(Client& client);
  void runSlices();
  void runWaiting();
  void commitIfDue();
  void commit();
  void sendAnswers();
  void stop();
  [[nodiscard]] Json aboutAgent() const;

  Clock::time_point begin_ = Clock::now();
  FileDescriptor signals_;
  EmbeddedAgent agent_;
  Readiness readiness_{agent_, begin_};
  LineListener listener_;
  CapacityMonitor capacity_{agent_.capacity(), agent_.store().taskScheduler()};
  std::string said_;  ///< the error of the operation that is being executed
  Scenario scenario_{agent_, false, 1, [this](const std::string& text) { said_ = text; },
                     [this](const ScenarioCounters&) { readiness_.update(); }};
  Queries queries_;
  std::list<Client> clients_;  ///< the next client in turn first
  std::size_t mostClients_ = kMostClients;
  CommitPace pace_;
  IdleMemory memory_;
  bool stopping_ = false;
};

}  // namespace KilnAgent
