// The intake of the ESEM database.
#pragma once

#include <string>

#include "kiln/intake/SrvConfigSm.h"

namespace KilnEmServer {

extern template class SrvConfigSm<KilnTunnelNiLib::Esem>;

class EsemSrvConfigSm final : public SrvConfigSm<KilnTunnelNiLib::Esem> {
 public:
  EsemSrvConfigSm(Ref<const EsemSrvConfigByFeature> configByFeature, Ref<EmSrvConfig> emSrvConfig,
                  std::string name, Ref<DependencyStatus> dependencyStatus, Ref<TaskScheduler> scheduler,
                  int priority);
};

Ref<EsemSrvConfigSm> esemSrvConfigSmFactory(Ref<const EsemSrvConfigByFeature> configByFeature,
                                            Ref<EmSrvConfig> emSrvConfig, std::string name,
                                            Ref<DependencyStatus> dependencyStatus,
                                            Ref<TaskScheduler> scheduler, int priority);

}  // namespace KilnEmServer
