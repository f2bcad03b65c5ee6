// Turns one composer type's requested keys into hardware keys, without any resolver.
#pragma once

#include <string>

#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// One per composer type that needs no resolution. A key that cannot be translated has no hardware key, and a
/// compose failure with the reason until it is withdrawn.
class SwKeyTranslationSm final : public Stage {
 public:
  SwKeyTranslationSm(EmComposerKeyUnionTag composerType, Ref<const EmLogicalKeyConfig> emLogicalKeyConfig,
                     Ref<SwTableKeyConfig> swTableKeyConfig, std::string name,
                     Ref<DependencyStatus> dependencyStatus, StageControl smControl,
                     Ref<EmComposeFailure> emComposeFailure);

  [[nodiscard]] EmComposerKeyUnionTag composerType() const { return composerType_; }

 private:
  void handleRequest(const EmLogicalKey& emKey, const KilnPlatform::Unit* unitOpt);

  EmComposerKeyUnionTag composerType_;
  Input<EmLogicalKeyConfig::requestAttr, "emLogicalKeyConfig", &SwKeyTranslationSm::handleRequest,
        "Line 30: from( emLogicalKeyConfig.request[] ): emKey={} unitOpt={}">
      emLogicalKeyConfig_;
  Output<SwTableKeyConfig::emLogicalKeyToResolvedKeyAttr, "swTableKeyConfig", "emKey"> swTableKeyConfig_;
  Output<EmComposeFailure::failureAttr, "emComposeFailure", "emKey"> emComposeFailure_;
};

Ref<SwKeyTranslationSm> swKeyTranslationSmFactory(EmComposerKeyUnionTag composerType,
                                                  Ref<const EmLogicalKeyConfig> emLogicalKeyConfig,
                                                  Ref<SwTableKeyConfig> swTableKeyConfig, std::string name,
                                                  Ref<DependencyStatus> dependencyStatus,
                                                  StageControl smControl,
                                                  Ref<EmComposeFailure> emComposeFailure);

}  // namespace KilnEmServer
