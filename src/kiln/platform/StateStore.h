// The agent's state store as the server sees it.
#pragma once

#include "kiln/platform/Collection.h"
#include "kiln/platform/EmKeys.h"
#include "kiln/platform/KilnTunnelNiLib.h"
#include "kiln/platform/Ref.h"
#include "kiln/platform/TaskScheduler.h"
#include "kiln/platform/Value.h"

namespace KilnPlatform {

/// The entity manager of the mounted state store. Its entities outlive the server: a restarted server finds
/// in them what the previous server left.
class StateStore {
 public:
  using Features = KeyedCollection<KilnEmServer::FeatureType, Unit>;

  virtual ~StateStore() = default;
  StateStore(const StateStore&) = delete;
  StateStore& operator=(const StateStore&) = delete;

  /// The features whose collections exist. When a feature is removed, its request and status collections of
  /// all databases are removed with it; a feature that is added again has new, empty ones.
  [[nodiscard]] virtual const Features& features() const = 0;

  // A present feature's request and status collections, created if they do not exist yet; null for a feature
  // that is not present.
  virtual Ref<const KilnTunnelNiLib::LemSrvConfig> lemSrvConfig(KilnEmServer::FeatureType feature) = 0;
  virtual Ref<const KilnTunnelNiLib::IsemSrvConfig> isemSrvConfig(KilnEmServer::FeatureType feature) = 0;
  virtual Ref<const KilnTunnelNiLib::EsemSrvConfig> esemSrvConfig(KilnEmServer::FeatureType feature) = 0;
  virtual Ref<KilnTunnelNiLib::LemSrvStatus> lemSrvStatus(KilnEmServer::FeatureType feature) = 0;
  virtual Ref<KilnTunnelNiLib::IsemSrvStatus> isemSrvStatus(KilnEmServer::FeatureType feature) = 0;
  virtual Ref<KilnTunnelNiLib::EsemSrvStatus> esemSrvStatus(KilnEmServer::FeatureType feature) = 0;

  /// The agent's task scheduler, created if it does not exist yet.
  virtual Ref<TaskScheduler> taskScheduler() = 0;

 protected:
  StateStore() = default;
};

}  // namespace KilnPlatform
