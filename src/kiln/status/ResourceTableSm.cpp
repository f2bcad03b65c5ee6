#include "kiln/status/ResourceTableSm.h"

#include <utility>
#include <vector>

namespace KilnEmServer {
namespace {

/// Adds `change` to the counter of this status. Counters are unsigned: adding minus one wraps around and
/// subtracts one.
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

/// A requested key without a status counts as waiting.
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
  emLogicalKeyToEntry_.readSynchronously(counted_.map());
  emStatusMerged_.readSynchronously(counted_.map());
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
  const EmComposerKeyUnionTag type = emComposerTypeFromUnion(emKey.emComposerKey);
  ResourceCounts& counts = counts_[type];
  if (was != nullptr) countKey(counts, *was, -1U);
  if (now != nullptr) {
    countKey(counts, *now, 1);
    counted_.is(emKey, *now);
  } else {
    counted_.del(emKey);
  }
  changedTables_.add(type);
}

void ResourceTableSm::ChangedTables::add(EmComposerKeyUnionTag type) {
  Change& change = changes_[type];
  if (std::exchange(change.pending, true)) return;
  change.arrival = stage_.arrivals();
  stage_.noteArrival(*this, count_++ == 0);
}

/// At least one of them must be pending.
EmComposerKeyUnionTag ResourceTableSm::ChangedTables::first() const {
  auto first = EmComposerKeyUnionTag::undefined_;
  for (const KeyTypeInfo& each : kKeyTypeInfo) {
    const Change& change = changes_[each.tag];
    if (!change.pending) continue;
    if (first == EmComposerKeyUnionTag::undefined_ || isBefore(change.arrival, changes_[first].arrival)) {
      first = each.composerType;
    }
  }
  return first;
}

void ResourceTableSm::ChangedTables::notePending(PendingDigests& pending) const {
  for (const KeyTypeInfo& each : kKeyTypeInfo) {
    const Change& change = changes_[each.tag];
    if (change.pending) pending.push_back({change.arrival, StateDigest::valueOf(identity(), each.tag)});
  }
}

void ResourceTableSm::ChangedTables::handleNext() {
  const EmComposerKeyUnionTag type = first();
  changes_[type].pending = false;
  --count_;
  owner_.publish(type);
}

bool ResourceTableSm::ChangedTables::scanItem() {
  if (!hasPending()) return false;
  handleNext();
  return true;
}

void ResourceTableSm::publish(EmComposerKeyUnionTag type) {
  const ResourceCounts& counts = counts_[type];
  static const ByKeyType<std::string> names = [] {
    ByKeyType<std::string> stems;
    for (const KeyTypeInfo& each : kKeyTypeInfo) stems[each.tag] = each.stem;
    return stems;
  }();
  const std::string& name = names[type];
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
