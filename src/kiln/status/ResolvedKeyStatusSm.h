// Hands the hardware outcomes back to the composers that wait for them.
#pragma once

#include <string>

#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// Sorts the statuses of logical keys by composer type and keeps those of the types that need resolution. A
/// status that names no hardware key is no outcome.
class ResolvedKeyStatusSm final : public Stage {
 public:
  ResolvedKeyStatusSm(Ref<const EmLogicalKeyToStatus> emStatusMerged, Ref<ResolvedKeyStatus> isemUntagged,
                      Ref<ResolvedKeyStatus> isem1Tag, Ref<ResolvedKeyStatus> isem2Tag,
                      Ref<ResolvedKeyStatus> esemFodoVd, std::string name,
                      Ref<DependencyStatus> dependencyStatus, StageControl smControl);

 private:
  [[nodiscard]] bool isResolved(const EmLogicalKey& emKey) const {
    return resolutionNeeded(emComposerTypeFromUnion(emKey.emComposerKey));
  }
  static constexpr FixedString kFilter = "filter( resolutionNeeded( composerType ) )";
  void handleStatus(const EmLogicalKey& emKey, const EmRequestStatus* statusOpt);
  template <class AnyOutput>
  void write(AnyOutput& output, const EmLogicalKey& emKey, const EmRequestStatus* statusOpt);

  template <FixedString Argument>
  using StatusOutput = Output<ResolvedKeyStatus::resolvedKeyStatusAttr, Argument, "emKey">;

  Input<EmLogicalKeyToStatus::statusAttr, "emStatusMerged", &ResolvedKeyStatusSm::handleStatus,
        "Line 19: from( emStatusMerged.status[] ): emKey={} statusOpt={}", Reaction::queued,
        &ResolvedKeyStatusSm::isResolved, &ResolvedKeyStatusSm::isResolved, kFilter>
      emStatusMerged_;
  StatusOutput<"isemUntaggedKeyStatus"> isemUntagged_;
  StatusOutput<"isem1TagKeyStatus"> isem1Tag_;
  StatusOutput<"isem2TagKeyStatus"> isem2Tag_;
  StatusOutput<"esemFodoVdKeyStatus"> esemFodoVd_;
};

/// Each of the four outputs is that of the composer type of its name.
Ref<ResolvedKeyStatusSm> resolvedKeyStatusSmFactory(
    Ref<const EmLogicalKeyToStatus> emStatusMerged, Ref<ResolvedKeyStatus> isemUntagged,
    Ref<ResolvedKeyStatus> isem1Tag, Ref<ResolvedKeyStatus> isem2Tag, Ref<ResolvedKeyStatus> esemFodoVd,
    std::string name, Ref<DependencyStatus> dependencyStatus, StageControl smControl);

}  // namespace KilnEmServer
