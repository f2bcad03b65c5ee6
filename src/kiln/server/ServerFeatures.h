// Features that are added and removed while the server runs.
#pragma once

#include <deque>
#include <memory>
#include <string>

#include "kiln/platform/EmKeys.h"
#include "kiln/platform/StateStore.h"
#include "kiln/runtime/collections/PendingKeys.h"
#include "kiln/runtime/stage/Stage.h"
#include "kiln/server/DependencyManagerSm.h"
#include "kiln/server/ServerEntities.h"
#include "kiln/server/StageRow.h"

namespace KilnEmServer {

/// Mounts the features' collections, and creates and ends the stages that exist for a feature. Such a stage
/// withdraws its statuses in slices; one that takes its place, because the feature was added again in the
/// meantime, is created after that.
class ServerFeatures final : private KilnPlatform::KeySubscriber<FeatureType> {
 public:
  /// Mounts the features that are present.
  ServerFeatures(Ref<KilnPlatform::StateStore> store, ServerEntities& entities);
  ~ServerFeatures();
  ServerFeatures(const ServerFeatures&) = delete;
  ServerFeatures& operator=(const ServerFeatures&) = delete;

  /// Follows features from here on. Wiring and manager must outlive this object.
  void follow(Wiring& wiring, const DependencyManagerSm& manager, Ref<DependencyStatus> dependencyStatus,
              StageControl control);
  /// Describes which collections are mounted, and the stages that withdraw their statuses.
  void noteState(StateDigest& digest) const;

 private:
  /// A status stage of a feature that was removed.
  struct Leaving {
    FeatureType feature;
    Ref<Stage> stage;
  };

  void handleChange(const FeatureType& feature) override;
  void handleFeatures();
  void handleFeature(FeatureType feature);
  void withdrawNext();
  void mount(FeatureType feature);
  void unmount(FeatureType feature);
  void createStages(FeatureType feature);
  [[nodiscard]] bool present(FeatureType feature) const { return store_->features().has(feature); }
  [[nodiscard]] bool replaced(FeatureType feature) const;
  void noteMounts(StateDigest& digest) const;
  /// Calls `visitor(entity, function)` with each collection by feature, and the store's function that tells
  /// the collection of one feature.
  template <class Visitor>
  void forEachMount(Visitor&& visitor) const;
  /// Calls `visitor(row)` with each row of the feature.
  template <class Visitor>
  void forEachRow(FeatureType feature, Visitor&& visitor) const;

  Ref<KilnPlatform::StateStore> store_;
  ServerEntities& entities_;
  Tracer tracer_{"KilnEmServerSm"};
  Wiring* wiring_ = nullptr;  ///< null until features are followed
  const DependencyManagerSm* manager_ = nullptr;
  Ref<DependencyStatus> dependencyStatus_;
  StageControl control_;
  std::deque<Leaving> leaving_;
  PendingKeys<FeatureType> changed_;
  std::unique_ptr<Task> task_;
};

}  // namespace KilnEmServer
