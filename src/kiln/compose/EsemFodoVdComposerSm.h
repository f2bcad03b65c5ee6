// Composes the hardware keys of the type esemFodoVd.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kiln/compose/VdComposerSm.h"

namespace KilnEmServer {

struct EsemFodoVdComposerTraits {
  static constexpr std::string_view kClassName = "EsemFodoVdComposerSm";
  using ComposerKey = KilnTunnelNiLib::EsemFodoVdComposerKey;
  using EntryKey = KilnTunnelNiLib::EsemFodoVdEntryKey;
  static EntryKey entryKey(const ComposerKey& key, std::uint64_t vd) {
    const KilnTunnelNiLib::U18 fodoId(key.fodoId);
    return {fodoId, KilnTunnelNiLib::U11(vd)};
  }
};

/// The egress side of an interface: the forwarding object and the VLAN domain, which may be wider than at
/// ingress.
class EsemFodoVdComposerSm final : public VdComposerSm<EsemFodoVdComposerTraits> {
 public:
  using VdComposerSm::VdComposerSm;
};

/// Creates the composer and starts it; the resolvers of everything in `resolverConfigDir` must be ready.
Ref<EsemFodoVdComposerSm> esemFodoVdComposerSmFactory(
    Ref<const EmLogicalKeyConfig> emLogicalKeyConfig, Ref<SwTableKeyConfig> swTableKeyConfig,
    Ref<const ResolvedKeyStatus> resolvedKeyStatus, Ref<ResolverConfigDir> resolverConfigDir,
    Ref<const ResolverStatusDir> resolverStatusDir, std::string name, Ref<DependencyStatus> dependencyStatus,
    StageControl smControl, Ref<EmComposeFailure> emComposeFailure, KeyTraces traces = {});

}  // namespace KilnEmServer
