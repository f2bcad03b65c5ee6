// Watches the capacity table: high-watermarks, and alarms with hysteresis.
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "kiln/platform/Ref.h"
#include "kiln/platform/TableCapacity.h"
#include "kiln/platform/TaskScheduler.h"

namespace KilnAgent {

using KilnPlatform::Ref;

/// Percentages of a table's maximum. The lower one must not exceed the upper.
struct CapacityThresholds {
  std::uint32_t upper = 90;       ///< an alarm is raised when the usage reaches this
  std::uint32_t upperClear = 80;  ///< and cleared when the usage falls below this
};

/// One table on one core of one FAP.
struct TableInstance {
  std::string table;
  std::string chip;
  friend auto operator<=>(const TableInstance&, const TableInstance&) = default;
};

/// The sum of an instance's rows over all features.
struct TableUsage {
  std::uint64_t used = 0;
  std::uint32_t maxLimit = 0;
  friend bool operator==(const TableUsage&, const TableUsage&) = default;
};

/// The greatest usage so far, and when it was reached.
struct HighWatermark {
  std::uint64_t used = 0;
  std::chrono::nanoseconds time{0};
};

/// Percentage of the maximum; for a table without room, 100 if it is used at all.
double percentOf(const TableUsage& usage);

/// Follows the rows of a capacity table. Each instance is evaluated separately, once all rows of an update
/// are written: usage that moves from one feature to another crosses no threshold. Changes that are reverted
/// between two updates are not seen.
class CapacityMonitor final : private KilnPlatform::KeySubscriber<KilnPlatform::TableCapacityKey> {
 public:
  /// Maximum number of alarms that are kept.
  static constexpr std::size_t kMostAlarms = 256;
  using Rows = std::map<KilnPlatform::TableCapacityKey, KilnPlatform::TableCapacityEntry>;

  enum class Event : std::uint8_t { raised, cleared, tableRemoved };
  struct Alarm {
    Event event;
    TableInstance instance;
    TableUsage usage;  ///< at that moment; the last known one if the table was removed
    std::chrono::nanoseconds time;
  };
  struct State {
    TableUsage usage;
    HighWatermark highWatermark;
    bool exceeded = false;  ///< whether an alarm is raised
  };

  /// Both references must outlive the monitor.
  CapacityMonitor(const KilnPlatform::TableCapacity& capacity,
                  const Ref<KilnPlatform::TaskScheduler>& scheduler, CapacityThresholds thresholds = {});
  ~CapacityMonitor();
  CapacityMonitor(const CapacityMonitor&) = delete;
  CapacityMonitor& operator=(const CapacityMonitor&) = delete;

  [[nodiscard]] const CapacityThresholds& thresholds() const { return thresholds_; }
  /// The instances that have rows at present.
  [[nodiscard]] const std::map<TableInstance, State>& instances() const { return instances_; }
  /// The rows of one of them.
  [[nodiscard]] const Rows& rowsOf(const TableInstance& instance) const { return rows_.at(instance); }
  /// The latest events, the oldest first.
  [[nodiscard]] const std::deque<Alarm>& alarms() const { return alarms_; }

 private:
  void handleChange(const KilnPlatform::TableCapacityKey& key) override;
  void judgeChanged();
  void judge(const TableInstance& instance);
  void evaluateRemoved(const TableInstance& instance);
  void addAlarm(Event event, const TableInstance& instance, const TableUsage& usage);

  const KilnPlatform::TableCapacity& capacity_;
  CapacityThresholds thresholds_;
  std::map<TableInstance, Rows> rows_;
  std::set<TableInstance> changed_;
  std::map<TableInstance, State> instances_;
  std::deque<Alarm> alarms_;
  KilnPlatform::Task task_;
};

/// "raised", "cleared" or "table gone".
std::string_view eventName(CapacityMonitor::Event event);

}  // namespace KilnAgent
