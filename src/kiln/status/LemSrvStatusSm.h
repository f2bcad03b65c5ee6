// Statuses of one feature's requests of the LEM database.
#pragma once

#include <string>

#include "kiln/status/SrvStatusSm.h"

namespace KilnEmServer {

extern template class SrvStatusSm<KilnTunnelNiLib::Lem>;

class LemSrvStatusSm final : public SrvStatusSm<KilnTunnelNiLib::Lem> {
 public:
  LemSrvStatusSm(FeatureType featureType, Ref<const EmLogicalKeyToStatus> emStatus,
                 Ref<const KilnTunnelNiLib::LemSrvConfig> lemSrvConfig,
                 Ref<KilnTunnelNiLib::LemSrvStatus> lemSrvStatus, std::string name,
                 Ref<DependencyStatus> dependencyStatus, StageControl control);
};

Ref<LemSrvStatusSm> lemSrvStatusSmFactory(FeatureType featureType, Ref<const EmLogicalKeyToStatus> emStatus,
                                          Ref<const KilnTunnelNiLib::LemSrvConfig> lemSrvConfig,
                                          Ref<KilnTunnelNiLib::LemSrvStatus> lemSrvStatus, std::string name,
                                          Ref<DependencyStatus> dependencyStatus, StageControl control);

}  // namespace KilnEmServer
