// Publishes what the MDB profiles in use provide.
#pragma once

#include <cstdint>
#include <string>

#include "kiln/platform/Hardware.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Stage.h"
#include "kiln/runtime/trace/Trace.h"

namespace KilnEmServer {

/// The capabilities of each profile that some FAP uses and the chip describes. A change is answered at once,
/// so that nobody ever finds a FAP with a profile that is described but not published yet. FAPs and profiles
/// are few: all of them are looked at anew.
class MdbCapabilitiesSm final : private KilnPlatform::KeySubscriber<Hardware::Kiln::FapId>,
                                private KilnPlatform::KeySubscriber<std::uint32_t> {
 public:
  MdbCapabilitiesSm(Ref<const KilnMdb::MdbLocalStatus> mdbLocalStatus,
                    Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
                    Ref<KilnMdb::CapabilitiesStatus> mdbCapabilitiesStatus, std::string name,
                    Ref<DependencyStatus> dependencyStatus);
  ~MdbCapabilitiesSm();
  MdbCapabilitiesSm(const MdbCapabilitiesSm&) = delete;
  MdbCapabilitiesSm& operator=(const MdbCapabilitiesSm&) = delete;

  /// To be called once: publishes what is there and reports the stage's name.
  void handleInitialized();

 private:
  void handleChange(const Hardware::Kiln::FapId& /*fapId*/) override { update(); }
  void handleChange(const std::uint32_t& /*profileId*/) override { update(); }
  void update();

  std::string name_;
  Tracer tracer_;
  Ref<const KilnMdb::MdbLocalStatus> mdbLocalStatus_;
  Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus_;
  Ref<KilnMdb::CapabilitiesStatus> mdbCapabilitiesStatus_;
  Ref<DependencyStatus> dependencyStatus_;
};

Ref<MdbCapabilitiesSm> mdbCapabilitiesSmFactory(Ref<const KilnMdb::MdbLocalStatus> mdbLocalStatus,
                                                Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
                                                Ref<KilnMdb::CapabilitiesStatus> mdbCapabilitiesStatus,
                                                std::string name, Ref<DependencyStatus> dependencyStatus);

}  // namespace KilnEmServer
