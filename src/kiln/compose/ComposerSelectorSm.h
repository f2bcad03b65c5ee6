// Copies the requested logical keys of one composer type into that type's request set.
#pragma once

#include <string>

#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// One per composer type. An entry's content is not used, only whether the key is requested.
class ComposerSelectorSm final : public Stage {
 public:
  ComposerSelectorSm(EmComposerKeyUnionTag composerType, Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                     Ref<EmLogicalKeyConfig> emLogicalKeyConfig, std::string name,
                     Ref<DependencyStatus> dependencyStatus, StageControl smControl);

 private:
  [[nodiscard]] KilnPlatform::PartitionSet<EmLogicalKey> ownKeys() const {
    return partitionsOfTypes([this](EmComposerKeyUnionTag type) { return type == composerType_; });
  }
  /// Whether the request set may have to change; false for an entry whose content alone changed.
  [[nodiscard]] bool mayChange(const EmLogicalKey& emKey) const {
    return !ready() ||
           (emLogicalKeyToEntry_.find(emKey) == nullptr) != (emLogicalKeyConfig_.find(emKey) == nullptr);
  }
  static constexpr FixedString kFilter = "filter( ( composerTypeEnum == composerType ) )";
  void handleEntry(const EmLogicalKey& emKey, const EmConfigEntry* entryOpt);

  EmComposerKeyUnionTag composerType_;
  Input<EmLogicalKeyToEntry::emLogicalKeyToEntryAttr, "emLogicalKeyToEntry", &ComposerSelectorSm::handleEntry,
        "Line 27: from( emLogicalKeyToEntry.emLogicalKeyToEntry[] ): emKey={} entryOpt={}", Reaction::queued,
        &ComposerSelectorSm::ownKeys, &ComposerSelectorSm::mayChange, kFilter>
      emLogicalKeyToEntry_;
  /// emLogicalKeyConfigRequestOutput. Each write also records its key as seen, as
  /// `emLogicalKeyConfigRequestOutputSeenIs` would.
  Output<EmLogicalKeyConfig::requestAttr, "emLogicalKeyConfig", "emKey"> emLogicalKeyConfig_;
};

Ref<ComposerSelectorSm> composerSelectorSmFactory(EmComposerKeyUnionTag composerType,
                                                  Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                                                  Ref<EmLogicalKeyConfig> emLogicalKeyConfig,
                                                  std::string name, Ref<DependencyStatus> dependencyStatus,
                                                  StageControl smControl);

}  // namespace KilnEmServer
