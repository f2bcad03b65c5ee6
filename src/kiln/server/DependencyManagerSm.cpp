#include "kiln/server/DependencyManagerSm.h"

#include <algorithm>
#include <utility>

#include "kiln/platform/Assert.h"

namespace KilnEmServer {
namespace {

bool contains(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

DependencyManagerSm::DependencyManagerSm(std::string name, Ref<KilnPlatform::TaskScheduler> scheduler,
                                         int priority, Ref<KilnPlatform::DependencyStatus> dependencyStatus,
                                         CollectionExists collectionExists)
    : StageBase(std::move(name)),
      scheduler_(std::move(scheduler)),
      dependencyStatus_(std::move(dependencyStatus)),
      collectionExists_(std::move(collectionExists)),
      task_(
          scheduler_, priority, StageBase::name() + "-ReleaseTask",
          [](void* owner) { static_cast<DependencyManagerSm*>(owner)->release(); }, this) {
  readEntityIs(dependencyStatus_.get());
}

DependencyManagerSm::~DependencyManagerSm() {
  if (started_) dependencyStatus_->completed().unsubscribe(*this);
}

void DependencyManagerSm::registerStageMap(KilnPlatform::StageMap stageMap) {
  for (KilnPlatform::StageMapEntry& entry : stageMap) stages_.push_back({std::move(entry), {}});
  for (ManagedStage& stage : stages_) stage.gates = gatesOf(stage.entry);
}

std::vector<std::string> DependencyManagerSm::gatesOf(const KilnPlatform::StageMapEntry& entry) const {
  std::vector<std::string> gates = entry.after;
  for (const ManagedStage& other : stages_) {
    if (other.entry.stage == entry.stage || contains(gates, other.entry.stage)) continue;
    const bool fills =
        std::any_of(other.entry.writes.begin(), other.entry.writes.end(),
                    [&](const std::string& written) { return contains(entry.reads, written); });
    if (fills) gates.push_back(other.entry.stage);
  }
  return gates;
}

void DependencyManagerSm::start() {
  dependencyStatus_->completed().subscribe(*this);
  started_ = true;
  task_.scheduleTask();
}

void DependencyManagerSm::handleChange(const std::string& /*name*/) {
  task_.scheduleTask();
}

std::vector<std::string> DependencyManagerSm::missing(const ManagedStage& stage) const {
  std::vector<std::string> names;
  for (const std::string& collection : stage.entry.waitsFor) {
    if (!collectionExists_(collection)) names.push_back(collection);
  }
  for (const std::string& gate : stage.gates) {
    if (!dependencyStatus_->completed().has(gate)) names.push_back(gate);
  }
  return names;
}

bool DependencyManagerSm::releasable(const ManagedStage& stage) const {
  if (stage.released) return false;
  const auto& needed = stage.entry.waitsFor;
  return std::all_of(stage.gates.begin(), stage.gates.end(),
                     [this](const std::string& gate) { return dependencyStatus_->completed().has(gate); }) &&
         std::all_of(needed.begin(), needed.end(),
                     [this](const std::string& collection) { return collectionExists_(collection); });
}

void DependencyManagerSm::release() {
  for (ManagedStage& stage : stages_) {
    if (!releasable(stage)) continue;
    tracer().trace<8>("releasing {}", stage.entry.stage);
    stage.released = true;
    stage.entry.action();
    if (scheduler_->taskShouldYield()) break;
  }
  if (std::any_of(stages_.begin(), stages_.end(),
                  [&](const ManagedStage& stage) { return releasable(stage); })) {
    task_.scheduleTask();
  }
}

bool DependencyManagerSm::released(const std::string& stage) const {
  return std::any_of(stages_.begin(), stages_.end(),
                     [&](const ManagedStage& each) { return each.entry.stage == stage && each.released; });
}

std::vector<std::string> DependencyManagerSm::waitsFor(const std::string& stage) const {
  for (const ManagedStage& each : stages_) {
    if (each.entry.stage == stage && !each.released) return missing(each);
  }
  return {};
}

StageGraph DependencyManagerSm::graph() const {
  StageGraph graph;
  for (const ManagedStage& stage : stages_) {
    graph.nodes.push_back({stage.entry.stage, stage.entry.reads, stage.entry.feedbackReads,
                           stage.entry.writes, stage.entry.waitsFor, stage.gates});
  }
  return graph;
}

}  // namespace KilnEmServer
