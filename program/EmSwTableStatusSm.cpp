#include "program/EmSwTableStatusSm.h"

#include <optional>
#include <utility>

namespace KilnEmServer {

EmSwTableStatusSm::EmSwTableStatusSm(Ref<const EmSwTableStatus> emSwTableStatus,
                                     Ref<EmLogicalKeyToStatus> emLogicalKeyToStatus, std::string name,
                                     Ref<DependencyStatus> dependencyStatus, StageControl control)
    : Stage("EmSwTableStatusSm", std::move(name), std::move(dependencyStatus), std::move(control),
            "Line 40: from( this.ready )"),
      emSwTableStatus_(*this, std::move(emSwTableStatus)),
      cacheAttr0_(*this, "cacheAttr0"),
      otherHwKeys_(*this),
      emLogicalKeyToStatus_(*this, std::move(emLogicalKeyToStatus)) {}

void EmSwTableStatusSm::handleStatus(const EmHwKey& swTableKey, const EmSwTableStatusEntry* statusOpt) {
  const EmLogicalKey* cached = cacheAttr0_.find(swTableKey);
  const std::optional<EmLogicalKey> oldKey = cached == nullptr ? std::nullopt : std::optional(*cached);
  if (statusOpt != nullptr) {
    cacheAttr0_.is(swTableKey, statusOpt->emLogicalKeyAndEntry.emLogicalKey);
  } else {
    cacheAttr0_.del(swTableKey);
  }
  tracer().trace<7>(
      "foreach( [ ( if ( _oldValueOpt6 != _newValueOpt7 ) then _oldValueOpt6 else None, false ), ( "
      "_newValueOpt7, "
      "true ) ] )");
  // The removal comes before the insertion: a key that keeps its hardware key must end with its status
  // present.
  const EmLogicalKey* newKey = statusOpt == nullptr ? nullptr : &statusOpt->emLogicalKeyAndEntry.emLogicalKey;
  if (oldKey && (newKey == nullptr || *oldKey != *newKey)) remove(*oldKey, swTableKey);
  if (newKey != nullptr) insert(*newKey, swTableKey, *statusOpt);
}

void EmSwTableStatusSm::remove(const EmLogicalKey& logicalKey, const EmHwKey& swTableKey) {
  const EmRequestStatus* published = emLogicalKeyToStatus_.find(logicalKey);
  if (published == nullptr || published->emSwTableKeyFapCore != swTableKey) {
    otherHwKeys_.del(logicalKey, swTableKey);
    return;
  }
  while (const EmHwKey* other = otherHwKeys_.last(logicalKey)) {
    const EmHwKey next = *other;
    otherHwKeys_.del(logicalKey, next);
    const EmSwTableStatusEntry* status = emSwTableStatus_.find(next);
    // One that went, or that names another owner by now, has its own event still to come.
    if (status != nullptr && status->emLogicalKeyAndEntry.emLogicalKey == logicalKey) {
      tracer().trace<8>("{} keeps the status of {}", logicalKey, next);
      publish(logicalKey, next, *status);
      return;
    }
  }
  emLogicalKeyToStatus_.erase(logicalKey);
}

void EmSwTableStatusSm::insert(const EmLogicalKey& logicalKey, const EmHwKey& swTableKey,
                               const EmSwTableStatusEntry& status) {
  if (const EmRequestStatus* published = emLogicalKeyToStatus_.find(logicalKey)) {
    const EmHwKey previous = published->emSwTableKeyFapCore;
    const EmLogicalKey* owner = previous == swTableKey ? nullptr : cacheAttr0_.find(previous);
    if (owner != nullptr && *owner == logicalKey) otherHwKeys_.add(logicalKey, previous);
    otherHwKeys_.del(logicalKey, swTableKey);
  }
  publish(logicalKey, swTableKey, status);
}

void EmSwTableStatusSm::publish(const EmLogicalKey& logicalKey, const EmHwKey& swTableKey,
                                const EmSwTableStatusEntry& status) {
  emLogicalKeyToStatus_.insert(
      logicalKey, {status.emLogicalKeyAndEntry.emLogicalKey, status.emLogicalKeyAndEntry.emEntry, swTableKey,
                   static_cast<EmStatus>(status.status)});
}

void EmSwTableStatusSm::OtherHwKeys::add(const EmLogicalKey& logicalKey, const EmHwKey& hwKey) {
  std::vector<EmHwKey>& keys = keys_[logicalKey];
  std::erase(keys, hwKey);
  keys.push_back(hwKey);
}

void EmSwTableStatusSm::OtherHwKeys::del(const EmLogicalKey& logicalKey, const EmHwKey& hwKey) {
  if (keys_.empty()) return;
  const auto at = keys_.find(logicalKey);
  if (at == keys_.end()) return;
  std::erase(at->second, hwKey);
  if (at->second.empty()) keys_.erase(at);
}

const EmHwKey* EmSwTableStatusSm::OtherHwKeys::last(const EmLogicalKey& logicalKey) const {
  if (keys_.empty()) return nullptr;
  const auto at = keys_.find(logicalKey);
  return at == keys_.end() ? nullptr : &at->second.back();
}

Ref<EmSwTableStatusSm> emSwTableStatusSmFactory(Ref<const EmSwTableStatus> emSwTableStatus,
                                                Ref<EmLogicalKeyToStatus> emLogicalKeyToStatus,
                                                std::string name, Ref<DependencyStatus> dependencyStatus,
                                                StageControl control) {
  return makeStage<EmSwTableStatusSm>(std::move(emSwTableStatus), std::move(emLogicalKeyToStatus),
                                      std::move(name), std::move(dependencyStatus), std::move(control));
}

}  // namespace KilnEmServer
