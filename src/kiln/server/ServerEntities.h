// The entities of the server: those that it creates, and those that it was handed.
#pragma once

#include <string>
#include <vector>

#include "kiln/platform/Asic.h"
#include "kiln/platform/Hardware.h"
#include "kiln/platform/KilnTunnelNiLib.h"
#include "kiln/platform/KilnVlanDomain.h"
#include "kiln/platform/TableCapacity.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/server/ServerEntity.h"

namespace KilnEmServer {

/// An entity of the server, with its creator and its remover. `name()` is the reference to it.
#define KILN_SERVER_ENTITY(Type, name, content)    \
  ServerEntityOf<Type> name{all_, #name, content}; \
  const Ref<Type>& name##Is() {                    \
    name.create();                                 \
    return name();                                 \
  }                                                \
  void name##Del() {                               \
    name.del();                                    \
  }

/// Declared in the order in which they are created. The collections outlive every stage.
class ServerEntities {
 private:
  static constexpr EntityContent kOfRequests{.emptyAtRest = true, .described = true};
  static constexpr EntityContent kOfChip{.described = true};
  std::vector<ServerEntity*> all_;

 public:
  // Toward features: references to collections of the state store.
  KILN_SERVER_ENTITY(IsemSrvConfigByFeature, isemSrvConfigByFeature, EntityContent{})
  KILN_SERVER_ENTITY(EsemSrvConfigByFeature, esemSrvConfigByFeature, EntityContent{})
  KILN_SERVER_ENTITY(LemSrvConfigByFeature, lemSrvConfigByFeature, EntityContent{})
  KILN_SERVER_ENTITY(IsemSrvStatusByFeature, isemSrvStatusByFeature, EntityContent{})
  KILN_SERVER_ENTITY(EsemSrvStatusByFeature, esemSrvStatusByFeature, EntityContent{})
  KILN_SERVER_ENTITY(LemSrvStatusByFeature, lemSrvStatusByFeature, EntityContent{})

  // Between stages.
  KILN_SERVER_ENTITY(EmLogicalKeyToEntry, emLogicalKeyToEntry, kOfRequests)
  KILN_SERVER_ENTITY(EmTypeToConfig, emTypeToConfig, kOfRequests)
  KILN_SERVER_ENTITY(LogicalKeyConfigByComposerType, logicalKeyConfigByComposerType, kOfRequests)
  KILN_SERVER_ENTITY(SwTableKeyStatusByComposerType, swTableKeyStatusByComposerType, kOfRequests)
  KILN_SERVER_ENTITY(ResolverConfigDir, resolverConfigDir, kOfRequests)
  KILN_SERVER_ENTITY(ResolverStatusDir, resolverStatusDir, kOfRequests)
  KILN_SERVER_ENTITY(ResolvedKeyColl, swTableKeyConfig, kOfRequests)
  KILN_SERVER_ENTITY(SwTableKeyConfigByComposerType, swTableKeyConfigByComposerType, kOfRequests)
  KILN_SERVER_ENTITY(EmMergedEntry, emMergedEntry, kOfRequests)
  KILN_SERVER_ENTITY(EmConflictStatus, emConflictStatus, kOfRequests)
  KILN_SERVER_ENTITY(EmSwTableConfig, emSwTableConfig, kOfRequests)
  KILN_SERVER_ENTITY(EmSwTableStatus, emSwTableStatus, kOfRequests)
  KILN_SERVER_ENTITY(EmLogicalKeyToStatus, emLogicalKeyToStatus, kOfRequests)
  KILN_SERVER_ENTITY(EmLogicalKeyToStatus, emStatusMerged, kOfRequests)
  KILN_SERVER_ENTITY(MdbCapabilitiesConfig, mdbCapabilitiesConfig, kOfChip)
  KILN_SERVER_ENTITY(KilnMdb::CapabilitiesStatus, mdbCapabilitiesStatus, kOfChip)
  KILN_SERVER_ENTITY(KilnMdb::MdbLocalStatus, mdbLocalStatus, kOfChip)
  KILN_SERVER_ENTITY(EmComposeFailureByComposerType, emComposeFailure, kOfRequests)
  KILN_SERVER_ENTITY(EmWrittenKeys, emWrittenKeys, kOfRequests)

  // The outcome of the requests, in numbers.
  KILN_SERVER_ENTITY(ResourceTable, isemResourceTable, kOfRequests)
  KILN_SERVER_ENTITY(ResourceTable, esemResourceTable, kOfRequests)
  KILN_SERVER_ENTITY(ResourceTable, lemResourceTable, kOfRequests)

  // What the agent hands in.
  ServerEntityOf<Asic::OrderedTableInterface> orderedTableInterface{all_, "orderedTableInterface", {}};
  ServerEntityOf<const Hardware::Kiln::Status> hardwareStatus{all_, "hardwareStatus", {}};
  ServerEntityOf<const Hardware::Kiln::MdbStatus> hardwareMdbStatus{all_, "hardwareMdbStatus", {}};
  ServerEntityOf<KilnPlatform::TableCapacity> tableCapacity{all_, "tableCapacity", {}};
  ServerEntityOf<const KilnTunnelNiLib::SemCapacityExternalDir> semCapacityExternalDir{
      all_, "semCapacityExternalDir", {}};
  ServerEntityOf<KilnVlanDomain::VlanDomainConfig> vlanDomainConfig{
      all_, "vlanDomainConfig", {.emptyAtRest = true}};
  ServerEntityOf<const KilnVlanDomain::VlanDomainStatus> vlanDomainStatus{all_, "vlanDomainStatus", {}};

  /// The collection that the composer output merge writes, under the name by which its readers know it.
  [[nodiscard]] const Ref<ResolvedKeyColl>& resolvedKeyColl() const { return swTableKeyConfig(); }
  [[nodiscard]] const std::vector<ServerEntity*>& entities() const { return all_; }

 protected:
  ServerEntities() = default;
  ~ServerEntities() = default;
};

#undef KILN_SERVER_ENTITY

}  // namespace KilnEmServer
