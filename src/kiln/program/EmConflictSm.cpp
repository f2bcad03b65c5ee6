#include "kiln/program/EmConflictSm.h"

#include <utility>

namespace KilnEmServer {

EmConflictSm::EmConflictSm(Ref<const EmMergedEntry> emMergedEntry, Ref<EmSwTableConfig> emSwTableConfig,
                           Ref<EmConflictStatus> emConflictStatus, std::string name,
                           Ref<DependencyStatus> dependencyStatus, StageControl control,
                           Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                           Ref<const EmComposeFailureByComposerType> emComposeFailure)
    : Stage("EmConflictSm", std::move(name), std::move(dependencyStatus), std::move(control),
            "Line 97: from( this.ready )"),
      emMergedEntry_(*this, std::move(emMergedEntry), "inputStream"),
      conflictKeySet_(*this),
      cacheAttr0_(*this, "cacheAttr0"),
      emSwTableConfig_(*this, std::move(emSwTableConfig)),
      emConflictStatus_(*this, std::move(emConflictStatus)),
      waiting_(*this) {
  if (emLogicalKeyToEntry != nullptr) {
    emLogicalKeyToEntry_.emplace(*this, std::move(emLogicalKeyToEntry), "requestStream");
  }
  if (emComposeFailure != nullptr)
    emComposeFailure_.emplace(*this, std::move(emComposeFailure), "failureStream");
}

EmConflictSm::~EmConflictSm() = default;

void EmConflictSm::handleInitialized() {
  pendingTask_ = std::make_unique<Task>(
      control().scheduler, control().priority - 1, "EmConflictSm-hwPendingTask",
      [](void* owner) { static_cast<EmConflictSm*>(owner)->insertPending(); }, this, kPendingPatience,
      name());
}

void EmConflictSm::handleDeleteAll() {
  pendingTask_.reset();
}

// --- The streams over one changed logical key --------------------------------------------------------------

void EmConflictSm::eventToInputStream(const EmLogicalKey& emLogicalKey, const EmHwEntry* hwEntryOpt) {
  eventToConflictStatusStream(emLogicalKey, hwEntryOpt);
  eventToProcessInputStream(emLogicalKey, hwEntryOpt);
}

void EmConflictSm::handleRequestedEntry(const EmLogicalKey& emLogicalKey, const EmConfigEntry* /*entryOpt*/) {
  decideUnplaced(emLogicalKey);
}

void EmConflictSm::handleComposeFailure(const EmComposerKeyUnionTag& /*composerType*/,
                                        const EmLogicalKey& emLogicalKey, const std::string* /*failureOpt*/) {
  decideUnplaced(emLogicalKey);
}

void EmConflictSm::eventToConflictStatusStream(const EmLogicalKey& emLogicalKey,
                                               const EmHwEntry* hwEntryOpt) {
  tracer().trace<7>("conflictStatusStream = inputStream => emLogicalKey={}", emLogicalKey);
  if (filter<"filter( ( !hwEntryOpt ) )">(hwEntryOpt == nullptr)) {
    decideUnplaced(emLogicalKey);
    return;
  }
  // A status other than a conflict was written while the key had no hardware entry.
  const EmRequestStatus* status = emConflictStatus_.find(emLogicalKey);
  if (status != nullptr && status->status != EmStatus::hwKeyConflict) emConflictStatus_.erase(emLogicalKey);
}

void EmConflictSm::eventToProcessInputStream(const EmLogicalKey& emLogicalKey, const EmHwEntry* hwEntryOpt) {
  tracer().trace<7>("processInputStream = inputStream => emLogicalKey={}", emLogicalKey);
  const EmHwKey* cached = cacheAttr0_.find(emLogicalKey);
  const std::optional<EmHwKey> oldKey = cached == nullptr ? std::nullopt : std::optional(*cached);
  const EmHwKey* newKey = nullptr;
  if (hwEntryOpt != nullptr) {
    newKey = &cacheAttr0_.is(emLogicalKey, hwEntryOpt->emHwKey);
  } else {
    cacheAttr0_.del(emLogicalKey);
  }
  tracer().trace<7>(
      "foreach( [ ( _newValueOpt7, true ), ( if ( _oldValueOpt6 != _newValueOpt7 ) then _oldValueOpt6 else "
      "None, "
      "false ) ] )");
  // Add it under the new hardware key before removing it from the old one.
  if (newKey != nullptr) processWorkItem({*newKey, true}, emLogicalKey, hwEntryOpt);
  if (oldKey && (newKey == nullptr || *oldKey != *newKey)) {
    processWorkItem({*oldKey, false}, emLogicalKey, hwEntryOpt);
  }
}

void EmConflictSm::processWorkItem(const WorkItem& item, const EmLogicalKey& emLogicalKey,
                                   const EmHwEntry* hwEntryOpt) {
  static constexpr FixedString kInto =
      "into( conflictKeySet.hwKeyToLogicalKeySet[ hwKey ].featureTypeToLogicalKeySet[ "
      "emLogicalKey.featureType ].logicalKeyToEntry[ emLogicalKey ] ): ";
  static constexpr auto kInserting = kInto + "inserting k1={}, k2={}, k3={}, value={}";
  static constexpr auto kDeleting = kInto + "deleting k1={}, k2={}, k3={}";
  const KeyUse<EmHwKey> use(item.hwKey);
  const EmHwKey& hwKey = use.key();
  // For EmKeyMergeSm, which will use this key when the entry changes.
  if (item.insert) hintOf(hwEntryOpt->emHwKey).handleIs(hintOf(item.hwKey).handle());
  const bool convergent = fapCoreConvergent(hwKey);
  if (item.insert) {
    tracer().trace<7>(TraceMessage<7, EmHwKey, FeatureType, EmLogicalKey, EmConfigEntry>(kInserting.data),
                      hwKey, emLogicalKey.featureType, emLogicalKey, hwEntryOpt->emEntry);
    conflictKeySet_.insert(hwKey, emLogicalKey, hwEntryOpt->emEntry);
  } else {
    tracer().trace<7>(TraceMessage<7, EmHwKey, FeatureType, EmLogicalKey>(kDeleting.data), hwKey,
                      emLogicalKey.featureType, emLogicalKey);
    conflictKeySet_.erase(hwKey, emLogicalKey);
  }
  decide(hwKey, item.insert ? &emLogicalKey : nullptr);
  if (!convergent) return;
  if (const auto* divergentKeys = conflictKeySet_.divergentKeysOf(hwKey)) {
    for (const EmHwKey& divergentKey : *divergentKeys) {
      tracer().trace<8>("{} follows its twin", divergentKey);
      decide(divergentKey, nullptr);
    }
  }
}

void EmConflictSm::decide(const EmHwKey& hwKey, const EmLogicalKey* changed) {
  const ConflictKeyToLogicalKeySet* contenders = conflictKeySet_.hwKeyToLogicalKeySet(hwKey);
  std::optional<EmLogicalKeyAndEntry> value;
  if (contenders != nullptr) {
    const ConflictKeyToLogicalKeySet* twin =
        fapCoreConvergent(hwKey) ? nullptr : conflictKeySet_.hwKeyToLogicalKeySet(convergentTwin(hwKey));
    value = getHighestPriorityKey(contenders->greatest(), twin == nullptr ? nullptr : twin->greatest());
  }
  std::optional<EmLogicalKey> previousWinner;
  if (const EmLogicalKeyAndEntry* previous = emSwTableConfig_.find(hwKey))
    previousWinner = previous->emLogicalKey;
  if (previousWinner && value && *previousWinner != value->emLogicalKey && !initialScanDone()) {
    tracer().trace<8>("{} decided anew in the scan", hwKey);
  }
  emSwTableConfig_.write(hwKey, value ? &*value : nullptr);
  (void)filter<"filter( _valueOpt8 )">(value.has_value());
  eventToConflictStatusStream2(hwKey, value, previousWinner ? &*previousWinner : nullptr, changed);
}

// --- Statuses of contenders --------------------------------------------------------------------------------

// A contender's status depends only on its own entry and on whether it is the winner. So apart from the
// winner, only the contender that changed and the previous winner can need another status.
void EmConflictSm::eventToConflictStatusStream2(
    const EmHwKey& hwKey, const std::optional<EmLogicalKeyAndEntry>& logicalKeyAndEntryOpt,
    const EmLogicalKey* previousWinner, const EmLogicalKey* changed) {
  tracer().trace<7>(
      "conflictStatusStream2 = processInputStream => hwKey={} logicalKeyAndEntryOpt={}", hwKey,
      OptionalText<EmLogicalKeyAndEntry>{logicalKeyAndEntryOpt ? &*logicalKeyAndEntryOpt : nullptr});
  if (!filter<"filter( logicalKeyAndEntryOpt )">(logicalKeyAndEntryOpt.has_value())) return;
  if (tracer().enabled(7)) traceContenders(hwKey);
  const EmLogicalKey& winner = logicalKeyAndEntryOpt->emLogicalKey;
  writeContenderStatus(hwKey, winner, winner);
  if (changed != nullptr && *changed != winner) writeContenderStatus(hwKey, winner, *changed);
  if (previousWinner != nullptr && *previousWinner != winner) {
    writeContenderStatus(hwKey, winner, *previousWinner);
  }
}

void EmConflictSm::writeContenderStatus(const EmHwKey& hwKey, const EmLogicalKey& winner,
                                        const EmLogicalKey& contender) {
  const FeatureTypeLogicalKeySet* ofFeature =
      conflictKeySet_.hwKeyToLogicalKeySet(hwKey)->featureTypeToLogicalKeySet(contender.featureType);
  const EmConfigEntry* entry = ofFeature == nullptr ? nullptr : ofFeature->logicalKeyToEntry(contender);
  if (entry == nullptr) return;  // it has another hardware key, or none
  if (contender == winner) {
    emConflictStatus_.erase<"logicalKey">(contender);
  } else {
    emConflictStatus_.insert<"logicalKey">(contender, {contender, *entry, hwKey, EmStatus::hwKeyConflict});
  }
}

void EmConflictSm::traceContenders(const EmHwKey& hwKey) const {
  const auto& sets = conflictKeySet_.hwKeyToLogicalKeySet(hwKey)->featureTypeToLogicalKeySet();
  tracer().trace<7>("foreach( ( *featureSetOpt ).featureTypeToLogicalKeySet ) flattening {} elements",
                    sets.size());
  for (const FeatureTypeLogicalKeySet& set : sets) {
    tracer().trace<7>("Flattening element: {}", set.featureType());
    tracer().trace<7>("foreach( featureTypeToLogicalKeySet.logicalKeyToEntry ) flattening {} elements",
                      set.size());
    set.forEachKey([&](const EmLogicalKey& key) { tracer().trace<7>("Flattening element: {}", key); });
  }
}

// --- Statuses of keys without a hardware entry -------------------------------------------------------------

void EmConflictSm::decideUnplaced(const EmLogicalKey& emLogicalKey) {
  if (!unplaced(emLogicalKey)) return;  // decided together with its hardware key
  if (!emLogicalKeyToEntry_) {
    emConflictStatus_.insert(emLogicalKey, {emLogicalKey, {}, {}, EmStatus{}});
    return;
  }
  const EmConfigEntry* entry = emLogicalKeyToEntry_->find(emLogicalKey);
  if (entry == nullptr) {
    emConflictStatus_.erase(emLogicalKey);
  } else if (failureOf(emLogicalKey) != nullptr) {
    writeUnplaced(emLogicalKey, *entry, EmStatus::hwFail);
  } else {
    emConflictStatus_.seenIs(emLogicalKey);
    waiting_.keys.add(emLogicalKey, 0);
    pendingTask_->scheduleTask();
  }
}

void EmConflictSm::writeUnplaced(const EmLogicalKey& emLogicalKey, const EmConfigEntry& entry,
                                 EmStatus status) {
  emConflictStatus_.insert(emLogicalKey, {emLogicalKey, entry, {}, status});
}

const std::string* EmConflictSm::failureOf(const EmLogicalKey& emLogicalKey) const {
  if (!emComposeFailure_) return nullptr;
  return emComposeFailure_->find(emComposerTypeFromUnion(emLogicalKey.emComposerKey), emLogicalKey);
}

void EmConflictSm::insertPending() {
  const KilnPlatform::RunningStageScope scope(name());
  control().runSlice(
      *pendingTask_, [&] { return !waiting_.keys.empty(); },
      [&] {
        const EmLogicalKey key = waiting_.keys.pop();
        const EmConfigEntry* entry = emLogicalKeyToEntry_->find(key);
        if (entry != nullptr && emMergedEntry_.find(key) == nullptr && failureOf(key) == nullptr) {
          writeUnplaced(key, *entry, EmStatus::hwPending);
        }
      },
      [&] { return waiting_.keys.size(); });
}

Ref<EmConflictSm> emConflictSmFactory(Ref<const EmMergedEntry> emMergedEntry,
                                      Ref<EmSwTableConfig> emSwTableConfig,
                                      Ref<EmConflictStatus> emConflictStatus, std::string name,
                                      Ref<DependencyStatus> dependencyStatus, StageControl control,
                                      Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                                      Ref<const EmComposeFailureByComposerType> emComposeFailure) {
  return makeStage<EmConflictSm>(std::move(emMergedEntry), std::move(emSwTableConfig),
                                 std::move(emConflictStatus), std::move(name), std::move(dependencyStatus),
                                 std::move(control), std::move(emLogicalKeyToEntry),
                                 std::move(emComposeFailure));
}

}  // namespace KilnEmServer
