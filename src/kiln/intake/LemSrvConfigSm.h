// The intake of the LEM database.
#pragma once

#include <string>

#include "kiln/intake/SrvConfigSm.h"

namespace KilnEmServer {

extern template class SrvConfigSm<KilnTunnelNiLib::Lem>;

class LemSrvConfigSm final : public SrvConfigSm<KilnTunnelNiLib::Lem> {
 public:
  LemSrvConfigSm(Ref<const LemSrvConfigByFeature> configByFeature, Ref<EmSrvConfig> emSrvConfig,
                 std::string name, Ref<DependencyStatus> dependencyStatus, Ref<TaskScheduler> scheduler,
                 int priority);
};

Ref<LemSrvConfigSm> lemSrvConfigSmFactory(Ref<const LemSrvConfigByFeature> configByFeature,
                                          Ref<EmSrvConfig> emSrvConfig, std::string name,
                                          Ref<DependencyStatus> dependencyStatus,
                                          Ref<TaskScheduler> scheduler, int priority);

}  // namespace KilnEmServer
