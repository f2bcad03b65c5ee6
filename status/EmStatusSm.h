// Gives every logical key exactly one status.
#pragma once

#include <string>

#include "runtime/EmCollections.h"
#include "runtime/Input.h"
#include "runtime/Output.h"
#include "runtime/Stage.h"

namespace KilnEmServer {

/// What the table says of a key takes precedence over what the conflict stage says of it.
class EmStatusSm final : public Stage {
 public:
  EmStatusSm(Ref<const EmLogicalKeyToStatus> swTableStatus, Ref<const EmConflictStatus> emConflictStatus,
             Ref<EmLogicalKeyToStatus> emOutStatus, std::string name, Ref<DependencyStatus> dependencyStatus,
             StageControl control);

 private:
  void eventToTableStatusStream(const EmLogicalKey& logicalKey, const EmRequestStatus* statusOpt);
  void eventToConflictStatusStream(const EmLogicalKey& logicalKey, const EmRequestStatus* statusOpt);
  void eventToComputeStatusStream(const EmLogicalKey& logicalKey);

  Input<EmLogicalKeyToStatus::statusAttr, "swTableStatus", &EmStatusSm::eventToTableStatusStream,
        "tableStatusStream = from( swTableStatus.status[] ): logicalKey={}">
      swTableStatus_;
  Input<EmConflictStatus::statusAttr, "emConflictStatus", &EmStatusSm::eventToConflictStatusStream,
        "conflictStatusStream = from( emConflictStatus.status[] ): logicalKey={}">
      emConflictStatus_;
  Output<EmLogicalKeyToStatus::statusAttr, "emOutStatus", "logicalKey"> emOutStatus_;
};

Ref<EmStatusSm> emStatusSmFactory(Ref<const EmLogicalKeyToStatus> swTableStatus,
                                  Ref<const EmConflictStatus> emConflictStatus,
                                  Ref<EmLogicalKeyToStatus> emOutStatus, std::string name,
                                  Ref<DependencyStatus> dependencyStatus, StageControl control);

}  // namespace KilnEmServer
