#include "kiln/compose/ComposerSelectorSm.h"

#include <utility>

namespace KilnEmServer {

ComposerSelectorSm::ComposerSelectorSm(EmComposerKeyUnionTag composerType,
                                       Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                                       Ref<EmLogicalKeyConfig> emLogicalKeyConfig, std::string name,
                                       Ref<DependencyStatus> dependencyStatus, StageControl smControl)
    : Stage("ComposerSelectorSm", std::move(name), std::move(dependencyStatus), std::move(smControl),
            "Line 33: from( this.ready )"),
      composerType_(composerType),
      emLogicalKeyToEntry_(*this, std::move(emLogicalKeyToEntry)),
      emLogicalKeyConfig_(*this, std::move(emLogicalKeyConfig)) {}

void ComposerSelectorSm::handleEntry(const EmLogicalKey& emKey, const EmConfigEntry* entryOpt) {
  KILN_ASSERT(emComposerTypeFromUnion(emKey.emComposerKey) == composerType_);
  if (entryOpt != nullptr) {
    emLogicalKeyConfig_.insert(emKey, {});
  } else {
    emLogicalKeyConfig_.erase(emKey);
  }
}

Ref<ComposerSelectorSm> composerSelectorSmFactory(EmComposerKeyUnionTag composerType,
                                                  Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                                                  Ref<EmLogicalKeyConfig> emLogicalKeyConfig,
                                                  std::string name, Ref<DependencyStatus> dependencyStatus,
                                                  StageControl smControl) {
  return makeStage<ComposerSelectorSm>(composerType, std::move(emLogicalKeyToEntry),
                                       std::move(emLogicalKeyConfig), std::move(name),
                                       std::move(dependencyStatus), std::move(smControl));
}

}  // namespace KilnEmServer
