// Composes the hardware keys of the type untagged.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kiln/compose/VdComposerSm.h"

namespace KilnEmServer {

struct UntaggedComposerTraits {
  static constexpr std::string_view kClassName = "UntaggedComposerSm";
  using ComposerKey = KilnTunnelNiLib::IsemUntaggedComposerKey;
  using EntryKey = KilnTunnelNiLib::IsemUntaggedEntryKey;
  static EntryKey entryKey(const ComposerKey& /*key*/, std::uint64_t vd) { return {KilnTunnelNiLib::U9(vd)}; }
};

/// The interface's untagged traffic: the VLAN domain alone.
class UntaggedComposerSm final : public VdComposerSm<UntaggedComposerTraits> {
 public:
  using VdComposerSm::VdComposerSm;
};

/// Creates the composer and starts it; the resolvers of everything in `resolverConfigDir` must be ready.
Ref<UntaggedComposerSm> untaggedComposerSmFactory(
    Ref<const EmLogicalKeyConfig> emLogicalKeyConfig, Ref<SwTableKeyConfig> swTableKeyConfig,
    Ref<const ResolvedKeyStatus> resolvedKeyStatus, Ref<ResolverConfigDir> resolverConfigDir,
    Ref<const ResolverStatusDir> resolverStatusDir, std::string name, Ref<DependencyStatus> dependencyStatus,
    StageControl smControl, Ref<EmComposeFailure> emComposeFailure, KeyTraces traces = {});

}  // namespace KilnEmServer
