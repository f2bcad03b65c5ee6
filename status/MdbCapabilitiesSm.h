// Publishes what the MDB profiles in use provide.
#pragma once

#include <cstdint>
#include <string>

#include "platform/Hardware.h"
#include "runtime/EmCollections.h"
#include "runtime/Stage.h"
#include "runtime/Trace.h"
#include "status/ChangeMark.h"

namespace KilnEmServer {

/// The capabilities of each profile that some FAP uses and the chip describes. FAPs and profiles are few, so
/// that all of them are looked at anew whenever one changed, on one task.
class MdbCapabilitiesSm final {
 public:
  MdbCapabilitiesSm(Ref<const KilnMdbLocalStatus> mdbLocalStatus,
                    Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
                    Ref<KilnMdbCapabilitiesStatus> mdbCapabilitiesStatus, std::string name,
                    Ref<DependencyStatus> dependencyStatus, const StageControl& control);

  /// To be called once: publishes what is there and reports the stage's name.
  void handleInitialized();

 private:
  void update();

  std::string name_;
  Tracer tracer_;
  Ref<const KilnMdbLocalStatus> mdbLocalStatus_;
  Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus_;
  Ref<KilnMdbCapabilitiesStatus> mdbCapabilitiesStatus_;
  Ref<DependencyStatus> dependencyStatus_;
  Task task_;
  ChangeMark<Hardware::Kiln::FapId, std::uint32_t> profileIdMark_;
  ChangeMark<std::uint32_t, KilnMdb::ProfileCapabilities> profileMark_;
};

Ref<MdbCapabilitiesSm> mdbCapabilitiesSmFactory(Ref<const KilnMdbLocalStatus> mdbLocalStatus,
                                                Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
                                                Ref<KilnMdbCapabilitiesStatus> mdbCapabilitiesStatus,
                                                std::string name, Ref<DependencyStatus> dependencyStatus,
                                                const StageControl& control);

}  // namespace KilnEmServer
