#include "kiln/intake/EmSrvConfigMergeSm.h"

#include <utility>

namespace KilnEmServer {

EmSrvConfigMergeSm::EmSrvConfigMergeSm(Ref<const EmTypeToConfig> emTypeToConfig,
                                       Ref<EmLogicalKeyToEntry> logicalKeyToEntry, std::string name,
                                       Ref<DependencyStatus> dependencyStatus, Ref<TaskScheduler> scheduler,
                                       int priority)
    : Stage("EmSrvConfigMergeSm", std::move(name), std::move(dependencyStatus),
            {std::move(scheduler), priority}, "Line 23: from( this.ready )"),
      emTypeToConfig_(*this, std::move(emTypeToConfig)),
      groupByAttr0_(*this, "groupByAttr0"),
      logicalKeyToEntry_(*this, std::move(logicalKeyToEntry)) {}

void EmSrvConfigMergeSm::handleConfig0(const EmType& emType, const EmLogicalKey& emKey,
                                       const EmConfigEntry* entryOpt) {
  const auto* emTypeColl = groupByAttr0_.update(emKey, emType, entryOpt);
  logicalKeyToEntry_.write(emKey, emTypeColl == nullptr ? nullptr : &emTypeColl->value(0));
}

Ref<EmSrvConfigMergeSm> emSrvConfigMergeSmFactory(Ref<const EmTypeToConfig> emTypeToConfig,
                                                  Ref<EmLogicalKeyToEntry> logicalKeyToEntry,
                                                  std::string name, Ref<DependencyStatus> dependencyStatus,
                                                  Ref<TaskScheduler> scheduler, int priority) {
  return makeStage<EmSrvConfigMergeSm>(std::move(emTypeToConfig), std::move(logicalKeyToEntry),
                                       std::move(name), std::move(dependencyStatus), std::move(scheduler),
                                       priority);
}

}  // namespace KilnEmServer
