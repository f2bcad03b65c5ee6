// Gives every logical key exactly one status.
#pragma once

#include <string>

#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// The table's status of a key takes precedence over that of the conflict stage.
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
