// The agent around the server: the server, and everything that it is created with.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kiln/agent/chip/ChipConfig.h"
#include "kiln/agent/chip/SoftChip.h"
#include "kiln/agent/host/ReconcileMonitor.h"
#include "kiln/agent/platform/CooperativeScheduler.h"
#include "kiln/agent/platform/VlanDomainService.h"
#include "kiln/agent/store/DurableStore.h"
#include "kiln/agent/store/MemoryStateStore.h"
#include "kiln/agent/store/StateDirectory.h"
#include "kiln/platform/TableCapacity.h"
#include "kiln/platform/TraceSink.h"
#include "kiln/runtime/stage/StateDigest.h"

namespace KilnEmServer {
class Server;
}

namespace KilnAgent {

/// Destinations and levels of the traces.
struct TraceOptions {
  int level = 0;                                    ///< the highest level that passes
  std::vector<std::pair<std::string, int>> stages;  ///< part of a stage's name, and the level for such stages
  std::string file;                                 ///< written in place of standard error
  bool standardError = false;                       ///< if there is no file
  bool mayLose = false;               ///< drop lines that the reader of standard error does not take
  Ref<KilnPlatform::TraceSink> sink;  ///< an additional sink; may be null
};

/// The options of an agent.
struct AgentOptions {
  ChipConfig chip = defaultChip();
  std::optional<std::uint64_t> seed;  ///< shuffles tasks and answers; both keep their order without it
  std::uint32_t yieldEvery = 0;       ///< slices yield after this many items; 0 never
  /// Without `yieldEvery`, slices yield after this much time. Such runs are not repeatable.
  std::optional<std::chrono::nanoseconds> sliceBudget;
  std::string state;  ///< directory of the state that outlives the process; empty for none
  Durability durability = Durability::power;  ///< of the committed state
  TraceOptions traces;
};

/// Adds sinks and levels to the trace facility for its lifetime.
class ScopedTraces {
 public:
  /// Throws InputError if the file cannot be written.
  explicit ScopedTraces(const TraceOptions& options);
  ~ScopedTraces();
  ScopedTraces(const ScopedTraces&) = delete;
  ScopedTraces& operator=(const ScopedTraces&) = delete;

 private:
  void add(Ref<KilnPlatform::TraceSink> sink);
  std::vector<Ref<KilnPlatform::TraceSink>> sinks_;
};

/// Owns the scheduler, the state store, the VLAN-domain service, the chip and the server that uses them.
/// Store and chip are kept when the server is destroyed.
class EmbeddedAgent {
 public:
  /// Also creates the server; it runs when the scheduler runs. With a state directory, the agent takes over
  /// the state of the previous one. Throws InputError if that is not possible.
  explicit EmbeddedAgent(const AgentOptions& options);
  ~EmbeddedAgent();
  EmbeddedAgent(const EmbeddedAgent&) = delete;
  EmbeddedAgent& operator=(const EmbeddedAgent&) = delete;

  [[nodiscard]] CooperativeScheduler& scheduler() { return *scheduler_; }
  [[nodiscard]] const CooperativeScheduler& scheduler() const { return *scheduler_; }
  [[nodiscard]] MemoryStateStore& store() { return *store_; }
  [[nodiscard]] const MemoryStateStore& store() const { return *store_; }
  [[nodiscard]] SoftChip& chip() { return *chip_; }
  [[nodiscard]] const SoftChip& chip() const { return *chip_; }
  [[nodiscard]] VlanDomainService& vlanDomains() { return *vlanDomains_; }
  [[nodiscard]] const VlanDomainService& vlanDomains() const { return *vlanDomains_; }
  [[nodiscard]] const KilnPlatform::TableCapacity& capacity() const { return *capacity_; }
  /// The external users of the service exact-match tables.
  [[nodiscard]] KilnTunnelNiLib::SemCapacityExternalDir& externalUsers() { return *externalUsers_; }
  [[nodiscard]] const KilnTunnelNiLib::SemCapacityExternalDir& externalUsers() const {
    return *externalUsers_;
  }
  [[nodiscard]] const KilnEmServer::Server& server() const { return *server_; }

  [[nodiscard]] const ReconcileMonitor& reconcileMonitor() const { return *reconcileMonitor_; }
  /// Null without a state directory.
  [[nodiscard]] const DurableStore* durable() const { return durable_.get(); }
  /// Makes every change so far durable; does nothing without a state directory. Uncommitted changes are lost
  /// when the agent ends.
  void commit() {
    if (durable_ != nullptr) durable_->commit();
  }

  /// Runs until nothing is pending.
  void settle() {
    scheduler_->runUntilIdle();
    noteQuiet();
  }
  /// To be called after the scheduler ran until nothing was pending.
  void noteQuiet() { reconcileMonitor_->quiet(*server_); }
  /// Destroys the server and creates it again over the same store and chip.
  void restart();
  /// As restart, but as if the process had died: no action of the server's shutdown takes effect. With
  /// `lost`, the store's changes since its last commit are lost as well.
  void crash(bool lost = false);

  /// Describes the server and everything that it uses. Two agents with the same options and the same state
  /// behave the same afterwards, if they get the same operations and the same tasks are chosen. Data that is
  /// only reported is left out, and so are the waiting time of a ready task and the state directory.
  void noteState(KilnEmServer::StateDigest& digest) const;

 private:
  void noteCapacity(KilnEmServer::StateDigest& digest) const;
  void createServer();

  ScopedTraces traces_;
  std::optional<StateDirectory> directory_;
  Ref<CooperativeScheduler> scheduler_;
  Ref<MemoryStateStore> store_;
  std::unique_ptr<VlanDomainService> vlanDomains_;
  std::unique_ptr<DurableStore> durable_;
  Ref<SoftChip> chip_;
  Ref<KilnPlatform::TableCapacity> capacity_;
  Ref<KilnTunnelNiLib::SemCapacityExternalDir> externalUsers_;
  std::unique_ptr<ReconcileMonitor> reconcileMonitor_;
  Ref<KilnEmServer::Server> server_;
};

}  // namespace KilnAgent
