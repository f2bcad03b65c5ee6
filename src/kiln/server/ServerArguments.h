// What a server is created from.
#pragma once

#include <utility>

#include "kiln/platform/Asic.h"
#include "kiln/platform/Hardware.h"
#include "kiln/platform/KilnTunnelNiLib.h"
#include "kiln/platform/KilnVlanDomain.h"
#include "kiln/platform/StateStore.h"
#include "kiln/platform/TableCapacity.h"
#include "kiln/server/KilnEmServer.h"

namespace KilnEmServer {

/// What the server is given: shared references, kept for its lifetime.
struct ServerArguments {
  Ref<KilnPlatform::StateStore> entityManager;
  Ref<Asic::OrderedTableInterface> orderedTableInterface;
  Ref<const Hardware::Kiln::Status> hardwareStatus;
  Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus;
  Ref<KilnPlatform::TableCapacity> tableCapacity;
  Ref<const KilnTunnelNiLib::SemCapacityExternalDir> semCapacityExternalDir;
  Ref<KilnVlanDomain::VlanDomainConfig> vlanDomainConfig;
  Ref<const KilnVlanDomain::VlanDomainStatus> vlanDomainStatus;
  Asic::TableInterfaces tables;
};

/// Creates the server and starts it, with each argument by itself: the eight that every server takes, then
/// the table interface of each key type, in any order. An interface that is missing does not compile.
template <class... Interfaces>
Ref<Server> kilnEmServerSmFactory(Ref<KilnPlatform::StateStore> entityManager,
                                  Ref<Asic::OrderedTableInterface> orderedTableInterface,
                                  Ref<const Hardware::Kiln::Status> hardwareStatus,
                                  Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
                                  Ref<KilnPlatform::TableCapacity> tableCapacity,
                                  Ref<const KilnTunnelNiLib::SemCapacityExternalDir> semCapacityExternalDir,
                                  Ref<KilnVlanDomain::VlanDomainConfig> vlanDomainConfig,
                                  Ref<const KilnVlanDomain::VlanDomainStatus> vlanDomainStatus,
                                  const Ref<Interfaces>&... tables) {
  return kilnEmServerSmFactory(ServerArguments{
      std::move(entityManager), std::move(orderedTableInterface), std::move(hardwareStatus),
      std::move(hardwareMdbStatus), std::move(tableCapacity), std::move(semCapacityExternalDir),
      std::move(vlanDomainConfig), std::move(vlanDomainStatus), Asic::TableInterfaces(tables...)});
}

}  // namespace KilnEmServer
