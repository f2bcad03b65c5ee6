#include "kiln/status/CapacityHelper.h"

#include <fmt/format.h>

#include <vector>

#include "kiln/platform/Assert.h"

namespace KilnEmServer {

using KilnPlatform::TableCapacityEntry;
using KilnPlatform::TableCapacityKey;

CapacityHelper::CapacityHelper(Ref<KilnPlatform::TableCapacity> tableCapacity, Ref<const Clock> clock,
                               std::string agentName, Ref<const Hardware::Kiln::Status> hardwareStatus,
                               const StageControl& control)
    : StageBase(std::move(agentName)),
      tableCapacity_(*this, std::move(tableCapacity)),
      clock_(std::move(clock)),
      hardwareStatus_(std::move(hardwareStatus)),
      task_(
          control.scheduler, control.priority, name() + "-UpdateTask",
          [](void* owner) { static_cast<CapacityHelper*>(owner)->update(); }, this, kPatience),
      fapMark_(hardwareStatus_->fap(), task_, &settingChanged_) {
  readEntityIs(hardwareStatus_.get());
}

void CapacityHelper::initCapacityTableFeatureMaps() {
  KILN_ASSERT_MESSAGE(false, "Must implement in child");
}

void CapacityHelper::updateCapacityTable() {
  KILN_ASSERT_MESSAGE(false, "Must implement in child");
}

void CapacityHelper::handleInitialized() {
  tracer().trace<8>("handleInitialized");
  KilnPlatform::forEachIn(tableCapacity_.collection(), [this](const TableCapacityKey& key, const auto&) {
    if (key.agent == name()) rows_.emplace(key, generation_);
  });
  update();
}

void CapacityHelper::update() {
  const KilnPlatform::RunningStageScope scope(name());
  ++counters_.updates;
  const bool usageIsSame = usageUnchanged();
  if (std::exchange(settingChanged_, false)) {
    ++generation_;
    removeRowsOfRemovedFaps();
    updateCapacityTable();
    removeRowsLeftOut();
  } else if (!usageIsSame) {
    updateCapacityTable();
  }
  tracer().trace<9>("update {}: {} rows", counters_.updates, rows_.size());
}

// A row's generation only tells whether the current update wrote the row.
void CapacityHelper::noteState(StateDigest& digest) const {
  digest.begin(name());
  digest.add(settingChanged_);
  for (const auto& [key, generation] : rows_) digest.add(key);
}

void CapacityHelper::removeRowsOfRemovedFaps() {
  std::set<std::string_view> present;
  KilnPlatform::forEachIn(hardwareStatus_->fap(),
                          [&](const auto&, const auto& info) { present.insert(info.name); });
  std::set<std::string> removed;
  for (const auto& [key, generation] : rows_) {
    const std::string_view fapName = fapNameAndCoreOf(key.chip).first;
    if (!present.contains(fapName)) removed.emplace(fapName);
  }
  for (const std::string& fapName : removed) handleFapRemoved(fapName);
}

void CapacityHelper::handleFapRemoved(const std::string& fapName) {
  tracer().trace<8>("handleFapRemoved {}", fapName);
  removeRowsIf([&](const TableCapacityKey& key, std::uint64_t /*generation*/) {
    return fapNameAndCoreOf(key.chip).first == fapName;
  });
}

void CapacityHelper::removeRowsLeftOut() {
  removeRowsIf([this](const TableCapacityKey& /*key*/, std::uint64_t generation) {
    return generation != generation_;
  });
}

template <class Predicate>
void CapacityHelper::removeRowsIf(Predicate isObsolete) {
  for (auto at = rows_.begin(); at != rows_.end();) {
    if (isObsolete(at->first, at->second)) {
      tableCapacity_.erase(at->first);
      ++counters_.rowsRemoved;
      at = rows_.erase(at);
    } else {
      ++at;
    }
  }
}

void CapacityHelper::initCapacityTableFeature(const std::string& feature, const std::string& agent,
                                              const std::string& table) {
  tables_.insert({table, feature, agent});
}

void CapacityHelper::updateCapacityEntry(const TableKey& tableKey, const std::string& chip,
                                         std::uint32_t used, std::uint32_t free, std::uint32_t committed,
                                         std::uint32_t maxLimit) {
  KILN_ASSERT_MESSAGE(tables_.contains(tableKey), "the table {} with feature \"{}\" of {} is not registered",
                      tableKey.table, tableKey.feature, tableKey.agent);
  const TableCapacityKey key{tableKey.table, tableKey.feature, tableKey.agent, chip};
  rows_[key] = generation_;
  TableCapacityEntry entry{used, free, committed, maxLimit, clock_->now()};
  if (const TableCapacityEntry* present = tableCapacity_.find(key)) {
    const auto changed = std::exchange(entry.updated, present->updated);
    if (entry == *present) return;
    entry.updated = changed;
  }
  tableCapacity_.insert(key, entry);
  ++counters_.rowsWritten;
}

std::string CapacityHelper::fapNameToChipExternalComponent(std::string_view fapName,
                                                           Hardware::Kiln::LocalCoreId core) {
  return fmt::format("{}/{}", fapName, core.number());
}

std::pair<std::string_view, std::string_view> CapacityHelper::fapNameAndCoreOf(std::string_view chip) {
  const std::size_t at = chip.rfind('/');
  if (at == std::string_view::npos) return {chip, {}};
  return {chip.substr(0, at), chip.substr(at + 1)};
}

}  // namespace KilnEmServer
