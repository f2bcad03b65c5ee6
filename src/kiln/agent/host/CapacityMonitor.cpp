#include "kiln/agent/host/CapacityMonitor.h"

#include <algorithm>
#include <utility>

namespace KilnAgent {
namespace {

/// Above all tasks that write rows: an update is evaluated before the next one begins.
constexpr int kMonitorPriority = 20;

/// Whether usage is at least this percentage. A table without room is full as soon as it is used.
bool reaches(const TableUsage& usage, std::uint32_t percent) {
  if (usage.maxLimit == 0) return usage.used != 0;
  return usage.used * 100 >= std::uint64_t{usage.maxLimit} * percent;
}

}  // namespace

double percentOf(const TableUsage& usage) {
  if (usage.maxLimit == 0) return usage.used == 0 ? 0.0 : 100.0;
  return 100.0 * static_cast<double>(usage.used) / static_cast<double>(usage.maxLimit);
}

CapacityMonitor::CapacityMonitor(const KilnPlatform::TableCapacity& capacity,
                                 const Ref<KilnPlatform::TaskScheduler>& scheduler,
                                 CapacityThresholds thresholds)
    : capacity_(capacity),
      thresholds_(thresholds),
      task_(
          scheduler, kMonitorPriority, "CapacityMonitor",
          [](void* self) { static_cast<CapacityMonitor*>(self)->judgeChanged(); }, this) {
  capacity_.entry().subscribe(*this);
  KilnPlatform::forEachIn(capacity_.entry(), [this](const auto& key, const auto&) { handleChange(key); });
}

CapacityMonitor::~CapacityMonitor() {
  capacity_.entry().unsubscribe(*this);
}

void CapacityMonitor::handleChange(const KilnPlatform::TableCapacityKey& key) {
  TableInstance instance{key.table, key.chip};
  Rows& rows = rows_[instance];
  if (const auto* entry = capacity_.entry().find(key)) {
    rows.insert_or_assign(key, *entry);
  } else {
    rows.erase(key);
  }
  changed_.insert(std::move(instance));
  task_.scheduleTask();
}

void CapacityMonitor::judgeChanged() {
  for (const TableInstance& instance : std::exchange(changed_, {})) {
    if (rows_.at(instance).empty()) {
      evaluateRemoved(instance);
    } else {
      judge(instance);
    }
  }
}

void CapacityMonitor::judge(const TableInstance& instance) {
  TableUsage usage;
  std::chrono::nanoseconds updated{0};
  for (const auto& [key, entry] : rows_.at(instance)) {
    usage.used += entry.used;
    usage.maxLimit = std::max(usage.maxLimit, entry.maxLimit);
    updated = std::max(updated, entry.updated);
  }
  const auto [at, created] = instances_.try_emplace(instance);
  State& state = at->second;
  state.usage = usage;
  if (created || usage.used > state.highWatermark.used) state.highWatermark = {usage.used, updated};
  if (!state.exceeded && reaches(usage, thresholds_.upper)) {
    state.exceeded = true;
    addAlarm(Event::raised, instance, usage);
  } else if (state.exceeded && !reaches(usage, thresholds_.upperClear)) {
    state.exceeded = false;
    addAlarm(Event::cleared, instance, usage);
  }
}

void CapacityMonitor::evaluateRemoved(const TableInstance& instance) {
  rows_.erase(instance);
  const auto at = instances_.find(instance);
  if (at == instances_.end()) return;
  if (at->second.exceeded) {
    addAlarm(Event::tableRemoved, instance, at->second.usage);
  }
  instances_.erase(at);
}

void CapacityMonitor::addAlarm(Event event, const TableInstance& instance, const TableUsage& usage) {
  if (alarms_.size() == kMostAlarms) alarms_.pop_front();
  alarms_.push_back({event, instance, usage, task_.scheduler()->now()});
}

std::string_view eventName(CapacityMonitor::Event event) {
  constexpr std::string_view kNames[] = {"raised", "cleared", "table gone"};
  return kNames[static_cast<std::size_t>(event)];
}

}  // namespace KilnAgent
