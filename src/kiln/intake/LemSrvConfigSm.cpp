#include "kiln/intake/LemSrvConfigSm.h"

#include <utility>

namespace KilnEmServer {

template class SrvConfigSm<KilnTunnelNiLib::Lem>;

LemSrvConfigSm::LemSrvConfigSm(Ref<const LemSrvConfigByFeature> configByFeature, Ref<EmSrvConfig> emSrvConfig,
                               std::string name, Ref<DependencyStatus> dependencyStatus,
                               Ref<TaskScheduler> scheduler, int priority)
    : SrvConfigSm("LemSrvConfigSm", std::move(configByFeature), std::move(emSrvConfig), std::move(name),
                  std::move(dependencyStatus), std::move(scheduler), priority) {}

Ref<LemSrvConfigSm> lemSrvConfigSmFactory(Ref<const LemSrvConfigByFeature> configByFeature,
                                          Ref<EmSrvConfig> emSrvConfig, std::string name,
                                          Ref<DependencyStatus> dependencyStatus,
                                          Ref<TaskScheduler> scheduler, int priority) {
  return makeStage<LemSrvConfigSm>(std::move(configByFeature), std::move(emSrvConfig), std::move(name),
                                   std::move(dependencyStatus), std::move(scheduler), priority);
}

}  // namespace KilnEmServer
