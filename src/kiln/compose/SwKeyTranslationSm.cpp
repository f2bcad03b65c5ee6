#include "kiln/compose/SwKeyTranslationSm.h"

#include <optional>
#include <stdexcept>
#include <utility>

#include "kiln/compose/EmUtils.h"

namespace KilnEmServer {

SwKeyTranslationSm::SwKeyTranslationSm(EmComposerKeyUnionTag composerType,
                                       Ref<const EmLogicalKeyConfig> emLogicalKeyConfig,
                                       Ref<SwTableKeyConfig> swTableKeyConfig, std::string name,
                                       Ref<DependencyStatus> dependencyStatus, StageControl smControl,
                                       Ref<EmComposeFailure> emComposeFailure)
    : Stage("SwKeyTranslationSm", std::move(name), std::move(dependencyStatus), std::move(smControl),
            "Line 36: from( this.ready )"),
      composerType_(composerType),
      emLogicalKeyConfig_(*this, std::move(emLogicalKeyConfig)),
      swTableKeyConfig_(*this, std::move(swTableKeyConfig)),
      emComposeFailure_(*this, std::move(emComposeFailure)) {}

void SwKeyTranslationSm::handleRequest(const EmLogicalKey& emKey, const KilnPlatform::Unit* unitOpt) {
  std::optional<EmHwKey> hwKey;
  std::string failure;
  try {
    hwKey = translateToSwTableKey(emKey);
  } catch (const std::range_error& error) {
    failure = error.what();
  }
  const bool requested = unitOpt != nullptr;
  swTableKeyConfig_.write(emKey, requested && hwKey ? &*hwKey : nullptr);
  emComposeFailure_.write(emKey, requested && !hwKey ? &failure : nullptr);
}

Ref<SwKeyTranslationSm> swKeyTranslationSmFactory(EmComposerKeyUnionTag composerType,
                                                  Ref<const EmLogicalKeyConfig> emLogicalKeyConfig,
                                                  Ref<SwTableKeyConfig> swTableKeyConfig, std::string name,
                                                  Ref<DependencyStatus> dependencyStatus,
                                                  StageControl smControl,
                                                  Ref<EmComposeFailure> emComposeFailure) {
  return makeStage<SwKeyTranslationSm>(
      composerType, std::move(emLogicalKeyConfig), std::move(swTableKeyConfig), std::move(name),
      std::move(dependencyStatus), std::move(smControl), std::move(emComposeFailure));
}

}  // namespace KilnEmServer
