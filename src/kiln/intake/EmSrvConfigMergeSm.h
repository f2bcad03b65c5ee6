// Merges the requests of the three databases into one collection.
#pragma once

#include <string>

#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/LocalState.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// A logical key belongs to exactly one database; it is a broken invariant if two deliver the same one.
class EmSrvConfigMergeSm final : public Stage {
 public:
  EmSrvConfigMergeSm(Ref<const EmTypeToConfig> emTypeToConfig, Ref<EmLogicalKeyToEntry> logicalKeyToEntry,
                     std::string name, Ref<DependencyStatus> dependencyStatus, Ref<TaskScheduler> scheduler,
                     int priority);

 private:
  void handleConfig0(const EmType& emType, const EmLogicalKey& emKey, const EmConfigEntry* entryOpt);

  NestedInput<
      EmTypeToConfig::configAttr, EmSrvConfig::emLogicalKeyToEntryAttr, "emTypeToConfig",
      &EmSrvConfigMergeSm::handleConfig0,
      "Line 17: from( emTypeToConfig.config[].emLogicalKeyToEntry[] ): emType={} emKey={} entryOpt={}">
      emTypeToConfig_;
  GroupBy<EmLogicalKey, EmType, EmConfigEntry, 1, "emTypeColl"> groupByAttr0_;
  Output<EmLogicalKeyToEntry::emLogicalKeyToEntryAttr, "logicalKeyToEntry", "emKey"> logicalKeyToEntry_;
};

Ref<EmSrvConfigMergeSm> emSrvConfigMergeSmFactory(Ref<const EmTypeToConfig> emTypeToConfig,
                                                  Ref<EmLogicalKeyToEntry> logicalKeyToEntry,
                                                  std::string name, Ref<DependencyStatus> dependencyStatus,
                                                  Ref<TaskScheduler> scheduler, int priority);

}  // namespace KilnEmServer
