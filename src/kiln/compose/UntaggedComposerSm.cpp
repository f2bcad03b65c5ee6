#include "kiln/compose/UntaggedComposerSm.h"

#include <utility>

namespace KilnEmServer {

Ref<UntaggedComposerSm> untaggedComposerSmFactory(
    Ref<const EmLogicalKeyConfig> emLogicalKeyConfig, Ref<SwTableKeyConfig> swTableKeyConfig,
    Ref<const ResolvedKeyStatus> resolvedKeyStatus, Ref<ResolverConfigDir> resolverConfigDir,
    Ref<const ResolverStatusDir> resolverStatusDir, std::string name, Ref<DependencyStatus> dependencyStatus,
    StageControl smControl, Ref<EmComposeFailure> emComposeFailure, KeyTraces traces) {
  return makeStage<UntaggedComposerSm>(
      std::move(emLogicalKeyConfig), std::move(swTableKeyConfig), std::move(resolvedKeyStatus),
      std::move(resolverConfigDir), std::move(resolverStatusDir), std::move(name),
      std::move(dependencyStatus), std::move(smControl), std::move(emComposeFailure), std::move(traces));
}

}  // namespace KilnEmServer
