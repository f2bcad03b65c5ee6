// The exact-match server: owns every collection that passes between stages, and every stage.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kiln/platform/Asic.h"
#include "kiln/platform/Hardware.h"
#include "kiln/platform/KilnVlanDomain.h"
#include "kiln/platform/StateStore.h"
#include "kiln/platform/TableCapacity.h"
#include "kiln/program/EmSwTableWriterSm.h"
#include "kiln/runtime/stage/DependencyStatus.h"
#include "kiln/server/DependencyManagerSm.h"
#include "kiln/server/ReconcileProgress.h"
#include "kiln/server/ServerEntities.h"
#include "kiln/server/ServerFeatures.h"
#include "kiln/server/ServerStages.h"
#include "kiln/server/StageGraph.h"
#include "kiln/server/StageRow.h"

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

/// The top of the server. It lives as long as its agent keeps it; destroying it stops every stage and leaves
/// statuses and tables as they are, for the next server to take up.
class KilnEmServerSm final : public ServerEntities,
                             public ServerStages,
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
  [[nodiscard]] NamedSizes leftovers() const;
  /// Describes all that the server owns: what it does next depends on this, on what it was handed and on
  /// which tasks are ready.
  void noteState(StateDigest& digest) const;
  /// Every stage that exists, in the order of the road of an entry; last the dependency manager.
  [[nodiscard]] std::vector<const StageBase*> stages() const;

 private:
  // Set-up, in its fixed order.
  void createCollections();
  void setupStages();
  [[nodiscard]] bool entityExists(const std::string& name) const;
  void finalizeStartup();
  /// A stage is complete.
  void handleChange(const std::string& name) override;

  // The rows of the stage map.
  void wireStages();
  void wireIntake();
  void wireComposition();
  void wireProgramming();
  void wireStatus();
  /// The room of the physical table in which the entries of a table are stored.
  Ref<TableRoom> tableRoomOf(EmResolvedKeyUnionTag tag);

  ServerArguments arguments_;
  Tracer tracer_{"KilnEmServerSm"};
  Ref<TaskScheduler> scheduler_;
  Ref<DependencyStatusRecord> dependencyStatus_;
  /// Where the parts of stages report that consist of several.
  Ref<DependencyStatusRecord> partStatus_;
  std::map<KilnMdb::PhysicalTableId, Ref<TableRoom>> tableRooms_;
  std::unique_ptr<Wiring> wiring_;
  std::unique_ptr<DependencyManagerSm> dependencyManagerSm_;
  std::unique_ptr<ServerFeatures> features_;
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
