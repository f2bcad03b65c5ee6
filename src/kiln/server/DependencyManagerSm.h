// Releases the stages of the server's stage map.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kiln/platform/DependencyManager.h"
#include "kiln/platform/DependencyStatus.h"
#include "kiln/platform/InplaceFunction.h"
#include "kiln/platform/Ref.h"
#include "kiln/platform/TaskScheduler.h"
#include "kiln/runtime/stage/Stage.h"
#include "kiln/server/StageGraph.h"

namespace KilnEmServer {

/// A stage is released when every collection in its list exists, and every other stage that writes a
/// collection which it reads has reported. What a stage writes itself is no gate, nor is what it reads as
/// feedback. Released stages are created one by one, on a task.
class DependencyManagerSm final : public StageBase,
                                  public KilnPlatform::DependencyManager,
                                  private KilnPlatform::KeySubscriber<std::string> {
 public:
  /// Whether a collection exists, by its name.
  using CollectionExists = KilnPlatform::InplaceFunction<bool(const std::string&), 16>;

  DependencyManagerSm(std::string name, Ref<KilnPlatform::TaskScheduler> scheduler, int priority,
                      Ref<KilnPlatform::DependencyStatus> dependencyStatus,
                      CollectionExists collectionExists);
  ~DependencyManagerSm() override;

  void registerStageMap(KilnPlatform::StageMap stageMap) override;
  void start() override;

  /// Whether a stage's action has run.
  [[nodiscard]] bool released(const std::string& stage) const;
  /// Collections that do not exist and stages that are not complete, for which a stage waits that is not
  /// released.
  [[nodiscard]] std::vector<std::string> waitsFor(const std::string& stage) const;
  using StageBase::waitsFor;
  [[nodiscard]] StageGraph graph() const;
  /// What a release creates reads more.
  [[nodiscard]] bool addReads(std::vector<const void*>& /*collections*/) const override { return false; }
  /// Which stages were released; the collections that they waited for exist from the start.
  void noteState(StateDigest& digest) const override {
    digest.begin(StageBase::name());
    for (const ManagedStage& stage : stages_) digest.add(stage.released);
  }

 private:
  struct ManagedStage {
    KilnPlatform::StageMapEntry entry;
    std::vector<std::string> gates;
    bool released = false;
  };

  void handleChange(const std::string& name) override;
  void release();
  [[nodiscard]] std::vector<std::string> gatesOf(const KilnPlatform::StageMapEntry& entry) const;
  [[nodiscard]] std::vector<std::string> missing(const ManagedStage& stage) const;
  [[nodiscard]] bool releasable(const ManagedStage& stage) const;

  Ref<KilnPlatform::TaskScheduler> scheduler_;
  Ref<KilnPlatform::DependencyStatus> dependencyStatus_;
  mutable CollectionExists collectionExists_;  ///< asking changes nothing
  std::vector<ManagedStage> stages_;
  KilnPlatform::Task task_;
  bool started_ = false;
};

}  // namespace KilnEmServer
