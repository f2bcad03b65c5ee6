// The exact-match server: owns every collection that passes between stages, and every stage.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kiln/program/EmSwTableWriterSm.h"
#include "kiln/runtime/stage/DependencyStatus.h"
#include "kiln/server/DependencyManagerSm.h"
#include "kiln/server/KilnEmServer.h"
#include "kiln/server/ServerArguments.h"
#include "kiln/server/ServerEntities.h"
#include "kiln/server/ServerFeatures.h"
#include "kiln/server/ServerStages.h"
#include "kiln/server/StageRow.h"

namespace KilnEmServer {

/// Whether a composer type goes through a resolver, rather than being translated directly. `undefined` is an
/// assertion failure.
bool resolutionNeeded(EmComposerKeyUnionTag composerType);

/// The top of the server.
class KilnEmServerSm final : public Server,
                             public ServerEntities,
                             public ServerStages,
                             private KilnPlatform::KeySubscriber<std::string> {
 public:
  explicit KilnEmServerSm(ServerArguments arguments);
  ~KilnEmServerSm() override;

  /// To be called once: creates all collections, then sets the stages up.
  void handleInitialized();

  [[nodiscard]] const DependencyStatusRecord& dependencyStatus() const override { return *dependencyStatus_; }
  [[nodiscard]] bool isComplete(const std::string& stage) const override {
    return dependencyStatus_->completedHas(stage);
  }
  [[nodiscard]] std::vector<StageProgress> reconcileProgress() const override;
  [[nodiscard]] StageGraph graph() const override { return dependencyManagerSm_->graph(); }
  [[nodiscard]] NamedSizes leftovers() const override;
  [[nodiscard]] std::vector<const StageBase*> stages() const override;
  void noteState(StateDigest& digest) const override;
  [[nodiscard]] const EmConflictStatus& conflicts() const override { return *emConflictStatus(); }
  [[nodiscard]] const EmSwTableConfig& winners() const override { return *emSwTableConfig(); }
  [[nodiscard]] std::vector<Ref<const ResourceTable>> resourceTables() const override {
    return {isemResourceTable(), esemResourceTable(), lemResourceTable()};
  }
  [[nodiscard]] Ref<const SemCapacitySm> capacity() const override { return semCapacitySm(); }

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

}  // namespace KilnEmServer
