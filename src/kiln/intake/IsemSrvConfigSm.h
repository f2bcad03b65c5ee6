// The intake of the ISEM database.
#pragma once

#include <string>

#include "kiln/intake/SrvConfigSm.h"

namespace KilnEmServer {

extern template class SrvConfigSm<KilnTunnelNiLib::Isem>;

class IsemSrvConfigSm final : public SrvConfigSm<KilnTunnelNiLib::Isem> {
 public:
  IsemSrvConfigSm(Ref<const IsemSrvConfigByFeature> configByFeature, Ref<EmSrvConfig> emSrvConfig,
                  std::string name, Ref<DependencyStatus> dependencyStatus, Ref<TaskScheduler> scheduler,
                  int priority);
};

Ref<IsemSrvConfigSm> isemSrvConfigSmFactory(Ref<const IsemSrvConfigByFeature> configByFeature,
                                            Ref<EmSrvConfig> emSrvConfig, std::string name,
                                            Ref<DependencyStatus> dependencyStatus,
                                            Ref<TaskScheduler> scheduler, int priority);

}  // namespace KilnEmServer
