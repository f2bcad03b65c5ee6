#include "kiln/status/EmStatusSm.h"

#include <utility>

namespace KilnEmServer {

EmStatusSm::EmStatusSm(Ref<const EmLogicalKeyToStatus> swTableStatus,
                       Ref<const EmConflictStatus> emConflictStatus, Ref<EmLogicalKeyToStatus> emOutStatus,
                       std::string name, Ref<DependencyStatus> dependencyStatus, StageControl control)
    : Stage("EmStatusSm", std::move(name), std::move(dependencyStatus), std::move(control),
            "Line 43: from( this.ready )"),
      swTableStatus_(*this, std::move(swTableStatus), "tableStatusStream"),
      emConflictStatus_(*this, std::move(emConflictStatus), "conflictStatusStream"),
      emOutStatus_(*this, std::move(emOutStatus)) {}

void EmStatusSm::eventToTableStatusStream(const EmLogicalKey& logicalKey, const EmRequestStatus* statusOpt) {
  if (statusOpt != nullptr && emConflictStatus_.find(logicalKey) != nullptr) {
    tracer().trace<0>("Unexpected table status");
  }
  eventToComputeStatusStream(logicalKey);
}

void EmStatusSm::eventToConflictStatusStream(const EmLogicalKey& logicalKey,
                                             const EmRequestStatus* /*statusOpt*/) {
  eventToComputeStatusStream(logicalKey);
}

void EmStatusSm::eventToComputeStatusStream(const EmLogicalKey& logicalKey) {
  tracer().trace<7>("computeStatusStream = merge( tableStatusStream, conflictStatusStream ): logicalKey={}",
                    logicalKey);
  const EmRequestStatus* status = swTableStatus_.find(logicalKey);
  if (status == nullptr) status = emConflictStatus_.find(logicalKey);
  emOutStatus_.write(logicalKey, status);
}

Ref<EmStatusSm> emStatusSmFactory(Ref<const EmLogicalKeyToStatus> swTableStatus,
                                  Ref<const EmConflictStatus> emConflictStatus,
                                  Ref<EmLogicalKeyToStatus> emOutStatus, std::string name,
                                  Ref<DependencyStatus> dependencyStatus, StageControl control) {
  return makeStage<EmStatusSm>(std::move(swTableStatus), std::move(emConflictStatus), std::move(emOutStatus),
                               std::move(name), std::move(dependencyStatus), std::move(control));
}

}  // namespace KilnEmServer
