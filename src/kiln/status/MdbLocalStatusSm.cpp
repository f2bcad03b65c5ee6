#include "kiln/status/MdbLocalStatusSm.h"

#include <utility>

namespace KilnEmServer {

MdbLocalStatusSm::MdbLocalStatusSm(Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
                                   Ref<KilnMdb::MdbLocalStatus> mdbLocalStatus, std::string name,
                                   Ref<DependencyStatus> dependencyStatus, StageControl control)
    : Stage("MdbLocalStatusSm", std::move(name), std::move(dependencyStatus), std::move(control),
            "from( this.ready )"),
      hardwareMdbStatus_(*this, std::move(hardwareMdbStatus)),
      mdbLocalStatus_(*this, std::move(mdbLocalStatus)) {}

void MdbLocalStatusSm::handleProfileId(const Hardware::Kiln::FapId& fapId, const std::uint32_t* profileId) {
  mdbLocalStatus_.write(fapId, profileId);
}

Ref<MdbLocalStatusSm> mdbLocalStatusSmFactory(Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
                                              Ref<KilnMdb::MdbLocalStatus> mdbLocalStatus, std::string name,
                                              Ref<DependencyStatus> dependencyStatus, StageControl control) {
  return makeStage<MdbLocalStatusSm>(std::move(hardwareMdbStatus), std::move(mdbLocalStatus), std::move(name),
                                     std::move(dependencyStatus), std::move(control));
}

}  // namespace KilnEmServer
