#include "kiln/program/EmSwTableStatusSm.h"

#include <algorithm>
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
  // Remove before inserting: a key that keeps its hardware key must end with its status present.
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
  const std::optional<EmHwKey> other = latestOther(logicalKey);
  if (!other) return emLogicalKeyToStatus_.erase(logicalKey);
  tracer().trace<8>("{} keeps the status of {}", logicalKey, *other);
  otherHwKeys_.del(logicalKey, *other);
  publish(logicalKey, *other, *emSwTableStatus_.find(*other));
}

const EmSwTableStatusEntry* EmSwTableStatusSm::statusAbout(const EmLogicalKey& logicalKey,
                                                           const EmHwKey& swTableKey) const {
  const EmSwTableStatusEntry* status = emSwTableStatus_.find(swTableKey);
  const bool about = status != nullptr && status->emLogicalKeyAndEntry.emLogicalKey == logicalKey;
  return about ? status : nullptr;
}

// A hardware key without a status about the logical key has a pending event of its own.
std::optional<EmHwKey> EmSwTableStatusSm::latestOther(const EmLogicalKey& logicalKey) const {
  const auto* others = otherHwKeys_.find(logicalKey);
  if (others == nullptr) return std::nullopt;
  std::optional<EmHwKey> latest;
  std::uint64_t answer = 0;
  for (const EmHwKey& other : *others) {
    const EmSwTableStatusEntry* status = statusAbout(logicalKey, other);
    if (status == nullptr || (latest && status->answer < answer)) continue;
    latest = other;
    answer = status->answer;
  }
  return latest;
}

void EmSwTableStatusSm::insert(const EmLogicalKey& owner, const EmHwKey& swTableKey,
                               const EmSwTableStatusEntry& status) {
  const KeyUse<EmLogicalKey> use(owner);
  const EmLogicalKey& logicalKey = use.key();
  const EmRequestStatus* published = emLogicalKeyToStatus_.find(logicalKey);
  if (published != nullptr && published->emSwTableKeyFapCore != swTableKey) {
    const EmHwKey previous = published->emSwTableKeyFapCore;
    const EmSwTableStatusEntry* before = statusAbout(logicalKey, previous);
    if (before != nullptr && status.answer < before->answer) {
      otherHwKeys_.add(logicalKey, swTableKey);
      return;
    }
    const EmLogicalKey* filed = cacheAttr0_.find(previous);
    if (filed != nullptr && *filed == logicalKey) otherHwKeys_.add(logicalKey, previous);
  }
  otherHwKeys_.del(logicalKey, swTableKey);
  publish(logicalKey, swTableKey, status);
}

void EmSwTableStatusSm::publish(const EmLogicalKey& logicalKey, const EmHwKey& swTableKey,
                                const EmSwTableStatusEntry& status) {
  emLogicalKeyToStatus_.insert(
      logicalKey, {status.emLogicalKeyAndEntry.emLogicalKey, status.emLogicalKeyAndEntry.emEntry, swTableKey,
                   static_cast<EmStatus>(status.status)});
}

void EmSwTableStatusSm::OtherHwKeys::remove(HwKeys& keys, const EmHwKey& hwKey) {
  keys.erase(std::remove(keys.begin(), keys.end(), hwKey), keys.end());
}

void EmSwTableStatusSm::OtherHwKeys::add(const EmLogicalKey& logicalKey, const EmHwKey& hwKey) {
  HwKeys& keys = keys_.obtain(logicalKey);
  remove(keys, hwKey);
  keys.push_back(hwKey);
}

void EmSwTableStatusSm::OtherHwKeys::del(const EmLogicalKey& logicalKey, const EmHwKey& hwKey) {
  HwKeys* keys = keys_.size() == 0 ? nullptr : keys_.find(logicalKey);
  if (keys == nullptr) return;
  remove(*keys, hwKey);
  if (keys->empty()) keys_.del(logicalKey);
}

Ref<EmSwTableStatusSm> emSwTableStatusSmFactory(Ref<const EmSwTableStatus> emSwTableStatus,
                                                Ref<EmLogicalKeyToStatus> emLogicalKeyToStatus,
                                                std::string name, Ref<DependencyStatus> dependencyStatus,
                                                StageControl control) {
  return makeStage<EmSwTableStatusSm>(std::move(emSwTableStatus), std::move(emLogicalKeyToStatus),
                                      std::move(name), std::move(dependencyStatus), std::move(control));
}

}  // namespace KilnEmServer
