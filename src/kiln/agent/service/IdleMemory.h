// Gives unused memory back to the system.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

namespace KilnAgent {

/// Gives memory back, a little per step, when the agent has been idle for a while and uses much less than
/// before. It waits because memory is often needed again after a burst of withdrawals, and taking it from the
/// system costs more than keeping it. Only for the thread that owns the memory.
class IdleMemory {
 public:
  using Clock = std::chrono::steady_clock;

  /// To be called once per turn. If the agent is idle and the time has come, it does some of the work.
  void turn(bool idle);
  /// How long an idle agent may wait before the next turn; nothing if there is no work.
  [[nodiscard]] std::optional<std::chrono::milliseconds> patience() const;

 private:
  std::size_t peak_ = 0;  ///< maximum of the bytes in use since memory was last given back
  Clock::time_point idleSince_ = Clock::now();
  bool due_ = false;
  bool begun_ = false;
};

}  // namespace KilnAgent
