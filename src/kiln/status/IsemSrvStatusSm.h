// Statuses of one feature's requests of the ISEM database.
#pragma once

#include <string>

#include "kiln/status/SrvStatusSm.h"

namespace KilnEmServer {

extern template class SrvStatusSm<KilnTunnelNiLib::Isem>;

class IsemSrvStatusSm final : public SrvStatusSm<KilnTunnelNiLib::Isem> {
 public:
  IsemSrvStatusSm(FeatureType featureType, Ref<const EmLogicalKeyToStatus> emStatus,
                  Ref<const KilnTunnelNiLib::IsemSrvConfig> isemSrvConfig,
                  Ref<KilnTunnelNiLib::IsemSrvStatus> isemSrvStatus, std::string name,
                  Ref<DependencyStatus> dependencyStatus, StageControl control);
};

Ref<IsemSrvStatusSm> isemSrvStatusSmFactory(FeatureType featureType, Ref<const EmLogicalKeyToStatus> emStatus,
                                            Ref<const KilnTunnelNiLib::IsemSrvConfig> isemSrvConfig,
                                            Ref<KilnTunnelNiLib::IsemSrvStatus> isemSrvStatus,
                                            std::string name, Ref<DependencyStatus> dependencyStatus,
                                            StageControl control);

}  // namespace KilnEmServer
