#include "kiln/status/ResolvedKeyStatusSm.h"

#include <utility>

namespace KilnEmServer {

ResolvedKeyStatusSm::ResolvedKeyStatusSm(Ref<const EmLogicalKeyToStatus> emStatusMerged,
                                         Ref<ResolvedKeyStatus> isemUntagged, Ref<ResolvedKeyStatus> isem1Tag,
                                         Ref<ResolvedKeyStatus> isem2Tag, Ref<ResolvedKeyStatus> esemFodoVd,
                                         std::string name, Ref<DependencyStatus> dependencyStatus,
                                         StageControl smControl)
    : Stage("ResolvedKeyStatusSm", std::move(name), std::move(dependencyStatus), std::move(smControl),
            "Line 27: from( this.ready )"),
      emStatusMerged_(*this, std::move(emStatusMerged)),
      isemUntagged_(*this, std::move(isemUntagged)),
      isem1Tag_(*this, std::move(isem1Tag)),
      isem2Tag_(*this, std::move(isem2Tag)),
      esemFodoVd_(*this, std::move(esemFodoVd)) {}

void ResolvedKeyStatusSm::handleStatus(const EmLogicalKey& emKey, const EmRequestStatus* statusOpt) {
  switch (emComposerTypeFromUnion(emKey.emComposerKey)) {
    case EmComposerKeyUnionTag::isemUntaggedEntryKey:
      return write(isemUntagged_, emKey, statusOpt);
    case EmComposerKeyUnionTag::isem1TagEntryKey:
      return write(isem1Tag_, emKey, statusOpt);
    case EmComposerKeyUnionTag::isem2TagEntryKey:
      return write(isem2Tag_, emKey, statusOpt);
    case EmComposerKeyUnionTag::esemFodoVdEntryKey:
      return write(esemFodoVd_, emKey, statusOpt);
    default:
      KILN_ASSERT(false && "only keys of types that need resolution are handled");
  }
}

template <class AnyOutput>
void ResolvedKeyStatusSm::write(AnyOutput& output, const EmLogicalKey& emKey,
                                const EmRequestStatus* statusOpt) {
  if (statusOpt != nullptr && statusOpt->emSwTableKeyFapCore != EmHwKey{}) {
    output.insert(
        emKey, {emKey, statusOpt->emSwTableKeyFapCore, static_cast<EmHwKeyStatus::State>(statusOpt->status)});
  } else {
    output.erase(emKey);
  }
}

Ref<ResolvedKeyStatusSm> resolvedKeyStatusSmFactory(
    Ref<const EmLogicalKeyToStatus> emStatusMerged, Ref<ResolvedKeyStatus> isemUntagged,
    Ref<ResolvedKeyStatus> isem1Tag, Ref<ResolvedKeyStatus> isem2Tag, Ref<ResolvedKeyStatus> esemFodoVd,
    std::string name, Ref<DependencyStatus> dependencyStatus, StageControl smControl) {
  return makeStage<ResolvedKeyStatusSm>(std::move(emStatusMerged), std::move(isemUntagged),
                                        std::move(isem1Tag), std::move(isem2Tag), std::move(esemFodoVd),
                                        std::move(name), std::move(dependencyStatus), std::move(smControl));
}

}  // namespace KilnEmServer
