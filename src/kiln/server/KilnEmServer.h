// The exact-match server as its agent sees it. Who creates one includes ServerArguments.h as well.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "kiln/platform/Ref.h"
#include "kiln/server/ReconcileProgress.h"
#include "kiln/server/StageGraph.h"

namespace KilnPlatform {
class DependencyStatus;
}

namespace KilnEmServer {

using KilnPlatform::Ref;

class EmConflictStatus;
class EmSwTableConfig;
class ResourceTable;
class SemCapacitySm;
class StageBase;
class StateDigest;
struct ServerArguments;

/// A server. It lives as long as its agent keeps it; destroying it stops every stage and leaves statuses and
/// tables as they are, for the next server to take up.
class Server {
 public:
  virtual ~Server() = default;
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// The names of the stages that are complete, with notification.
  [[nodiscard]] virtual const KilnPlatform::DependencyStatus& dependencyStatus() const = 0;
  /// Whether a stage of the map, by its name, is complete.
  [[nodiscard]] virtual bool isComplete(const std::string& stage) const = 0;
  /// Whether start-up is finished: every stage is complete, and everything is reconciled.
  [[nodiscard]] bool ready() const { return isComplete("finalizeStartupStage"); }
  /// How far each stage of the map has come, in the map's order.
  [[nodiscard]] virtual std::vector<StageProgress> reconcileProgress() const = 0;
  /// Who reads, who writes, who waits, of this running server.
  [[nodiscard]] virtual StageGraph graph() const = 0;
  /// Every intermediate collection, group, cache, version record and pending list, and the VLAN-domain
  /// requests, with their sizes, sorted by name. All are empty when nothing is requested and every answer is
  /// in.
  [[nodiscard]] virtual std::vector<std::pair<std::string, std::size_t>> leftovers() const = 0;
  /// Every stage that exists, in the order of the road of an entry; last the dependency manager.
  [[nodiscard]] virtual std::vector<const StageBase*> stages() const = 0;
  /// Describes all that the server owns: what it does next depends on this, on what it was handed and on
  /// which tasks are ready.
  virtual void noteState(StateDigest& digest) const = 0;

  // What reports show; each lives as long as the server.

  /// Which logical keys lost their hardware key.
  [[nodiscard]] virtual const EmConflictStatus& conflicts() const = 0;
  /// Which logical key won each hardware key.
  [[nodiscard]] virtual const EmSwTableConfig& winners() const = 0;
  /// How many entries are requested, and their outcomes; one table per database.
  [[nodiscard]] virtual std::vector<Ref<const ResourceTable>> resourceTables() const = 0;
  /// Null until start-up has come that far.
  [[nodiscard]] virtual Ref<const SemCapacitySm> capacity() const = 0;

 protected:
  Server() = default;
};

/// Creates the server and starts it.
Ref<Server> kilnEmServerSmFactory(ServerArguments arguments);

}  // namespace KilnEmServer
