#include "kiln/compose/Isem1TagComposerSm.h"

#include <utility>

namespace KilnEmServer {

bool Isem1TagComposerSm::isSupportedResolverType(ResolverKeyUnionTag resolverType) const {
  tracer().trace<8>("isSupportedResolverType {}", resolverType);
  return VdComposerSm::isSupportedResolverType(resolverType);
}

Ref<Isem1TagComposerSm> isem1TagComposerSmFactory(
    Ref<const EmLogicalKeyConfig> emLogicalKeyConfig, Ref<SwTableKeyConfig> swTableKeyConfig,
    Ref<const ResolvedKeyStatus> resolvedKeyStatus, Ref<ResolverConfigDir> resolverConfigDir,
    Ref<const ResolverStatusDir> resolverStatusDir, std::string name, Ref<DependencyStatus> dependencyStatus,
    StageControl smControl, Ref<EmComposeFailure> emComposeFailure, KeyTraces traces) {
  return makeStage<Isem1TagComposerSm>(
      std::move(emLogicalKeyConfig), std::move(swTableKeyConfig), std::move(resolvedKeyStatus),
      std::move(resolverConfigDir), std::move(resolverStatusDir), std::move(name),
      std::move(dependencyStatus), std::move(smControl), std::move(emComposeFailure), std::move(traces));
}

}  // namespace KilnEmServer
