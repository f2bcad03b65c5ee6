// How far a starting agent is: told to its service manager and, at the end, on standard error.
#pragma once

#include <chrono>
#include <cstddef>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/service/SdNotify.h"

namespace KilnAgent {

/// Tells READY=1 once, when the server has reconciled everything, STATUS= with the progress until then, and
/// WATCHDOG=1 all the time.
class Readiness {
 public:
  using Clock = std::chrono::steady_clock;

  /// The agent was begun to be opened at `begin` and is open now. It must outlive this.
  Readiness(const EmbeddedAgent& agent, Clock::time_point begin);

  /// To be called often. Returns whether the agent has just become ready.
  bool update();
  [[nodiscard]] bool ready() const { return ready_; }
  /// To be called once what there was at readiness is committed; tells where the time went.
  void readyAndCommitted();
  void stopping() const;
  /// Milliseconds for which nothing has to be told; -1 for ever.
  [[nodiscard]] int patience() const;

 private:
  void tellProgress();

  const EmbeddedAgent& agent_;
  SdNotify manager_;
  Clock::time_point begin_;
  Clock::time_point opened_;
  Clock::time_point reconciled_;
  Clock::time_point lastProgress_;
  Clock::time_point lastSign_;
  bool ready_ = false;
};

}  // namespace KilnAgent
