// The service around an agent: its clients, their lines, what is committed and answered when.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <utility>

#include "agent/CapacityMonitor.h"
#include "agent/CommitPace.h"
#include "agent/LineSocket.h"
#include "agent/Queries.h"
#include "agent/Readiness.h"
#include "agent/Scenario.h"
#include "agent/Serve.h"

namespace KilnAgent {

/// An agent that serves, one turn after the other; serve() says what it answers.
class Service {
 public:
  using Clock = std::chrono::steady_clock;

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
  struct Client {
    explicit Client(LineConnection taken) : connection(std::move(taken)) {}
    LineConnection connection;
    std::string uncommitted;  ///< answers that wait for the next commit
    /// An operation that waits for the agent to be idle, and the number of its line.
    std::optional<std::pair<std::uint64_t, Operation>> waiting;
  };

  void addQueries();
  void waitForEvents();
  void acceptClients();
  void takeLines();
  void takeLine(Client& client, const LineConnection::Line& line);
  [[nodiscard]] Json execute(const Operation& operation);
  static void answer(Client& client, std::uint64_t line, Json answer);
  void runSlices();
  void runWaiting();
  void commitIfDue();
  void commit();
  void sendAnswers();
  void stop();
  [[nodiscard]] bool anyWaiting() const;
  [[nodiscard]] bool linesLeft() const { return linesLeft_ && !anyWaiting(); }
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
  std::list<Client> clients_;
  CommitPace pace_;
  bool linesLeft_ = false;
  bool stopping_ = false;
};

}  // namespace KilnAgent
