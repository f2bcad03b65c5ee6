// The exact-match server: owns every collection that passes between stages, and every stage.
#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kiln/compose/ComposerOutputMergeSm.h"
#include "kiln/compose/ComposerSelectorSm.h"
#include "kiln/compose/ComposerSm.h"
#include "kiln/compose/ResolverVd.h"
#include "kiln/compose/SwKeyTranslationSm.h"
#include "kiln/intake/EmSrvConfigMergeSm.h"
#include "kiln/intake/EsemSrvConfigSm.h"
#include "kiln/intake/IsemSrvConfigSm.h"
#include "kiln/intake/LemSrvConfigSm.h"
#include "kiln/platform/Asic.h"
#include "kiln/platform/DependencyManager.h"
#include "kiln/platform/Hardware.h"
#include "kiln/platform/KilnVlanDomain.h"
#include "kiln/platform/StateStore.h"
#include "kiln/platform/TableCapacity.h"
#include "kiln/program/EmConflictSm.h"
#include "kiln/program/EmKeyMergeSm.h"
#include "kiln/program/EmSwTableStatusSm.h"
#include "kiln/program/EmSwTableWriterSm.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/DependencyStatus.h"
#include "kiln/server/DependencyManagerSm.h"
#include "kiln/server/ReconcileCompleteSm.h"
#include "kiln/server/ReconcileProgress.h"
#include "kiln/server/StageGraph.h"
#include "kiln/status/EmStatusSm.h"
#include "kiln/status/EsemSrvStatusSm.h"
#include "kiln/status/IsemSrvStatusSm.h"
#include "kiln/status/LemSrvStatusSm.h"
#include "kiln/status/MdbCapabilitiesSm.h"
#include "kiln/status/MdbLocalStatusSm.h"
#include "kiln/status/ResolvedKeyStatusSm.h"
#include "kiln/status/ResourceTableSm.h"
#include "kiln/status/SemCapacitySm.h"

namespace KilnEmServer {

/// Whether a composer type goes through a resolver, rather than being translated directly. `undefined` is an
/// assertion failure.
bool resolutionNeeded(EmComposerKeyUnionTag composerType);

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

/// An entity that the server owns, with its creator and its remover.
#define KILN_SERVER_ENTITY(Type, name)                       \
 public:                                                     \
  [[nodiscard]] const Ref<Type>& name() const {              \
    return name##_;                                          \
  }                                                          \
  const Ref<Type>& name##Is() {                              \
    if (name##_ == nullptr) name##_ = entityFactory<Type>(); \
    return name##_;                                          \
  }                                                          \
  void name##Del() {                                         \
    name##_.reset();                                         \
  }                                                          \
                                                             \
 private:                                                    \
  Ref<Type> name##_;

/// The top of the server. It lives as long as its agent keeps it; destroying it stops every stage and leaves
/// statuses and tables as they stand, for the next server to take up.
class KilnEmServerSm final : private KilnPlatform::KeySubscriber<FeatureType>,
                             private KilnPlatform::KeySubscriber<std::string> {
 public:
  explicit KilnEmServerSm(ServerArguments arguments);
  ~KilnEmServerSm();
  KilnEmServerSm(const KilnEmServerSm&) = delete;
  KilnEmServerSm& operator=(const KilnEmServerSm&) = delete;

  /// To be called once: creates all collections, then sets the stages up.
  void handleInitialized();

  /// The names of the stages that are complete, for the agent.
  [[nodiscard]] const DependencyStatusRecord& dependencyStatus() const { return *dependencyStatus_; }
  /// Who reads, who writes, who waits, of this running server.
  [[nodiscard]] StageGraph graph() const { return dependencyManagerSm_->graph(); }
  /// How far each stage of the map has come, in the map's order.
  [[nodiscard]] std::vector<StageProgress> reconcileProgress() const;
  /// Every intermediate collection, group, cache, version record and pending list, and the VLAN-domain
  /// requests, with their sizes, sorted by name. All are empty when nothing is requested and every answer is
  /// in.
  [[nodiscard]] std::vector<std::pair<std::string, std::size_t>> leftovers() const;
  /// Describes all that the server owns: what it does next depends on this, on what it was handed and on
  /// which tasks are ready.
  void noteState(StateDigest& digest) const;

  // Toward features.
  KILN_SERVER_ENTITY(IsemSrvConfigByFeature, isemSrvConfigByFeature)
  KILN_SERVER_ENTITY(EsemSrvConfigByFeature, esemSrvConfigByFeature)
  KILN_SERVER_ENTITY(LemSrvConfigByFeature, lemSrvConfigByFeature)
  KILN_SERVER_ENTITY(IsemSrvStatusByFeature, isemSrvStatusByFeature)
  KILN_SERVER_ENTITY(EsemSrvStatusByFeature, esemSrvStatusByFeature)
  KILN_SERVER_ENTITY(LemSrvStatusByFeature, lemSrvStatusByFeature)

  // Between stages.
  KILN_SERVER_ENTITY(EmTypeToConfig, emTypeToConfig)
  KILN_SERVER_ENTITY(EmLogicalKeyToEntry, emLogicalKeyToEntry)
  KILN_SERVER_ENTITY(LogicalKeyConfigByComposerType, logicalKeyConfigByComposerType)
  KILN_SERVER_ENTITY(SwTableKeyConfigByComposerType, swTableKeyConfigByComposerType)
  KILN_SERVER_ENTITY(SwTableKeyStatusByComposerType, swTableKeyStatusByComposerType)
  KILN_SERVER_ENTITY(ResolverConfigDir, resolverConfigDir)
  KILN_SERVER_ENTITY(ResolverStatusDir, resolverStatusDir)
  KILN_SERVER_ENTITY(ResolvedKeyColl, swTableKeyConfig)
  KILN_SERVER_ENTITY(EmMergedEntry, emMergedEntry)
  KILN_SERVER_ENTITY(EmConflictStatus, emConflictStatus)
  KILN_SERVER_ENTITY(EmSwTableConfig, emSwTableConfig)
  KILN_SERVER_ENTITY(EmSwTableStatus, emSwTableStatus)
  KILN_SERVER_ENTITY(EmLogicalKeyToStatus, emLogicalKeyToStatus)
  KILN_SERVER_ENTITY(EmLogicalKeyToStatus, emStatusMerged)
  KILN_SERVER_ENTITY(MdbCapabilitiesConfig, mdbCapabilitiesConfig)
  KILN_SERVER_ENTITY(KilnMdb::CapabilitiesStatus, mdbCapabilitiesStatus)
  KILN_SERVER_ENTITY(KilnMdb::MdbLocalStatus, mdbLocalStatus)
  KILN_SERVER_ENTITY(EmComposeFailureByComposerType, emComposeFailure)
  KILN_SERVER_ENTITY(EmWrittenKeys, emWrittenKeys)

  // What became of the requested entries, in numbers.
  KILN_SERVER_ENTITY(ResourceTable, isemResourceTable)
  KILN_SERVER_ENTITY(ResourceTable, esemResourceTable)
  KILN_SERVER_ENTITY(ResourceTable, lemResourceTable)

 public:
  /// The collection that the composer output merge writes, under the name by which its readers know it.
  [[nodiscard]] const Ref<ResolvedKeyColl>& resolvedKeyColl() const { return swTableKeyConfig_; }
  [[nodiscard]] const std::map<EmResolvedKeyUnionTag, Ref<EmSwTableWriterSm>>& swTableWriterSm() const {
    return swTableWriterSm_;
  }
  /// Null until start-up has come that far.
  [[nodiscard]] Ref<const SemCapacitySm> semCapacitySm() const { return semCapacitySm_; }
  /// Every stage that exists, in the order of creation.
  [[nodiscard]] std::vector<const StageBase*> stages() const;

 private:
  // Set-up, in its fixed order.
  void createCollections();
  void mountFeatures();
  void setupStages();
  [[nodiscard]] KilnPlatform::StageMap stageMap();
  void addKeyedStages(KilnPlatform::StageMap& map);
  [[nodiscard]] bool collectionExists(const std::string& name) const;
  [[nodiscard]] StageControl control() const;
  void report(const std::string& stage) { dependencyStatus_->completedIs(stage); }

  // The actions of the stage map.
  void createResourceTableSms();
  void createIsemSrvConfigSm();
  void createEsemSrvConfigSm();
  void createLemSrvConfigSm();
  void createEmSrvConfigMergeSm();
  void createComposerSelectorSm(EmComposerKeyUnionTag composerType, const std::string& name);
  void createResolverSms();
  void createComposerSms();
  template <class Row>
  void createComposer();
  void doResolverSweep();
  void createSwKeyTranslationSm(EmComposerKeyUnionTag composerType, const std::string& name);
  void createComposerOutputMergeSm();
  void createEmKeyMergeSm();
  void createEmConflictSm();
  void createSwTableWriterSm(EmResolvedKeyUnionTag tag, const std::string& name);
  /// The room of the physical table in which the entries of a table are stored.
  Ref<TableRoom> tableRoomOf(EmResolvedKeyUnionTag tag);
  template <class Row>
  void createWriter(const std::string& name);
  void createReconcileCompleteSm();
  void createSwTableStatusSm();
  void createMdbLocalStatusSm();
  void createMdbCapabilitiesSm();
  void createCapacitySm();
  void createEmStatusSm();
  void createResolvedKeyStatusSm();
  void createIsemSrvStatusSm(FeatureType feature, const std::string& name);
  void createEsemSrvStatusSm(FeatureType feature, const std::string& name);
  void createLemSrvStatusSm(FeatureType feature, const std::string& name);
  void finalizeStartup();

  // Stages of the map that consist of several objects are complete when each of these is.
  void handleChange(const std::string& name) override;

  // Features that come and go.
  void handleChange(const FeatureType& feature) override;
  void handleFeatures();
  void handleFeature(FeatureType feature);
  void withdrawNext();
  void mountFeature(FeatureType feature);
  void unmountFeature(FeatureType feature);
  [[nodiscard]] bool featureReplaced(FeatureType feature) const;

  // Parts of noteState.
  void noteMounts(StateDigest& digest) const;
  void noteCollections(StateDigest& digest) const;
  void noteStages(StateDigest& digest) const;

  ServerArguments arguments_;
  Tracer tracer_{"KilnEmServerSm"};
  Ref<TaskScheduler> scheduler_;
  Ref<DependencyStatusRecord> dependencyStatus_;
  /// Where the single composers and resolvers report; the map's stages that they make up are reported from
  /// it.
  Ref<DependencyStatusRecord> partStatus_;

  Ref<ResourceTableSm> resourceTableSm_;
  Ref<IsemSrvConfigSm> isemSrvConfigSm_;
  Ref<EsemSrvConfigSm> esemSrvConfigSm_;
  Ref<LemSrvConfigSm> lemSrvConfigSm_;
  Ref<EmSrvConfigMergeSm> emSrvConfigMergeSm_;
  std::map<EmComposerKeyUnionTag, Ref<ComposerSelectorSm>> composerSelectorSm_;
  std::map<ResolverKeyUnionTag, Ref<ResolverVd>> resolverSm_;
  std::map<EmComposerKeyUnionTag, Ref<ComposerSm>> composerSm_;
  std::map<EmComposerKeyUnionTag, Ref<SwKeyTranslationSm>> swKeyTranslationSm_;
  Ref<ComposerOutputMergeSm> composerOutputMergeSm_;
  Ref<EmKeyMergeSm> emKeyMergeSm_;
  Ref<EmConflictSm> emConflictSm_;
  std::map<KilnMdb::PhysicalTableId, Ref<TableRoom>> tableRooms_;
  std::map<EmResolvedKeyUnionTag, Ref<EmSwTableWriterSm>> swTableWriterSm_;
  Ref<ReconcileCompleteSm> reconcileCompleteSm_;
  Ref<EmSwTableStatusSm> swTableStatusSm_;
  Ref<MdbLocalStatusSm> mdbLocalStatusSm_;
  Ref<MdbCapabilitiesSm> mdbCapabilitiesSm_;
  Ref<SemCapacitySm> semCapacitySm_;
  Ref<EmStatusSm> emStatusSm_;
  Ref<ResolvedKeyStatusSm> resolvedKeyStatusSm_;
  std::map<FeatureType, Ref<IsemSrvStatusSm>> isemSrvStatusSm_;
  std::map<FeatureType, Ref<EsemSrvStatusSm>> esemSrvStatusSm_;
  std::map<FeatureType, Ref<LemSrvStatusSm>> lemSrvStatusSm_;

  /// A status stage of a feature that went. It withdraws its statuses in slices; one that takes its place,
  /// because the feature came back meanwhile, is created after that.
  struct Leaving {
    FeatureType feature;
    Ref<Stage> stage;
  };
  std::deque<Leaving> leaving_;
  PendingKeys<FeatureType> changedFeatures_;
  std::unique_ptr<Task> featureTask_;
  std::unique_ptr<DependencyManagerSm> dependencyManagerSm_;
};

/// Creates the server and starts it.
Ref<KilnEmServerSm> kilnEmServerSmFactory(ServerArguments arguments);

/// The same with each argument by itself: the eight that every server takes, then the table interface of each
/// key type, in any order. An interface that is missing does not compile.
template <class... Interfaces>
Ref<KilnEmServerSm> kilnEmServerSmFactory(
    Ref<KilnPlatform::StateStore> entityManager, Ref<Asic::OrderedTableInterface> orderedTableInterface,
    Ref<const Hardware::Kiln::Status> hardwareStatus, Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
    Ref<KilnPlatform::TableCapacity> tableCapacity,
    Ref<const KilnTunnelNiLib::SemCapacityExternalDir> semCapacityExternalDir,
    Ref<KilnVlanDomain::VlanDomainConfig> vlanDomainConfig,
    Ref<const KilnVlanDomain::VlanDomainStatus> vlanDomainStatus, const Ref<Interfaces>&... tables) {
  return kilnEmServerSmFactory(ServerArguments{
      std::move(entityManager), std::move(orderedTableInterface), std::move(hardwareStatus),
      std::move(hardwareMdbStatus), std::move(tableCapacity), std::move(semCapacityExternalDir),
      std::move(vlanDomainConfig), std::move(vlanDomainStatus), Asic::TableInterfaces(tables...)});
}

}  // namespace KilnEmServer
