// The common part of stages that report the utilisation of tables: their rows of the capacity table.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kiln/platform/Hardware.h"
#include "kiln/platform/Ref.h"
#include "kiln/platform/TableCapacity.h"
#include "kiln/platform/TaskScheduler.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"
#include "kiln/status/ChangeMark.h"

namespace KilnEmServer {

/// The source of the time stamps of capacity rows.
class Clock {
 public:
  virtual ~Clock() = default;
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;
  [[nodiscard]] virtual std::chrono::nanoseconds now() const = 0;

 protected:
  Clock() = default;
};

/// The clock of a task scheduler.
class SchedulerClock final : public Clock {
 public:
  explicit SchedulerClock(Ref<const TaskScheduler> scheduler) : scheduler_(std::move(scheduler)) {}
  [[nodiscard]] std::chrono::nanoseconds now() const override { return scheduler_->now(); }

 private:
  Ref<const TaskScheduler> scheduler_;
};

/// Keeps one reporting agent's rows of the capacity table. Many changes are coalesced into one update, which
/// one task makes: when no task of a higher priority is ready, or after kPatience runs of other tasks. A row
/// is written only if its numbers changed. A row without a reason is removed, including one of an earlier
/// process. The rows of other reporting agents are not touched. If another component changed a row of this
/// one, the row is corrected when its own numbers, or anything but usage, change.
class CapacityHelper : public StageBase {
 public:
  /// Work done since construction.
  struct Counters {
    std::uint64_t updates = 0;
    std::uint64_t rowsWritten = 0;
    std::uint64_t rowsRemoved = 0;
  };
  static constexpr std::uint32_t kPatience = 1000;

  /// To be called once: takes over the existing rows and makes the first update.
  void handleInitialized();
  /// An input of the rows changed.
  void scheduleUpdate() { task_.scheduleTask(); }
  /// Whether an update is due.
  [[nodiscard]] bool updateScheduled() const { return task_.ready; }
  /// The reporting agent, which is the stage's name.
  [[nodiscard]] const std::string& agentName() const { return name(); }
  [[nodiscard]] const Counters& counters() const { return counters_; }
  /// Describes the helper's own state, without the rows' content, as a part with its name.
  void noteState(StateDigest& digest) const override;
  /// The numbers depend on tables as well.
  [[nodiscard]] bool addReads(std::vector<const void*>& /*collections*/) const override { return false; }

  /// The chip component of a core of a FAP: "Fap0/1".
  static std::string fapNameToChipExternalComponent(std::string_view fapName,
                                                    Hardware::Kiln::LocalCoreId core);
  /// The FAP's name and the core's number in a chip component; the number is empty if it names no core.
  static std::pair<std::string_view, std::string_view> fapNameAndCoreOf(std::string_view chip);

 protected:
  /// A table of the capacity table, with the feature that uses it; the feature is empty for the server
  /// itself.
  struct TableKey {
    std::string table;
    std::string feature;
    std::string agent;
    friend auto operator<=>(const TableKey&, const TableKey&) = default;
  };

  /// `control` gives the scheduler of the updates and their priority.
  CapacityHelper(Ref<KilnPlatform::TableCapacity> tableCapacity, Ref<const Clock> clock,
                 std::string agentName, Ref<const Hardware::Kiln::Status> hardwareStatus,
                 const StageControl& control);

  /// Registers the tables that the stage reports; to be called by its constructor.
  virtual void initCapacityTableFeatureMaps();
  /// Whether the usage of the tables is the same as at the last call. If only usage could have changed, the
  /// update ends there. A stage that cannot tell always makes whole updates.
  [[nodiscard]] virtual bool usageUnchanged() {
    settingChanged_ = true;
    return false;
  }
  /// To be set if anything other than usage changed.
  [[nodiscard]] bool& settingChanged() { return settingChanged_; }
  /// Calls updateCapacityEntry for every row that must exist; if only usage changed, only for the rows whose
  /// usage changed.
  virtual void updateCapacityTable();
  /// Removes the rows of a FAP that no longer exists.
  virtual void handleFapRemoved(const std::string& fapName);

  void initCapacityTableFeature(const std::string& feature, const std::string& agent,
                                const std::string& table);
  /// Writes a row of a registered table. `committed` is reserved but not used yet.
  void updateCapacityEntry(const TableKey& tableKey, const std::string& chip, std::uint32_t used,
                           std::uint32_t free, std::uint32_t committed, std::uint32_t maxLimit);

  [[nodiscard]] const Hardware::Kiln::Status& hardwareStatus() const { return *hardwareStatus_; }
  [[nodiscard]] Task& task() { return task_; }

 private:
  void update();
  void removeRowsOfRemovedFaps();
  void removeRowsLeftOut();
  /// Removes the rows for which `isObsolete(key, generation)` is true.
  template <class Predicate>
  void removeRowsIf(Predicate isObsolete);

  DirectOutput<KilnPlatform::TableCapacity::entryAttr, "tableCapacity"> tableCapacity_;
  Ref<const Clock> clock_;
  Ref<const Hardware::Kiln::Status> hardwareStatus_;
  std::set<TableKey> tables_;
  std::map<KilnPlatform::TableCapacityKey, std::uint64_t>
      rows_;                      ///< own rows, with the update that wrote them
  std::uint64_t generation_ = 0;  ///< number of the latest update that was not of usage only
  Counters counters_;
  bool settingChanged_ = true;
  Task task_;
  ChangeMark<Hardware::Kiln::FapId, Hardware::Kiln::FapInfo> fapMark_;
};

}  // namespace KilnEmServer
