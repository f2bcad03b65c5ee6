#include "kiln/status/LemSrvStatusSm.h"

#include <utility>

namespace KilnEmServer {

template class SrvStatusSm<KilnTunnelNiLib::Lem>;

LemSrvStatusSm::LemSrvStatusSm(FeatureType featureType, Ref<const EmLogicalKeyToStatus> emStatus,
                               Ref<const KilnTunnelNiLib::LemSrvConfig> lemSrvConfig,
                               Ref<KilnTunnelNiLib::LemSrvStatus> lemSrvStatus, std::string name,
                               Ref<DependencyStatus> dependencyStatus, StageControl control)
    : SrvStatusSm("LemSrvStatusSm", featureType, std::move(emStatus), std::move(lemSrvConfig),
                  std::move(lemSrvStatus), std::move(name), std::move(dependencyStatus), std::move(control)) {
}

Ref<LemSrvStatusSm> lemSrvStatusSmFactory(FeatureType featureType, Ref<const EmLogicalKeyToStatus> emStatus,
                                          Ref<const KilnTunnelNiLib::LemSrvConfig> lemSrvConfig,
                                          Ref<KilnTunnelNiLib::LemSrvStatus> lemSrvStatus, std::string name,
                                          Ref<DependencyStatus> dependencyStatus, StageControl control) {
  return makeStage<LemSrvStatusSm>(featureType, std::move(emStatus), std::move(lemSrvConfig),
                                   std::move(lemSrvStatus), std::move(name), std::move(dependencyStatus),
                                   std::move(control));
}

}  // namespace KilnEmServer
