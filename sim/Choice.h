// The choices at a task boundary.
#pragma once

#include <compare>
#include <cstdint>

namespace KilnSim {

/// One choice, valid in the state in which it is offered.
struct Choice {
  enum class Kind : std::uint8_t {
    task,       ///< runs a slice of a ready task
    answer,     ///< delivers the answer of an operation
    operation,  ///< applies the scenario's next operation
    restart,
    crash,
    loss,  ///< a crash that loses the store's uncommitted changes
    end,   ///< no work is left
  };
  static constexpr std::uint8_t kNoRefusal = 0xFF;

  Kind kind = Kind::end;
  std::uint8_t refused = kNoRefusal;  ///< of the slice's writes, the one that the chip refuses
  std::uint16_t items = 0;            ///< after which the slice yields; 0 for no limit
  /// The number of the task, or of the table; see ScheduleRun.
  std::uint16_t which = 0;
  std::uint16_t place = 0;  ///< of the answer among those of the table, the oldest first

  friend auto operator<=>(const Choice&, const Choice&) = default;
};

}  // namespace KilnSim
