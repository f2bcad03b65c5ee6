// Composes the hardware keys of the type esemFodoVd.
#pragma once

#include <string>

#include "kiln/compose/VdComposerSm.h"

namespace KilnEmServer {

/// The egress side of an interface: the forwarding object and the VLAN domain, which may be wider than at
/// ingress.
class EsemFodoVdComposerSm final
    : public VdComposerSm<KeyType<EmResolvedKeyUnionTag::esemFodoVdEntryKey>, "EsemFodoVdComposerSm"> {
 public:
  using VdComposerSm::VdComposerSm;
};

/// Creates the composer and starts it; the resolvers of everything in `resolverConfigDir` must be ready.
Ref<EsemFodoVdComposerSm> esemFodoVdComposerSmFactory(
    Ref<const EmLogicalKeyConfig> emLogicalKeyConfig, Ref<SwTableKeyConfig> swTableKeyConfig,
    Ref<const ResolvedKeyStatus> resolvedKeyStatus, Ref<ResolverConfigDir> resolverConfigDir,
    Ref<const ResolverStatusDir> resolverStatusDir, std::string name, Ref<DependencyStatus> dependencyStatus,
    StageControl smControl, Ref<EmComposeFailure> emComposeFailure, KeyTraces traces = {});

template <>
struct ComposerOf<KeyType<EmResolvedKeyUnionTag::esemFodoVdEntryKey>> {
  static constexpr auto kFactory = &esemFodoVdComposerSmFactory;
};

}  // namespace KilnEmServer
