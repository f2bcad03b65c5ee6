// Composes the hardware keys of the type isem2Tag.
#pragma once

#include <string>

#include "kiln/compose/VdComposerSm.h"

namespace KilnEmServer {

/// The interface's traffic with two tags: the VLAN domain and both VLANs.
class Isem2TagComposerSm final
    : public VdComposerSm<KeyType<EmResolvedKeyUnionTag::isem2TagEntryKey>, "Isem2TagComposerSm"> {
 public:
  using VdComposerSm::VdComposerSm;
};

/// Creates the composer and starts it; the resolvers of everything in `resolverConfigDir` must be ready.
Ref<Isem2TagComposerSm> isem2TagComposerSmFactory(
    Ref<const EmLogicalKeyConfig> emLogicalKeyConfig, Ref<SwTableKeyConfig> swTableKeyConfig,
    Ref<const ResolvedKeyStatus> resolvedKeyStatus, Ref<ResolverConfigDir> resolverConfigDir,
    Ref<const ResolverStatusDir> resolverStatusDir, std::string name, Ref<DependencyStatus> dependencyStatus,
    StageControl smControl, Ref<EmComposeFailure> emComposeFailure, KeyTraces traces = {});

template <>
struct ComposerOf<KeyType<EmResolvedKeyUnionTag::isem2TagEntryKey>> {
  static constexpr auto kFactory = &isem2TagComposerSmFactory;
};

}  // namespace KilnEmServer
