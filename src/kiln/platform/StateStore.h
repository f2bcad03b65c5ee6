// The agent's state store as the server sees it.
#pragma once

#include "kiln/platform/Collection.h"
#include "kiln/platform/EmKeys.h"
#include "kiln/platform/KilnTunnelNiLib.h"
#include "kiln/platform/Ref.h"
#include "kiln/platform/TaskScheduler.h"
#include "kiln/platform/Value.h"

namespace KilnPlatform {

/// The entity manager of the mounted state store. Its entities outlive the server: what a restarted server
/// finds in them is what the one before left.
class StateStore {
 public:
  using Features = KeyedCollection<KilnEmServer::FeatureType, Unit>;

  virtual ~StateStore() = default;
  StateStore(const StateStore&) = delete;
  StateStore& operator=(const StateStore&) = delete;

  /// The features whose collections exist. A feature that goes takes its request and status collections of
  /// all databases along; one that returns has new, empty ones.
  [[nodiscard]] virtual const Features& features() const = 0;

  // A present feature's request and status collections, created where they do not exist yet; null for a
  // feature that is not present.
  virtual Ref<const KilnTunnelNiLib::LemSrvConfig> lemSrvConfig(KilnEmServer::FeatureType feature) = 0;
  virtual Ref<const KilnTunnelNiLib::IsemSrvConfig> isemSrvConfig(KilnEmServer::FeatureType feature) = 0;
  virtual Ref<const KilnTunnelNiLib::EsemSrvConfig> esemSrvConfig(KilnEmServer::FeatureType feature) = 0;
  virtual Ref<KilnTunnelNiLib::LemSrvStatus> lemSrvStatus(KilnEmServer::FeatureType feature) = 0;
  virtual Ref<KilnTunnelNiLib::IsemSrvStatus> isemSrvStatus(KilnEmServer::FeatureType feature) = 0;
  virtual Ref<KilnTunnelNiLib::EsemSrvStatus> esemSrvStatus(KilnEmServer::FeatureType feature) = 0;

  /// The agent's task scheduler, created where there is none yet.
  virtual Ref<TaskScheduler> taskScheduler() = 0;

 protected:
  StateStore() = default;
};

}  // namespace KilnPlatform
