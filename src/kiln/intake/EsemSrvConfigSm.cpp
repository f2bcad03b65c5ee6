#include "kiln/intake/EsemSrvConfigSm.h"

#include <utility>

namespace KilnEmServer {

template class SrvConfigSm<KilnTunnelNiLib::Esem>;

EsemSrvConfigSm::EsemSrvConfigSm(Ref<const EsemSrvConfigByFeature> configByFeature,
                                 Ref<EmSrvConfig> emSrvConfig, std::string name,
                                 Ref<DependencyStatus> dependencyStatus, Ref<TaskScheduler> scheduler,
                                 int priority)
    : SrvConfigSm("EsemSrvConfigSm", std::move(configByFeature), std::move(emSrvConfig), std::move(name),
                  std::move(dependencyStatus), std::move(scheduler), priority) {}

Ref<EsemSrvConfigSm> esemSrvConfigSmFactory(Ref<const EsemSrvConfigByFeature> configByFeature,
                                            Ref<EmSrvConfig> emSrvConfig, std::string name,
                                            Ref<DependencyStatus> dependencyStatus,
                                            Ref<TaskScheduler> scheduler, int priority) {
  return makeStage<EsemSrvConfigSm>(std::move(configByFeature), std::move(emSrvConfig), std::move(name),
                                    std::move(dependencyStatus), std::move(scheduler), priority);
}

}  // namespace KilnEmServer
