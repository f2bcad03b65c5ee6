// What stages that report the utilisation of tables share: the rows of the capacity table that are theirs.
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

/// Where the time stamps of capacity rows come from.
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

/// Keeps one reporting agent's rows of the capacity table. However many changes ask for an update, one task
/// makes it: when nothing of a higher priority is ready, or after kPatience runs of other tasks. A row is
/// written only where its numbers changed; a row for which there is no reason any more is removed, also one
/// that an earlier process left. The rows of other reporting agents are left alone; a row of this one that
/// another component changed is mended when its own numbers, or anything but usage, change.
class CapacityHelper : public StageBase {
 public:
  /// What was done since construction.
  struct Counters {
    std::uint64_t updates = 0;
    std::uint64_t rowsWritten = 0;
    std::uint64_t rowsRemoved = 0;
  };
  static constexpr std::uint32_t kPatience = 1000;

  /// To be called once: takes over the rows that are there and makes the first update.
  void handleInitialized();
  /// Something that the rows depend on changed.
  void scheduleUpdate() { task_.scheduleTask(); }
  /// Whether an update is due.
  [[nodiscard]] bool updateScheduled() const { return task_.ready; }
  /// The reporting agent, which is the stage's name.
  [[nodiscard]] const std::string& agentName() const { return name(); }
  [[nodiscard]] const Counters& counters() const { return counters_; }
  /// Describes the helper's own state, without the rows' content, as a part of its name.
  void noteState(StateDigest& digest) const override;
  /// The numbers come from tables as well.
  [[nodiscard]] bool addReads(std::vector<const void*>& /*collections*/) const override { return false; }

  /// The chip component that stands for a core of a FAP: "Fap0/1".
  static std::string fapNameToChipExternalComponent(std::string_view fapName,
                                                    Hardware::Kiln::LocalCoreId core);
  /// The FAP's name and the core's number in a chip component; the number is empty where it names no core.
  static std::pair<std::string_view, std::string_view> fapNameAndCoreOf(std::string_view chip);

 protected:
  /// A table of the capacity table, with the feature that uses it, empty for the server itself.
  struct TableKey {
    std::string table;
    std::string feature;
    std::string agent;
    friend auto operator<=>(const TableKey&, const TableKey&) = default;
  };

  /// `control` names the scheduler of the updates and their priority.
  CapacityHelper(Ref<KilnPlatform::TableCapacity> tableCapacity, Ref<const Clock> clock,
                 std::string agentName, Ref<const Hardware::Kiln::Status> hardwareStatus,
                 const StageControl& control);

  /// Registers the tables that the stage reports; to be called by its constructor.
  virtual void initCapacityTableFeatureMaps();
  /// Whether tables are used as they were at the last call. An update that nothing but usage asked for goes
  /// no further then. A stage that cannot tell has whole updates only.
  [[nodiscard]] virtual bool usageUnchanged() {
    settingChanged_ = true;
    return false;
  }
  /// To be set where something else than usage changed.
  [[nodiscard]] bool& settingChanged() { return settingChanged_; }
  /// Calls updateCapacityEntry for every row that there is to be; where nothing but usage changed, only for
  /// those of which it changed.
  virtual void updateCapacityTable();
  /// Removes the rows of a FAP that is no more.
  virtual void handleFapRemoved(const std::string& fapName);

  void initCapacityTableFeature(const std::string& feature, const std::string& agent,
                                const std::string& table);
  /// Writes a row of a registered table. `committed` is what is promised to somebody but not used yet.
  void updateCapacityEntry(const TableKey& tableKey, const std::string& chip, std::uint32_t used,
                           std::uint32_t free, std::uint32_t committed, std::uint32_t maxLimit);

  [[nodiscard]] const Hardware::Kiln::Status& hardwareStatus() const { return *hardwareStatus_; }
  [[nodiscard]] Task& task() { return task_; }

 private:
  void update();
  void removeRowsOfGoneFaps();
  void removeRowsLeftOut();
  /// Removes the rows for which `gone(key, generation)` holds.
  template <class Gone>
  void removeRowsIf(Gone gone);

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
