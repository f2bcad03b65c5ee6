// Passes the hardware outcomes back to the composers that wait for them.
#pragma once

#include <string>

#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// Divides the statuses of logical keys by composer type and keeps those of the types that need resolution. A
/// status without a hardware key is no outcome.
class ResolvedKeyStatusSm final : public Stage {
 public:
  /// The member of `swTableKeyStatus` for each composer type that needs resolution is an output.
  ResolvedKeyStatusSm(Ref<const EmLogicalKeyToStatus> emStatusMerged,
                      const Ref<SwTableKeyStatusByComposerType>& swTableKeyStatus, std::string name,
                      Ref<DependencyStatus> dependencyStatus, StageControl smControl);

 private:
  [[nodiscard]] KilnPlatform::PartitionSet<EmLogicalKey> resolvedKeys() const {
    return partitionsOfTypes([](EmComposerKeyUnionTag type) {
      return kKeyTypeInfo[type].resolver != ResolverKeyUnionTag::undefined_;
    });
  }
  static constexpr FixedString kFilter = "filter( resolutionNeeded( composerType ) )";
  void handleStatus(const EmLogicalKey& emKey, const EmRequestStatus* statusOpt);

  /// The output of a key type; nothing for one that needs no resolution.
  template <class Row, ResolverKeyUnionTag resolver = Row::kResolver>
  struct StatusOutput {
    StatusOutput(ResolvedKeyStatusSm& stage, const Ref<SwTableKeyStatusByComposerType>& holder)
        : status(stage, holder == nullptr ? nullptr : holder->statusIs(Row::kComposerType)) {}
    Output<ResolvedKeyStatus::resolvedKeyStatusAttr, Row::kStem + "KeyStatus", "emKey"> status;
  };
  template <class Row>
  struct StatusOutput<Row, ResolverKeyUnionTag::undefined_> {
    StatusOutput(ResolvedKeyStatusSm& /*stage*/, const Ref<SwTableKeyStatusByComposerType>& /*holder*/) {}
  };
  template <class... Rows>
  struct StatusOutputs : StatusOutput<Rows>... {
    StatusOutputs(ResolvedKeyStatusSm& stage, const Ref<SwTableKeyStatusByComposerType>& holder)
        : StatusOutput<Rows>(stage, holder)... {}
  };

  Input<EmLogicalKeyToStatus::statusAttr, "emStatusMerged", &ResolvedKeyStatusSm::handleStatus,
        "Line 19: from( emStatusMerged.status[] ): emKey={} statusOpt={}", Reaction::queued,
        &ResolvedKeyStatusSm::resolvedKeys, nullptr, kFilter>
      emStatusMerged_;
  OverKeyTypes<StatusOutputs> outputs_;
};

Ref<ResolvedKeyStatusSm> resolvedKeyStatusSmFactory(
    Ref<const EmLogicalKeyToStatus> emStatusMerged,
    const Ref<SwTableKeyStatusByComposerType>& swTableKeyStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, StageControl smControl);

}  // namespace KilnEmServer
