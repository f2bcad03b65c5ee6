#include "kiln/program/EmKeyMergeSm.h"

#include <utility>

namespace KilnEmServer {

EmKeyMergeSm::EmKeyMergeSm(Ref<const ResolvedKeyColl> resolvedKeyColl,
                           Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                           Ref<EmMergedEntry> emMergedEntry, std::string name,
                           Ref<DependencyStatus> dependencyStatus, StageControl control)
    : Stage("EmKeyMergeSm", std::move(name), std::move(dependencyStatus), std::move(control),
            "Line 34: from( this.ready )"),
      resolvedKeyColl_(*this, std::move(resolvedKeyColl), "vok_stream0"),
      emLogicalKeyToEntry_(*this, std::move(emLogicalKeyToEntry), "vok_stream1"),
      emMergedEntry_(*this, std::move(emMergedEntry)) {}

void EmKeyMergeSm::handleInitialized() {
  emLogicalKeyToEntry_.readSynchronously(resolvedKeyColl_.collection());
}

void EmKeyMergeSm::eventToVok_stream0(const EmLogicalKey& emKey, const EmHwKey* /*hwKeyOpt*/) {
  eventToVok_pipeline0(emKey);
}

void EmKeyMergeSm::eventToVok_stream1(const EmLogicalKey& emKey, const EmConfigEntry* /*entryOpt*/) {
  eventToVok_pipeline0(emKey);
}

void EmKeyMergeSm::eventToVok_pipeline0(const EmLogicalKey& emKey) {
  tracer().trace<7>("Line 26: merge( vok_stream0, vok_stream1 ): emKey={}", emKey);
  const EmHwKey* hwKey = resolvedKeyColl_.find(emKey);
  const EmConfigEntry* entry = emLogicalKeyToEntry_.find(emKey);
  if (hwKey != nullptr && entry != nullptr) {
    prefetchHwKey(emKey, *hwKey);
    emMergedEntry_.insert(emKey, {*entry, *hwKey});
  } else {
    emMergedEntry_.erase(emKey);
  }
}

// The merged copy of the key remembers its place, unlike the composed one.
void EmKeyMergeSm::prefetchHwKey(const EmLogicalKey& emKey, const EmHwKey& hwKey) const {
  if (!isSingleEvent()) return;
  const EmHwEntry* before = emMergedEntry_.find(emKey);
  prefetchDownstream(before != nullptr && before->emHwKey == hwKey ? before->emHwKey : hwKey);
}

Ref<EmKeyMergeSm> emKeyMergeSmFactory(Ref<const ResolvedKeyColl> resolvedKeyColl,
                                      Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                                      Ref<EmMergedEntry> emMergedEntry, std::string name,
                                      Ref<DependencyStatus> dependencyStatus, StageControl control) {
  return makeStage<EmKeyMergeSm>(std::move(resolvedKeyColl), std::move(emLogicalKeyToEntry),
                                 std::move(emMergedEntry), std::move(name), std::move(dependencyStatus),
                                 std::move(control));
}

}  // namespace KilnEmServer
