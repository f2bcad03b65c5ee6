// Statuses of one feature's requests of the ESEM database.
#pragma once

#include <string>

#include "kiln/status/SrvStatusSm.h"

namespace KilnEmServer {

extern template class SrvStatusSm<KilnTunnelNiLib::Esem>;

class EsemSrvStatusSm final : public SrvStatusSm<KilnTunnelNiLib::Esem> {
 public:
  EsemSrvStatusSm(FeatureType featureType, Ref<const EmLogicalKeyToStatus> emStatus,
                  Ref<const KilnTunnelNiLib::EsemSrvConfig> esemSrvConfig,
                  Ref<KilnTunnelNiLib::EsemSrvStatus> esemSrvStatus, std::string name,
                  Ref<DependencyStatus> dependencyStatus, StageControl control);
};

Ref<EsemSrvStatusSm> esemSrvStatusSmFactory(FeatureType featureType, Ref<const EmLogicalKeyToStatus> emStatus,
                                            Ref<const KilnTunnelNiLib::EsemSrvConfig> esemSrvConfig,
                                            Ref<KilnTunnelNiLib::EsemSrvStatus> esemSrvStatus,
                                            std::string name, Ref<DependencyStatus> dependencyStatus,
                                            StageControl control);

}  // namespace KilnEmServer
