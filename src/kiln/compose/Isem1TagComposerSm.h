// Composes the hardware keys of the type isem1Tag.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kiln/compose/VdComposerSm.h"

namespace KilnEmServer {

struct Isem1TagComposerTraits {
  static constexpr std::string_view kClassName = "Isem1TagComposerSm";
  using ComposerKey = KilnTunnelNiLib::Isem1TagComposerKey;
  using EntryKey = KilnTunnelNiLib::Isem1TagEntryKey;
  static EntryKey entryKey(const ComposerKey& key, std::uint64_t vd) {
    const KilnTunnelNiLib::U12 vlanId(key.vlanId);
    return {KilnTunnelNiLib::U9(vd), vlanId};
  }
};

/// The interface's traffic with one tag: the VLAN domain and the VLAN.
class Isem1TagComposerSm final : public VdComposerSm<Isem1TagComposerTraits> {
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

}  // namespace KilnEmServer
