#include "kiln/status/EsemSrvStatusSm.h"

#include <utility>

namespace KilnEmServer {

template class SrvStatusSm<KilnTunnelNiLib::Esem>;

EsemSrvStatusSm::EsemSrvStatusSm(FeatureType featureType, Ref<const EmLogicalKeyToStatus> emStatus,
                                 Ref<const KilnTunnelNiLib::EsemSrvConfig> esemSrvConfig,
                                 Ref<KilnTunnelNiLib::EsemSrvStatus> esemSrvStatus, std::string name,
                                 Ref<DependencyStatus> dependencyStatus, StageControl control)
    : SrvStatusSm("EsemSrvStatusSm", featureType, std::move(emStatus), std::move(esemSrvConfig),
                  std::move(esemSrvStatus), std::move(name), std::move(dependencyStatus),
                  std::move(control)) {}

Ref<EsemSrvStatusSm> esemSrvStatusSmFactory(FeatureType featureType, Ref<const EmLogicalKeyToStatus> emStatus,
                                            Ref<const KilnTunnelNiLib::EsemSrvConfig> esemSrvConfig,
                                            Ref<KilnTunnelNiLib::EsemSrvStatus> esemSrvStatus,
                                            std::string name, Ref<DependencyStatus> dependencyStatus,
                                            StageControl control) {
  return makeStage<EsemSrvStatusSm>(featureType, std::move(emStatus), std::move(esemSrvConfig),
                                    std::move(esemSrvStatus), std::move(name), std::move(dependencyStatus),
                                    std::move(control));
}

}  // namespace KilnEmServer
