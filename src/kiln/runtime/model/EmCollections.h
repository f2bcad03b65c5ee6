// The entities through which stages pass their results. The writer and the readers of each are declared where
// the server wires the stages (kiln/server/Wiring.cpp).
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kiln/platform/Hardware.h"
#include "kiln/platform/KilnTunnelNiLib.h"
#include "kiln/runtime/collections/Entity.h"
#include "kiln/runtime/model/EmTypes.h"

namespace KilnMdb {

/// Capabilities of the MDB profiles in use, by profile id.
class CapabilitiesStatus {
  KILN_COLLECTION(CapabilitiesStatus, profileCapabilities, std::uint32_t, ProfileCapabilities)
};
/// The MDB profile id of each FAP.
class MdbLocalStatus {
  KILN_COLLECTION(MdbLocalStatus, profileId, Hardware::Kiln::FapId, std::uint32_t)
};

}  // namespace KilnMdb

namespace KilnEmServer {

using KilnPlatform::Ref;

/// All requested entries of one database, all features together.
class EmSrvConfig {
 public:
  explicit EmSrvConfig(EmType emType) : emType_(emType) {}
  [[nodiscard]] EmType emType() const { return emType_; }
  KILN_COLLECTION(EmSrvConfig, emLogicalKeyToEntry, EmLogicalKey, EmConfigEntry)

 private:
  EmType emType_;
};

/// The per-database collections of requested entries.
class EmTypeToConfig {
  KILN_ENTITY_COLLECTION(EmTypeToConfig, config, EmType, EmSrvConfig)
};

/// The merged requests of all databases.
class EmLogicalKeyToEntry {
  KILN_COLLECTION(EmLogicalKeyToEntry, emLogicalKeyToEntry, EmLogicalKey, EmConfigEntry)
};

class LemSrvConfigByFeature {
  KILN_REFERENCE_COLLECTION(LemSrvConfigByFeature, lemConfig, FeatureType,
                            const KilnTunnelNiLib::LemSrvConfig)
};
class IsemSrvConfigByFeature {
  KILN_REFERENCE_COLLECTION(IsemSrvConfigByFeature, isemConfig, FeatureType,
                            const KilnTunnelNiLib::IsemSrvConfig)
};
class EsemSrvConfigByFeature {
  KILN_REFERENCE_COLLECTION(EsemSrvConfigByFeature, esemConfig, FeatureType,
                            const KilnTunnelNiLib::EsemSrvConfig)
};
class LemSrvStatusByFeature {
  KILN_REFERENCE_COLLECTION(LemSrvStatusByFeature, lemStatus, FeatureType, KilnTunnelNiLib::LemSrvStatus)
};
class IsemSrvStatusByFeature {
  KILN_REFERENCE_COLLECTION(IsemSrvStatusByFeature, isemStatus, FeatureType, KilnTunnelNiLib::IsemSrvStatus)
};
class EsemSrvStatusByFeature {
  KILN_REFERENCE_COLLECTION(EsemSrvStatusByFeature, esemStatus, FeatureType, KilnTunnelNiLib::EsemSrvStatus)
};

/// The requested logical keys of one composer type.
class EmLogicalKeyConfig {
 public:
  explicit EmLogicalKeyConfig(EmComposerKeyUnionTag composerType) : composerType_(composerType) {}
  [[nodiscard]] EmComposerKeyUnionTag composerType() const { return composerType_; }
  KILN_SET(EmLogicalKeyConfig, request, EmLogicalKey)

 private:
  EmComposerKeyUnionTag composerType_;
};
class LogicalKeyConfigByComposerType {
  KILN_ENTITY_COLLECTION(LogicalKeyConfigByComposerType, config, EmComposerKeyUnionTag, EmLogicalKeyConfig)
};

/// The hardware keys that one composer type composed.
class SwTableKeyConfig {
 public:
  explicit SwTableKeyConfig(EmComposerKeyUnionTag composerType) : composerType_(composerType) {}
  [[nodiscard]] EmComposerKeyUnionTag composerType() const { return composerType_; }
  KILN_COLLECTION(SwTableKeyConfig, emLogicalKeyToResolvedKey, EmLogicalKey, EmHwKey)

 private:
  EmComposerKeyUnionTag composerType_;
};
class SwTableKeyConfigByComposerType {
  KILN_ENTITY_COLLECTION(SwTableKeyConfigByComposerType, config, EmComposerKeyUnionTag, SwTableKeyConfig)
};

/// The logical keys that one composer type could not compose, each with the reason.
class EmComposeFailure {
 public:
  explicit EmComposeFailure(EmComposerKeyUnionTag composerType) : composerType_(composerType) {}
  [[nodiscard]] EmComposerKeyUnionTag composerType() const { return composerType_; }
  KILN_SPARSE_COLLECTION(EmComposeFailure, failure, EmLogicalKey, std::string)

 private:
  EmComposerKeyUnionTag composerType_;
};
class EmComposeFailureByComposerType {
  KILN_ENTITY_COLLECTION(EmComposeFailureByComposerType, config, EmComposerKeyUnionTag, EmComposeFailure)
};

/// The hardware outcomes of one composer type's keys, for its composer.
class ResolvedKeyStatus {
 public:
  explicit ResolvedKeyStatus(EmComposerKeyUnionTag composerType) : composerType_(composerType) {}
  [[nodiscard]] EmComposerKeyUnionTag composerType() const { return composerType_; }
  KILN_KEYED_COLLECTION(ResolvedKeyStatus, resolvedKeyStatus, EmLogicalKey, EmHwKeyStatus, emLogicalKey)

 private:
  EmComposerKeyUnionTag composerType_;
};
class SwTableKeyStatusByComposerType {
  KILN_ENTITY_COLLECTION(SwTableKeyStatusByComposerType, status, EmComposerKeyUnionTag, ResolvedKeyStatus)
};

/// The requests of one composer type to one resolver.
class ResolverComposerConfig {
 public:
  explicit ResolverComposerConfig(EmComposerKeyUnionTag composerType) : composerType_(composerType) {}
  [[nodiscard]] EmComposerKeyUnionTag composerType() const { return composerType_; }
  KILN_KEYED_COLLECTION(ResolverComposerConfig, resolverRequest, ResolverKey, ResolverRequest, resolverKey)

 private:
  EmComposerKeyUnionTag composerType_;
};
/// The requests of all composer types to one resolver.
class ResolverConfig {
 public:
  explicit ResolverConfig(ResolverKeyUnionTag resolverType) : resolverType_(resolverType) {}
  [[nodiscard]] ResolverKeyUnionTag resolverType() const { return resolverType_; }
  KILN_ENTITY_COLLECTION(ResolverConfig, resolverComposerConfig, EmComposerKeyUnionTag,
                         ResolverComposerConfig)

 private:
  ResolverKeyUnionTag resolverType_;
};
class ResolverConfigDir {
  KILN_ENTITY_COLLECTION(ResolverConfigDir, resolverConfig, ResolverKeyUnionTag, ResolverConfig)
};
/// The answers of one resolver.
class ResolverStatus {
 public:
  explicit ResolverStatus(ResolverKeyUnionTag resolverType) : resolverType_(resolverType) {}
  [[nodiscard]] ResolverKeyUnionTag resolverType() const { return resolverType_; }
  KILN_KEYED_COLLECTION(ResolverStatus, status, ResolverKey, ResolutionState, resolverKey)

 private:
  ResolverKeyUnionTag resolverType_;
};
class ResolverStatusDir {
  KILN_ENTITY_COLLECTION(ResolverStatusDir, resolverStatus, ResolverKeyUnionTag, ResolverStatus)
};

/// The composed hardware keys of all composer types.
class ResolvedKeyColl {
  KILN_COLLECTION(ResolvedKeyColl, emLogicalKeyToResolvedKey, EmLogicalKey, EmHwKey)
};

/// Requested entries that have a hardware key.
class EmMergedEntry {
  KILN_COLLECTION(EmMergedEntry, emMergedEntry, EmLogicalKey, EmHwEntry)
};

/// The desired content of the tables: per hardware key, the winner.
class EmSwTableConfig {
  KILN_COLLECTION(EmSwTableConfig, config, EmHwKey, EmLogicalKeyAndEntry)
};

/// The status of every logical key that lost its hardware key, or that has no hardware key.
class EmConflictStatus {
  KILN_SPARSE_KEYED_COLLECTION(EmConflictStatus, status, EmLogicalKey, EmRequestStatus, emLogicalKey)
};

/// The answers of the tables, per hardware key.
class EmSwTableStatus {
  KILN_COLLECTION(EmSwTableStatus, status, EmHwKey, EmSwTableStatusEntry)
};

/// The logical keys for which a table holds an entry, or may still write one because it has not answered a
/// later operation. The value is the number of such hardware keys, above 0. Only keys whose composer needs
/// resources are listed.
class EmWrittenKeys {
  KILN_COLLECTION(EmWrittenKeys, written, EmLogicalKey, std::uint32_t)
};

/// One status per logical key.
class EmLogicalKeyToStatus {
  KILN_KEYED_COLLECTION(EmLogicalKeyToStatus, status, EmLogicalKey, EmRequestStatus, emLogicalKey)
};

/// The number of requested entries of one table, and their outcomes. A request that lost its hardware key to
/// another feature counts as requested only: it takes no room and waits for none.
struct ResourceCounts {
  std::uint32_t requested = 0;
  std::uint32_t programmed = 0;
  std::uint32_t waiting = 0;  ///< waiting for their VLAN domain or the table's answer
  std::uint32_t failed = 0;   ///< refused by the table, or composition failed
  KILN_VALUE(KilnEmServer, ResourceCounts, requested, programmed, waiting, failed)
};

/// The counts of one database, by the table's stem. A table without requests has no row.
class ResourceTable {
  KILN_COLLECTION(ResourceTable, resource, std::string, ResourceCounts)
};

/// Requested MDB profiles; no stage requests any yet.
class MdbCapabilitiesConfig {
  KILN_SET(MdbCapabilitiesConfig, profile, std::uint32_t)
};

/// Creates an empty entity with the factory of its type.
template <class Entity>
Ref<Entity> entityFactory() = delete;

/// Each entity that is not a member of another one has a factory that creates it empty and is named after it.
#define KILN_ENTITY_FACTORY(Type, factory) \
  inline Ref<Type> factory() {             \
    return std::make_shared<Type>();       \
  }                                        \
  template <>                              \
  inline Ref<Type> entityFactory<Type>() { \
    return factory();                      \
  }
KILN_ENTITY_FACTORY(IsemSrvConfigByFeature, isemSrvConfigByFeatureFactory)
KILN_ENTITY_FACTORY(EsemSrvConfigByFeature, esemSrvConfigByFeatureFactory)
KILN_ENTITY_FACTORY(LemSrvConfigByFeature, lemSrvConfigByFeatureFactory)
KILN_ENTITY_FACTORY(IsemSrvStatusByFeature, isemSrvStatusByFeatureFactory)
KILN_ENTITY_FACTORY(EsemSrvStatusByFeature, esemSrvStatusByFeatureFactory)
KILN_ENTITY_FACTORY(LemSrvStatusByFeature, lemSrvStatusByFeatureFactory)
KILN_ENTITY_FACTORY(EmTypeToConfig, emTypeToConfigFactory)
KILN_ENTITY_FACTORY(EmLogicalKeyToEntry, emLogicalKeyToEntryFactory)
KILN_ENTITY_FACTORY(LogicalKeyConfigByComposerType, logicalKeyConfigByComposerTypeFactory)
KILN_ENTITY_FACTORY(SwTableKeyConfigByComposerType, swTableKeyConfigByComposerTypeFactory)
KILN_ENTITY_FACTORY(SwTableKeyStatusByComposerType, swTableKeyStatusByComposerTypeFactory)
KILN_ENTITY_FACTORY(EmComposeFailureByComposerType, emComposeFailureByComposerTypeFactory)
KILN_ENTITY_FACTORY(ResolverConfigDir, resolverConfigDirFactory)
KILN_ENTITY_FACTORY(ResolverStatusDir, resolverStatusDirFactory)
KILN_ENTITY_FACTORY(ResolvedKeyColl, resolvedKeyCollFactory)
KILN_ENTITY_FACTORY(EmMergedEntry, emMergedEntryFactory)
KILN_ENTITY_FACTORY(EmSwTableConfig, emSwTableConfigFactory)
KILN_ENTITY_FACTORY(EmConflictStatus, emConflictStatusFactory)
KILN_ENTITY_FACTORY(EmSwTableStatus, emSwTableStatusFactory)
KILN_ENTITY_FACTORY(EmWrittenKeys, emWrittenKeysFactory)
KILN_ENTITY_FACTORY(EmLogicalKeyToStatus, emLogicalKeyToStatusFactory)
KILN_ENTITY_FACTORY(ResourceTable, resourceTableFactory)
KILN_ENTITY_FACTORY(MdbCapabilitiesConfig, mdbCapabilitiesConfigFactory)
KILN_ENTITY_FACTORY(KilnMdb::CapabilitiesStatus, capabilitiesStatusFactory)
KILN_ENTITY_FACTORY(KilnMdb::MdbLocalStatus, mdbLocalStatusFactory)

}  // namespace KilnEmServer
