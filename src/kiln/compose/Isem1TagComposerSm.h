// Composes the hardware keys of the type isem1Tag.
#pragma once

#include <string>

#include "kiln/compose/VdComposerSm.h"

namespace KilnEmServer {

/// The interface's traffic with one tag: the VLAN domain and the VLAN.
class Isem1TagComposerSm final
    : public VdComposerSm<KeyType<EmResolvedKeyUnionTag::isem1TagEntryKey>, "Isem1TagComposerSm"> {
 public:
  using VdComposerSm::VdComposerSm;
  [[nodiscard]] bool isSupportedResolverType(ResolverKeyUnionTag resolverType) const override;
};

/// Creates the composer and starts it; the resolvers of everything in `resolverConfigDir` must be ready.
Ref<Isem1TagComposerSm> isem1TagComposerSmFactory(
    Ref<const EmLogicalKeyConfig> emLogicalKeyConfig, Ref<SwTableKeyConfig> swTableKeyConfig,
    Ref<const ResolvedKeyStatus> resolvedKeyStatus, Ref<ResolverConfigDir> resolverConfigDir,
    Ref<const ResolverStatusDir> resolverStatusDir, std::string name, Ref<DependencyStatus> dependencyStatus,
    StageControl smControl, Ref<EmComposeFailure> emComposeFailure, KeyTraces traces = {});

template <>
struct ComposerOf<KeyType<EmResolvedKeyUnionTag::isem1TagEntryKey>> {
  static constexpr auto kFactory = &isem1TagComposerSmFactory;
};

}  // namespace KilnEmServer
