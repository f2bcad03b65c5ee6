// The service around an agent: its clients, their lines, what is committed and answered when.
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

/// An agent that serves, one turn after the other; serve() says what it answers. A turn is bounded: lines,
/// long answers and the agent's own work get a few milliseconds each, and each client the same time for its
/// lines and answers. Only a single operation, or a commit, can be longer.
class Service {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t kMostClients = 128;

  /// Listens, until `stop` has something to be read; it may be none. Throws InputError where the state or the
  /// socket cannot be used.
  Service(const ServeOptions& options, FileDescriptor stop);

  /// Serves until it is to stop, and sends what is still to be sent.
  void run();
  /// Waits for something to do, and does some of it. False where it is to stop. Throws std::runtime_error
  /// where a commit fails.
  bool turn();
  /// Another client, besides those that come through the socket.
  void clientIs(LineConnection connection) { clients_.emplace_back(std::move(connection)); }
  [[nodiscard]] std::size_t clients() const { return clients_.size(); }
  [[nodiscard]] EmbeddedAgent& agent() { return agent_; }

 private:
  /// An operation that waits for the agent to be idle.
  struct Waiting {
    std::uint64_t line;
    Operation operation;
    std::uint64_t endSlice;  ///< when so many slices have run, it waits no longer
  };
  /// An answer that is made piece by piece, with the work that it is about; `line` and `ok` follow its
  /// content.
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
    /// The time that its lines and answers may still take in this turn; negative after a long one.
    Clock::duration credit{0};
    Clock::time_point active = Clock::now();  ///< when bytes were received or sent last
  };

  void addQueries();
  void waitForEvents();
  [[nodiscard]] bool busy() const { return !agent_.scheduler().idle() || anyStep(); }
  /// Milliseconds for which there is nothing to do; -1 for ever.
  [[nodiscard]] int patience() const;
  void acceptClients();
  [[nodiscard]] bool mayAccept() const;
  bool makeRoomForClient();
  /// Whether the client can be closed without the loss of an answer that it waits for.
  static bool isDispensable(const Client& client);
  /// Whether a step of the client can be made.
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
  std::string said_;  ///< what is wrong with the operation that is being executed
  Scenario scenario_{agent_, false, 1, [this](const std::string& text) { said_ = text; },
                     [this](const ScenarioCounters&) { readiness_.update(); }};
  Queries queries_;
  std::list<Client> clients_;  ///< the one whose turn comes next first
  std::size_t mostClients_ = kMostClients;
  CommitPace pace_;
  IdleMemory memory_;
  bool stopping_ = false;
};

}  // namespace KilnAgent
