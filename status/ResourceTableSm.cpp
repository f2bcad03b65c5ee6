#include "status/ResourceTableSm.h"

#include <optional>
#include <utility>
#include <vector>

namespace KilnEmServer {
namespace {

/// Adds `change` to the counts that a key with this status belongs to. The counts are unsigned: minus one
/// wraps and takes one away.
void countKey(ResourceCounts& counts, EmStatus status, std::uint32_t change) {
  counts.requested += change;
  switch (status) {
    case EmStatus::hwPending:
      counts.waiting += change;
      break;
    case EmStatus::hwSuccess:
      counts.programmed += change;
      break;
    case EmStatus::hwFail:
      counts.failed += change;
      break;
    case EmStatus::hwKeyConflict:
      break;
  }
}

}  // namespace

ResourceTableSm::ResourceTableSm(Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                                 Ref<const EmLogicalKeyToStatus> emStatusMerged,
                                 Ref<ResourceTable> isemResourceTable, Ref<ResourceTable> esemResourceTable,
                                 Ref<ResourceTable> lemResourceTable, std::string name,
                                 Ref<DependencyStatus> dependencyStatus, StageControl control)
    : Stage("ResourceTableSm", std::move(name), std::move(dependencyStatus), std::move(control),
            "from( this.ready )"),
      emLogicalKeyToEntry_(*this, std::move(emLogicalKeyToEntry)),
      emStatusMerged_(*this, std::move(emStatusMerged)),
      counted_(*this),
      isem_(*this, std::move(isemResourceTable)),
      esem_(*this, std::move(esemResourceTable)),
      lem_(*this, std::move(lemResourceTable)) {}

void ResourceTableSm::handleInitialized() {
  emLogicalKeyToEntry_.changesLookInto(counted_.statuses());
  emStatusMerged_.changesLookInto(counted_.statuses());
}

std::optional<EmStatus> ResourceTableSm::Counted::exchange(const EmLogicalKey& key,
                                                           std::optional<EmStatus> status) {
  const std::optional<EmStatus> was = this->status(key);
  if (status) {
    statuses_.obtain(key) = *status;
  } else {
    statuses_.del(key);
  }
  return was;
}

std::optional<EmStatus> ResourceTableSm::Counted::status(const EmLogicalKey& key) const {
  const EmStatus* filed = statuses_.find(key);
  return filed == nullptr ? std::nullopt : std::optional(*filed);
}

void ResourceTableSm::handleEntry(const EmLogicalKey& emKey, const EmConfigEntry* /*entryOpt*/) {
  count(emKey);
}

void ResourceTableSm::handleStatus(const EmLogicalKey& emKey, const EmRequestStatus* /*statusOpt*/) {
  count(emKey);
}

std::optional<EmStatus> ResourceTableSm::statusOf(const EmLogicalKey& emKey) const {
  if (emLogicalKeyToEntry_.find(emKey) == nullptr) return std::nullopt;
  const EmRequestStatus* status = emStatusMerged_.find(emKey);
  return status == nullptr ? EmStatus::hwPending : status->status;
}

void ResourceTableSm::count(const EmLogicalKey& emKey) {
  const std::optional<EmStatus> now = statusOf(emKey);
  const std::optional<EmStatus> was = counted_.exchange(emKey, now);
  if (was == now) return;
  const EmComposerKeyUnionTag type = emComposerTypeFromUnion(emKey.emComposerKey);
  ResourceCounts& counts = counts_[static_cast<std::size_t>(type)];
  if (was) countKey(counts, *was, -1U);
  if (now) countKey(counts, *now, 1);
  publish(type);
}

void ResourceTableSm::publish(EmComposerKeyUnionTag type) {
  const auto number = static_cast<std::size_t>(type);
  const ResourceCounts& counts = counts_[number];
  static const std::vector<std::string> names(KilnPlatform::kTableStems.begin(),
                                              KilnPlatform::kTableStems.end());
  const std::string& name = names[number];
  const ResourceCounts* row = counts.requested == 0 ? nullptr : &counts;
  switch (emTypeOf(type)) {
    case EmType::isem:
      return isem_.write(name, row);
    case EmType::esem:
      return esem_.write(name, row);
    case EmType::lem:
      return lem_.write(name, row);
  }
}

Ref<ResourceTableSm> resourceTableSmFactory(Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                                            Ref<const EmLogicalKeyToStatus> emStatusMerged,
                                            Ref<ResourceTable> isemResourceTable,
                                            Ref<ResourceTable> esemResourceTable,
                                            Ref<ResourceTable> lemResourceTable, std::string name,
                                            Ref<DependencyStatus> dependencyStatus, StageControl control) {
  return makeStage<ResourceTableSm>(std::move(emLogicalKeyToEntry), std::move(emStatusMerged),
                                    std::move(isemResourceTable), std::move(esemResourceTable),
                                    std::move(lemResourceTable), std::move(name), std::move(dependencyStatus),
                                    std::move(control));
}

}  // namespace KilnEmServer
