// Joins the hardware keys of all composer types into one collection.
#pragma once

#include <string>

#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/LocalState.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// It is a broken invariant if two composer types hold a hardware key for one logical key.
class ComposerOutputMergeSm final : public Stage {
 public:
  ComposerOutputMergeSm(Ref<const SwTableKeyConfigByComposerType> composerToKeyConfig,
                        Ref<ResolvedKeyColl> swTableKeyConfig, std::string name,
                        Ref<DependencyStatus> dependencyStatus, StageControl smControl);

 private:
  void handleConfig0(const EmComposerKeyUnionTag& composerType, const EmLogicalKey& logicalKey,
                     const EmHwKey* swTableKeyOpt);

  NestedInput<SwTableKeyConfigByComposerType::configAttr, SwTableKeyConfig::emLogicalKeyToResolvedKeyAttr,
              "composerToKeyConfig", &ComposerOutputMergeSm::handleConfig0,
              "Line 17: from( composerToKeyConfig.config[].emLogicalKeyToResolvedKey[] ): composerType={} "
              "logicalKey={} swTableKeyOpt={}">
      composerToKeyConfig_;
  GroupBy<EmLogicalKey, EmComposerKeyUnionTag, EmHwKey, 1, "composerTypeColl"> groupByAttr0_;
  Output<ResolvedKeyColl::emLogicalKeyToResolvedKeyAttr, "swTableKeyConfig", "logicalKey"> swTableKeyConfig_;
};

Ref<ComposerOutputMergeSm> composerOutputMergeSmFactory(
    Ref<const SwTableKeyConfigByComposerType> composerToKeyConfig, Ref<ResolvedKeyColl> swTableKeyConfig,
    std::string name, Ref<DependencyStatus> dependencyStatus, StageControl smControl);

}  // namespace KilnEmServer
