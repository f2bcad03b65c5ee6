// Composes the hardware keys of the type untagged.
#pragma once

#include <string>

#include "kiln/compose/VdComposerSm.h"

namespace KilnEmServer {

/// The interface's untagged traffic: the VLAN domain alone.
class UntaggedComposerSm final
    : public VdComposerSm<KeyType<EmResolvedKeyUnionTag::isemUntaggedEntryKey>, "UntaggedComposerSm"> {
 public:
  using VdComposerSm::VdComposerSm;
};

/// Creates the composer and starts it; the resolvers of everything in `resolverConfigDir` must be ready.
Ref<UntaggedComposerSm> untaggedComposerSmFactory(
    Ref<const EmLogicalKeyConfig> emLogicalKeyConfig, Ref<SwTableKeyConfig> swTableKeyConfig,
    Ref<const ResolvedKeyStatus> resolvedKeyStatus, Ref<ResolverConfigDir> resolverConfigDir,
    Ref<const ResolverStatusDir> resolverStatusDir, std::string name, Ref<DependencyStatus> dependencyStatus,
    StageControl smControl, Ref<EmComposeFailure> emComposeFailure, KeyTraces traces = {});

template <>
struct ComposerOf<KeyType<EmResolvedKeyUnionTag::isemUntaggedEntryKey>> {
  static constexpr auto kFactory = &untaggedComposerSmFactory;
};

}  // namespace KilnEmServer
