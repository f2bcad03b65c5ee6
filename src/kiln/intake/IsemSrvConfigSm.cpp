#include "kiln/intake/IsemSrvConfigSm.h"

#include <utility>

namespace KilnEmServer {

template class SrvConfigSm<KilnTunnelNiLib::Isem>;

IsemSrvConfigSm::IsemSrvConfigSm(Ref<const IsemSrvConfigByFeature> configByFeature,
                                 Ref<EmSrvConfig> emSrvConfig, std::string name,
                                 Ref<DependencyStatus> dependencyStatus, Ref<TaskScheduler> scheduler,
                                 int priority)
    : SrvConfigSm("IsemSrvConfigSm", std::move(configByFeature), std::move(emSrvConfig), std::move(name),
                  std::move(dependencyStatus), std::move(scheduler), priority) {}

Ref<IsemSrvConfigSm> isemSrvConfigSmFactory(Ref<const IsemSrvConfigByFeature> configByFeature,
                                            Ref<EmSrvConfig> emSrvConfig, std::string name,
                                            Ref<DependencyStatus> dependencyStatus,
                                            Ref<TaskScheduler> scheduler, int priority) {
  return makeStage<IsemSrvConfigSm>(std::move(configByFeature), std::move(emSrvConfig), std::move(name),
                                    std::move(dependencyStatus), std::move(scheduler), priority);
}

}  // namespace KilnEmServer
