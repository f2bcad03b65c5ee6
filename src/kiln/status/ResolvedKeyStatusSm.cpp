#include "kiln/status/ResolvedKeyStatusSm.h"

#include <utility>

namespace KilnEmServer {

ResolvedKeyStatusSm::ResolvedKeyStatusSm(Ref<const EmLogicalKeyToStatus> emStatusMerged,
                                         const Ref<SwTableKeyStatusByComposerType>& swTableKeyStatus,
                                         std::string name, Ref<DependencyStatus> dependencyStatus,
                                         StageControl smControl)
    : Stage("ResolvedKeyStatusSm", std::move(name), std::move(dependencyStatus), std::move(smControl),
            "Line 27: from( this.ready )"),
      emStatusMerged_(*this, std::move(emStatusMerged)),
      outputs_(*this, swTableKeyStatus) {}

void ResolvedKeyStatusSm::handleStatus(const EmLogicalKey& emKey, const EmRequestStatus* statusOpt) {
  visitKeyType(emComposerTypeFromUnion(emKey.emComposerKey), [&]<class Row>() {
    if constexpr (Row::kResolver == ResolverKeyUnionTag::undefined_) {
      KILN_ASSERT(false && "only keys of types that need resolution are handled");
    } else {
      auto& output = static_cast<StatusOutput<Row>&>(outputs_).status;
      if (statusOpt != nullptr && statusOpt->emSwTableKeyFapCore != EmHwKey{}) {
        output.insert(emKey, {emKey, statusOpt->emSwTableKeyFapCore,
                              static_cast<EmHwKeyStatus::State>(statusOpt->status)});
      } else {
        output.erase(emKey);
      }
    }
  });
}

Ref<ResolvedKeyStatusSm> resolvedKeyStatusSmFactory(
    Ref<const EmLogicalKeyToStatus> emStatusMerged,
    const Ref<SwTableKeyStatusByComposerType>& swTableKeyStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, StageControl smControl) {
  return makeStage<ResolvedKeyStatusSm>(std::move(emStatusMerged), swTableKeyStatus, std::move(name),
                                        std::move(dependencyStatus), std::move(smControl));
}

}  // namespace KilnEmServer
