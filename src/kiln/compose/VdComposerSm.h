// What the composers that put a VLAN domain into their hardware key have in common.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "kiln/compose/ComposerSm.h"

namespace KilnEmServer {

/// `Traits` gives
///   static constexpr std::string_view kClassName;
///   using ComposerKey = ...;  // the composer alternative; begins with intfId and systemTcamId
///   using EntryKey = ...;     // the hardware key's alternative
///   static EntryKey entryKey(const ComposerKey& key, std::uint64_t vd);
///                             // checks the fields' ranges in the order in which they are to be reported
template <class Traits>
class VdComposerSm : public ComposerSm {
  using ComposerKey = typename Traits::ComposerKey;

 public:
  VdComposerSm(Ref<const EmLogicalKeyConfig> emLogicalKeyConfig, Ref<SwTableKeyConfig> swTableKeyConfig,
               Ref<const ResolvedKeyStatus> resolvedKeyStatus, Ref<ResolverConfigDir> resolverConfigDir,
               Ref<const ResolverStatusDir> resolverStatusDir, std::string name,
               Ref<DependencyStatus> dependencyStatus, StageControl smControl,
               Ref<EmComposeFailure> emComposeFailure, KeyTraces traces = {})
      : ComposerSm(EmComposerKey::tagOf<ComposerKey>(), EmResolvedKey::tagOf<typename Traits::EntryKey>(),
                   std::move(emLogicalKeyConfig), std::move(swTableKeyConfig), std::move(resolvedKeyStatus),
                   std::move(resolverConfigDir), std::move(resolverStatusDir), Traits::kClassName,
                   std::move(name), std::move(dependencyStatus), std::move(smControl),
                   std::move(emComposeFailure), std::move(traces)) {}

  [[nodiscard]] bool isSupportedResolverType(ResolverKeyUnionTag resolverType) const override {
    return resolverType == ResolverKeyUnionTag::vd;
  }

  /// The VLAN domain of the key's interface. Throws std::range_error for another composer alternative.
  [[nodiscard]] ResolverKey getResolverKey(ResolverKeyUnionTag resolverType,
                                           const EmLogicalKey& emLogicalKey) const override {
    const auto& key = emLogicalKey.emComposerKey.template get<ComposerKey>();
    KILN_ASSERT_MESSAGE(resolverType == ResolverKeyUnionTag::vd, "Unsupported resolverType {}", resolverType);
    return VdResolverKey{{key.intfId, key.systemTcamId}};
  }

  [[nodiscard]] EmHwKey composeKey(const EmLogicalKey& emLogicalKey) const override {
    const std::uint64_t vd = getResult(ResolverKeyUnionTag::vd, emLogicalKey);
    const auto& key = emLogicalKey.emComposerKey.template get<ComposerKey>();
    return {emLogicalKey.fapId, emLogicalKey.localCoreId, Traits::entryKey(key, vd)};
  }
};

}  // namespace KilnEmServer
