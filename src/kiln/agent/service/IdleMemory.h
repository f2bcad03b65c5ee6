// Memory that is not used any more goes back to the system.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

namespace KilnAgent {

/// Gives memory back when the agent has been idle for a while and holds much less than it once did, a little
/// per step: after a burst of withdrawals the memory is often wanted again, and to take it from the system
/// costs more than to keep it. One thread only, the one whose memory it is.
class IdleMemory {
 public:
  using Clock = std::chrono::steady_clock;

  /// To be called once per turn. An idle agent does some of the work, if it is time for it.
  void turn(bool idle);
  /// How long an idle agent may wait before the next turn; nothing if there is no work.
  [[nodiscard]] std::optional<std::chrono::milliseconds> patience() const;

 private:
  std::size_t peak_ = 0;  ///< bytes in use, the most since memory was given back
  Clock::time_point idleSince_ = Clock::now();
  bool due_ = false;
  bool begun_ = false;
};

}  // namespace KilnAgent
