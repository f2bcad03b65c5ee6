// The common part of the composers that put a VLAN domain into their hardware key.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "kiln/compose/ComposerSm.h"
#include "kiln/compose/KeyFields.h"

namespace KilnEmServer {

/// The composer of a row. `Name` is the name of the derived class, for traces.
template <class Row, KilnPlatform::FixedString Name>
class VdComposerSm : public ComposerSm {
  using ComposerKey = typename Row::ComposerKey;

 public:
  VdComposerSm(Ref<const EmLogicalKeyConfig> emLogicalKeyConfig, Ref<SwTableKeyConfig> swTableKeyConfig,
               Ref<const ResolvedKeyStatus> resolvedKeyStatus, Ref<ResolverConfigDir> resolverConfigDir,
               Ref<const ResolverStatusDir> resolverStatusDir, std::string name,
               Ref<DependencyStatus> dependencyStatus, StageControl smControl,
               Ref<EmComposeFailure> emComposeFailure, KeyTraces traces = {})
      : ComposerSm(Row::kComposerType, Row::kTag, std::move(emLogicalKeyConfig), std::move(swTableKeyConfig),
                   std::move(resolvedKeyStatus), std::move(resolverConfigDir), std::move(resolverStatusDir),
                   Name.view(), std::move(name), std::move(dependencyStatus), std::move(smControl),
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
    return {emLogicalKey.fapId, emLogicalKey.localCoreId, entryKeyOf<Row>(key, vd)};
  }
};

/// The class and the factory of a row's composer; each composer specializes it. Without a specialization the
/// server does not compile.
template <class Row>
struct ComposerOf;

}  // namespace KilnEmServer
