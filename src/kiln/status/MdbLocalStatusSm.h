// Copies the MDB profile of each FAP.
#pragma once

#include <string>

#include "kiln/platform/Hardware.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// Copies each FAP's profile id from the MDB status.
class MdbLocalStatusSm final : public Stage {
 public:
  MdbLocalStatusSm(Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
                   Ref<KilnMdb::MdbLocalStatus> mdbLocalStatus, std::string name,
                   Ref<DependencyStatus> dependencyStatus, StageControl control);

 private:
  struct ProfileIdAttr {
    using Entity = Hardware::Kiln::MdbStatus;
    using Key = Hardware::Kiln::FapId;
    using Value = std::uint32_t;
    static constexpr FixedString kName{"profileId"};
    static const auto& of(const Entity& entity) { return entity.profileId(); }
  };

  void handleProfileId(const Hardware::Kiln::FapId& fapId, const std::uint32_t* profileId);

  Input<ProfileIdAttr, "hardwareMdbStatus", &MdbLocalStatusSm::handleProfileId,
        "from( hardwareMdbStatus.profileId[] ): fapId={} profileId={}">
      hardwareMdbStatus_;
  Output<KilnMdb::MdbLocalStatus::profileIdAttr, "mdbLocalStatus", "fapId"> mdbLocalStatus_;
};

Ref<MdbLocalStatusSm> mdbLocalStatusSmFactory(Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
                                              Ref<KilnMdb::MdbLocalStatus> mdbLocalStatus, std::string name,
                                              Ref<DependencyStatus> dependencyStatus, StageControl control);

}  // namespace KilnEmServer
