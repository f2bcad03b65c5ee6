// Publishes the capabilities of the MDB profiles in use.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kiln/platform/Hardware.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// The capabilities of each profile that a FAP uses and the chip describes. It reacts inside each change, so
/// that no reader finds a FAP with a profile that is described but not published yet. FAPs and profiles are
/// few, so each change checks all of them.
class MdbCapabilitiesSm final : public StageBase,
                                private KilnPlatform::KeySubscriber<Hardware::Kiln::FapId>,
                                private KilnPlatform::KeySubscriber<std::uint32_t> {
 public:
  MdbCapabilitiesSm(Ref<const KilnMdb::MdbLocalStatus> mdbLocalStatus,
                    Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
                    Ref<KilnMdb::CapabilitiesStatus> mdbCapabilitiesStatus, std::string name,
                    Ref<DependencyStatus> dependencyStatus);
  ~MdbCapabilitiesSm() override;

  /// To be called once: publishes the current content and reports the stage's name.
  void handleInitialized();

  [[nodiscard]] bool reactsInside() const override { return true; }
  [[nodiscard]] bool addReads(std::vector<const void*>& collections) const override;
  /// It has no state of its own.
  void noteState(StateDigest& digest) const override { digest.begin(name()); }

 private:
  void handleChange(const Hardware::Kiln::FapId& /*fapId*/) override { update(); }
  void handleChange(const std::uint32_t& /*profileId*/) override { update(); }
  void update();

  Ref<const KilnMdb::MdbLocalStatus> mdbLocalStatus_;
  Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus_;
  DirectOutput<KilnMdb::CapabilitiesStatus::profileCapabilitiesAttr, "mdbCapabilitiesStatus">
      mdbCapabilitiesStatus_;
  Ref<DependencyStatus> dependencyStatus_;
};

Ref<MdbCapabilitiesSm> mdbCapabilitiesSmFactory(Ref<const KilnMdb::MdbLocalStatus> mdbLocalStatus,
                                                Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
                                                Ref<KilnMdb::CapabilitiesStatus> mdbCapabilitiesStatus,
                                                std::string name, Ref<DependencyStatus> dependencyStatus);

}  // namespace KilnEmServer
