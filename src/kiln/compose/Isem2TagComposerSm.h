// Composes the hardware keys of the type isem2Tag.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kiln/compose/VdComposerSm.h"

namespace KilnEmServer {

struct Isem2TagComposerTraits {
  static constexpr std::string_view kClassName = "Isem2TagComposerSm";
  using ComposerKey = KilnTunnelNiLib::Isem2TagComposerKey;
  using EntryKey = KilnTunnelNiLib::Isem2TagEntryKey;
  static EntryKey entryKey(const ComposerKey& key, std::uint64_t vd) {
    const KilnTunnelNiLib::U12 outerVlanId(key.outerVlanId);
    const KilnTunnelNiLib::U12 innerVlanId(key.innerVlanId);
    return {KilnTunnelNiLib::U9(vd), outerVlanId, innerVlanId};
  }
};

/// The interface's traffic with two tags: the VLAN domain and both VLANs.
class Isem2TagComposerSm final : public VdComposerSm<Isem2TagComposerTraits> {
 public:
  using VdComposerSm::VdComposerSm;
};

/// Creates the composer and starts it; the resolvers of everything in `resolverConfigDir` must be ready.
Ref<Isem2TagComposerSm> isem2TagComposerSmFactory(
    Ref<const EmLogicalKeyConfig> emLogicalKeyConfig, Ref<SwTableKeyConfig> swTableKeyConfig,
    Ref<const ResolvedKeyStatus> resolvedKeyStatus, Ref<ResolverConfigDir> resolverConfigDir,
    Ref<const ResolverStatusDir> resolverStatusDir, std::string name, Ref<DependencyStatus> dependencyStatus,
    StageControl smControl, Ref<EmComposeFailure> emComposeFailure, KeyTraces traces = {});

}  // namespace KilnEmServer
