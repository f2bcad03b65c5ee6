// The progress of a starting agent, reported to its service manager and, at the end, on standard error.
#pragma once

#include <chrono>
#include <cstddef>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/service/SdNotify.h"

namespace KilnAgent {

/// Sends READY=1 once, when the server has reconciled everything, STATUS= with the progress until then, and
/// WATCHDOG=1 periodically.
class Readiness {
 public:
  using Clock = std::chrono::steady_clock;

  /// The agent has been opening since `begin`, and is open now. It must outlive this object.
  Readiness(const EmbeddedAgent& agent, Clock::time_point begin);

  /// To be called often. Returns whether the agent has just become ready.
  bool update();
  [[nodiscard]] bool ready() const { return ready_; }
  /// To be called once the state at readiness is committed; reports how the time was spent.
  void readyAndCommitted();
  void stopping() const;
  /// Milliseconds until the next message is due; -1 for no limit.
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
