#include "kiln/compose/ComposerOutputMergeSm.h"

#include <utility>

namespace KilnEmServer {

ComposerOutputMergeSm::ComposerOutputMergeSm(Ref<const SwTableKeyConfigByComposerType> composerToKeyConfig,
                                             Ref<ResolvedKeyColl> swTableKeyConfig, std::string name,
                                             Ref<DependencyStatus> dependencyStatus, StageControl smControl)
    : Stage("ComposerOutputMergeSm", std::move(name), std::move(dependencyStatus), std::move(smControl),
            "Line 25: from( this.ready )"),
      composerToKeyConfig_(*this, std::move(composerToKeyConfig)),
      groupByAttr0_(*this, "groupByAttr0"),
      swTableKeyConfig_(*this, std::move(swTableKeyConfig)) {}

void ComposerOutputMergeSm::handleConfig0(const EmComposerKeyUnionTag& composerType,
                                          const EmLogicalKey& logicalKey, const EmHwKey* swTableKeyOpt) {
  const auto* composerTypeColl = groupByAttr0_.update(logicalKey, composerType, swTableKeyOpt);
  swTableKeyConfig_.write(logicalKey, composerTypeColl == nullptr ? nullptr : &composerTypeColl->value(0));
}

Ref<ComposerOutputMergeSm> composerOutputMergeSmFactory(
    Ref<const SwTableKeyConfigByComposerType> composerToKeyConfig, Ref<ResolvedKeyColl> swTableKeyConfig,
    std::string name, Ref<DependencyStatus> dependencyStatus, StageControl smControl) {
  return makeStage<ComposerOutputMergeSm>(std::move(composerToKeyConfig), std::move(swTableKeyConfig),
                                          std::move(name), std::move(dependencyStatus), std::move(smControl));
}

}  // namespace KilnEmServer
