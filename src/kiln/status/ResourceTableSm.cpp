#include "kiln/status/ResourceTableSm.h"

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

/// A requested key without a status waits for one.
EmStatus statusOf(const EmRequestStatus* status) {
  return status == nullptr ? EmStatus::hwPending : status->status;
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
      changedTables_(*this),
      counted_(*this, "counted"),
      isem_(*this, std::move(isemResourceTable)),
      esem_(*this, std::move(esemResourceTable)),
      lem_(*this, std::move(lemResourceTable)) {}

void ResourceTableSm::handleInitialized() {
  emLogicalKeyToEntry_.changesLookInto(counted_.map());
  emStatusMerged_.changesLookInto(counted_.map());
}

void ResourceTableSm::handleEntry(const EmLogicalKey& emKey, const EmConfigEntry* entryOpt) {
  const EmStatus* counted = counted_.find(emKey);
  if ((entryOpt != nullptr) == (counted != nullptr)) return;
  const EmStatus now = statusOf(emStatusMerged_.find(emKey));
  count(emKey, counted, entryOpt == nullptr ? nullptr : &now);
}

void ResourceTableSm::handleStatus(const EmLogicalKey& emKey, const EmRequestStatus* statusOpt) {
  const EmStatus* counted = counted_.find(emKey);
  if (counted == nullptr) return;  // not requested
  const EmStatus now = statusOf(statusOpt);
  if (now != *counted) count(emKey, counted, &now);
}

void ResourceTableSm::count(const EmLogicalKey& emKey, const EmStatus* was, const EmStatus* now) {
  const auto number = static_cast<std::size_t>(emComposerTypeFromUnion(emKey.emComposerKey));
  ResourceCounts& counts = counts_[number];
  if (was != nullptr) countKey(counts, *was, -1U);
  if (now != nullptr) {
    countKey(counts, *now, 1);
    counted_.is(emKey, *now);
  } else {
    counted_.del(emKey);
  }
  changedTables_.add(number);
}

void ResourceTableSm::ChangedTables::add(std::size_t number) {
  if (std::exchange(changed_[number], true)) return;
  arrivals_[number] = stage_.arrivals();
  stage_.noteArrival(*this, count_++ == 0);
}

std::size_t ResourceTableSm::ChangedTables::first() const {
  std::size_t first = changed_.size();
  for (std::size_t number = 0; number < changed_.size(); ++number) {
    if (!changed_[number]) continue;
    if (first == changed_.size() || isBefore(arrivals_[number], arrivals_[first])) first = number;
  }
  return first;
}

void ResourceTableSm::ChangedTables::notePending(PendingDigests& pending) const {
  for (std::size_t number = 0; number < changed_.size(); ++number) {
    if (changed_[number]) pending.push_back({arrivals_[number], StateDigest::valueOf(identity(), number)});
  }
}

void ResourceTableSm::ChangedTables::handleNext() {
  const std::size_t number = first();
  changed_[number] = false;
  --count_;
  owner_.publish(static_cast<EmComposerKeyUnionTag>(number));
}

bool ResourceTableSm::ChangedTables::scanItem() {
  if (!hasPending()) return false;
  handleNext();
  return true;
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
