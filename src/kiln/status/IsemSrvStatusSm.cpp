#include "kiln/status/IsemSrvStatusSm.h"

#include <utility>

namespace KilnEmServer {

template class SrvStatusSm<KilnTunnelNiLib::Isem>;

IsemSrvStatusSm::IsemSrvStatusSm(FeatureType featureType, Ref<const EmLogicalKeyToStatus> emStatus,
                                 Ref<const KilnTunnelNiLib::IsemSrvConfig> isemSrvConfig,
                                 Ref<KilnTunnelNiLib::IsemSrvStatus> isemSrvStatus, std::string name,
                                 Ref<DependencyStatus> dependencyStatus, StageControl control)
    : SrvStatusSm("IsemSrvStatusSm", featureType, std::move(emStatus), std::move(isemSrvConfig),
                  std::move(isemSrvStatus), std::move(name), std::move(dependencyStatus),
                  std::move(control)) {}

Ref<IsemSrvStatusSm> isemSrvStatusSmFactory(FeatureType featureType, Ref<const EmLogicalKeyToStatus> emStatus,
                                            Ref<const KilnTunnelNiLib::IsemSrvConfig> isemSrvConfig,
                                            Ref<KilnTunnelNiLib::IsemSrvStatus> isemSrvStatus,
                                            std::string name, Ref<DependencyStatus> dependencyStatus,
                                            StageControl control) {
  return makeStage<IsemSrvStatusSm>(featureType, std::move(emStatus), std::move(isemSrvConfig),
                                    std::move(isemSrvStatus), std::move(name), std::move(dependencyStatus),
                                    std::move(control));
}

}  // namespace KilnEmServer
