// Joins, per logical key, the composed hardware key with the requested entry.
#pragma once

#include <string>

#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// Only a logical key that has both is merged.
class EmKeyMergeSm final : public Stage {
 public:
  EmKeyMergeSm(Ref<const ResolvedKeyColl> resolvedKeyColl, Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
               Ref<EmMergedEntry> emMergedEntry, std::string name, Ref<DependencyStatus> dependencyStatus,
               StageControl control);

 protected:
  void handleInitialized() override;

 private:
  /// Whether the key has, or had, a hardware key; without one there is nothing to join the entry with.
  [[nodiscard]] bool placed(const EmLogicalKey& emKey) const {
    return resolvedKeyColl_.find(emKey) != nullptr || emMergedEntry_.find(emKey) != nullptr;
  }
  void eventToVok_stream0(const EmLogicalKey& emKey, const EmHwKey* hwKeyOpt);
  void eventToVok_stream1(const EmLogicalKey& emKey, const EmConfigEntry* entryOpt);
  void eventToVok_pipeline0(const EmLogicalKey& emKey);
  void prefetchHwKey(const EmLogicalKey& emKey, const EmHwKey& hwKey) const;

  Input<ResolvedKeyColl::emLogicalKeyToResolvedKeyAttr, "resolvedKeyColl", &EmKeyMergeSm::eventToVok_stream0,
        "Line 26: from( resolvedKeyColl.emLogicalKeyToResolvedKey[] ): emKey={}">
      resolvedKeyColl_;
  Input<EmLogicalKeyToEntry::emLogicalKeyToEntryAttr, "emLogicalKeyToEntry",
        &EmKeyMergeSm::eventToVok_stream1,
        "Line 26: from( emLogicalKeyToEntry.emLogicalKeyToEntry[] ): emKey={}", Reaction::queued, nullptr,
        &EmKeyMergeSm::placed>
      emLogicalKeyToEntry_;
  Output<EmMergedEntry::emMergedEntryAttr, "emMergedEntry", "emKey"> emMergedEntry_;
};

Ref<EmKeyMergeSm> emKeyMergeSmFactory(Ref<const ResolvedKeyColl> resolvedKeyColl,
                                      Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                                      Ref<EmMergedEntry> emMergedEntry, std::string name,
                                      Ref<DependencyStatus> dependencyStatus, StageControl control);

}  // namespace KilnEmServer
