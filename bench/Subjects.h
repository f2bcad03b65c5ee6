// The measured subjects: the whole server, and the parts of it that are the agent's.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench/Requests.h"
#include "kiln/agent/chip/SoftChip.h"
#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/platform/CooperativeScheduler.h"
#include "kiln/agent/platform/VlanDomainService.h"
#include "kiln/agent/service/CommitPace.h"
#include "kiln/agent/store/MemoryStateStore.h"
#include "kiln/server/KilnEmServer.h"

namespace KilnBench {

using KilnPlatform::Ref;

/// A chip whose tables have room for all benchmarks.
KilnAgent::ChipConfig roomyChip();

/// The server over the embedded agent's chip, VLAN-domain service and in-memory store, without the agent's
/// monitor of restarts.
class WholeServer {
 public:
  explicit WholeServer(RequestMix mix = kMixed,
                       std::optional<std::chrono::nanoseconds> sliceBudget = std::nullopt);
  ~WholeServer();
  WholeServer(const WholeServer&) = delete;
  WholeServer& operator=(const WholeServer&) = delete;

  void publish(std::uint32_t n, std::uint32_t version);
  void withdraw(std::uint32_t n);
  /// Runs until nothing is pending.
  void settle() { scheduler_->runUntilIdle(); }
  /// Destroys the server; store and chip are kept.
  void stop();
  /// Creates the server. It is ready when it has settled.
  void start();
  /// Number of requests whose status says that the hardware has this version.
  [[nodiscard]] std::uint32_t settled(std::uint32_t version) const;

  [[nodiscard]] KilnAgent::CooperativeScheduler& scheduler() { return *scheduler_; }
  [[nodiscard]] KilnAgent::MemoryStateStore& store() { return *store_; }
  [[nodiscard]] const KilnAgent::MemoryStateStore& store() const { return *store_; }
  [[nodiscard]] KilnAgent::VlanDomainService& vlanDomains() { return vlanDomains_; }

 private:
  RequestMix mix_;
  Ref<KilnAgent::CooperativeScheduler> scheduler_;
  Ref<KilnAgent::MemoryStateStore> store_;
  KilnAgent::VlanDomainService vlanDomains_;
  Ref<KilnAgent::SoftChip> chip_;
  Ref<KilnEmServer::Server> server_;
};

/// The whole server, with features that submit their requests in lists.
class ServerWithLists {
 public:
  explicit ServerWithLists(RequestMix mix = kMixed) : mix_(mix), server_(mix) {}
  void publish(std::uint32_t n, std::uint32_t version) { lists_.add(publicationOf(mix_, n, version)); }
  void withdraw(std::uint32_t n) { lists_.add(withdrawalOf(mix_, n)); }
  void handIn() { lists_.handIn(server_.store()); }
  void settle() { server_.settle(); }
  void stop() { server_.stop(); }
  void start() { server_.start(); }
  [[nodiscard]] std::uint32_t settled(std::uint32_t version) const { return server_.settled(version); }

 private:
  RequestMix mix_;
  RequestLists lists_;
  WholeServer server_;
};

/// The whole server, with features that submit their requests one by one.
class ServerOneByOne {
 public:
  void publish(std::uint32_t n, std::uint32_t version) { made_.push_back(publicationOf(kMixed, n, version)); }
  void withdraw(std::uint32_t n) { made_.push_back(withdrawalOf(kMixed, n)); }
  void handIn();
  void settle() { server_.settle(); }
  void stop() { server_.stop(); }
  void start() { server_.start(); }
  [[nodiscard]] std::uint32_t settled(std::uint32_t version) const { return server_.settled(version); }

 private:
  std::vector<MadeRequest> made_;
  WholeServer server_;
};

/// The store alone: the requests, and the statuses that a server would publish.
class StoreAlone {
 public:
  StoreAlone();
  void publish(std::uint32_t n, std::uint32_t version) { make(publicationOf(kMixed, n, version)); }
  void withdraw(std::uint32_t n) { make(withdrawalOf(kMixed, n)); }
  void handIn();
  void settle() {}
  [[nodiscard]] std::uint32_t settled(std::uint32_t version) const;

 private:
  void make(const MadeRequest& made);

  RequestLists lists_;
  std::vector<MadeRequest> made_;  ///< the same, for their statuses
  KilnAgent::MemoryStateStore store_;
};

/// The chip alone: the table operations that a server would issue for the requests, and their answers.
class ChipAlone {
 public:
  ChipAlone();
  ~ChipAlone();
  ChipAlone(const ChipAlone&) = delete;
  ChipAlone& operator=(const ChipAlone&) = delete;
  void publish(std::uint32_t n, std::uint32_t version) { made_.push_back(publicationOf(kMixed, n, version)); }
  void withdraw(std::uint32_t n) { made_.push_back(withdrawalOf(kMixed, n)); }
  void handIn();
  void settle() { scheduler_->runUntilIdle(); }
  /// Ends the writer of the entries: all entries must be written again until `reconciled`.
  void stop();
  void reconciled();
  /// Number of entries in the tables; the version in their content is not checked.
  [[nodiscard]] std::uint32_t settled(std::uint32_t version) const;

 private:
  std::vector<MadeRequest> made_;
  Ref<KilnAgent::CooperativeScheduler> scheduler_;
  Ref<KilnAgent::SoftChip> chip_;
  std::uint64_t answers_ = 0;
};

/// The whole agent: without a state directory if no durability is given, otherwise with one of its own, which
/// is removed with it. Changes are committed at the end, and before that as often as a serving agent without
/// idle time would do it.
class WholeAgent {
 public:
  explicit WholeAgent(std::optional<KilnAgent::Durability> durability = std::nullopt);
  ~WholeAgent();
  WholeAgent(const WholeAgent&) = delete;
  WholeAgent& operator=(const WholeAgent&) = delete;
  void publish(std::uint32_t n, std::uint32_t version) { lists_.add(publicationOf(kMixed, n, version)); }
  void withdraw(std::uint32_t n) { lists_.add(withdrawalOf(kMixed, n)); }
  void handIn() { lists_.handIn(agent_->store()); }
  void settle();
  /// Commits the remaining changes, if there is a state directory.
  void finish() { agent_->commit(); }
  [[nodiscard]] std::uint32_t settled(std::uint32_t version) const;

 private:
  std::string directory_;  ///< empty if there is none
  RequestLists lists_;
  std::unique_ptr<KilnAgent::EmbeddedAgent> agent_;
  KilnAgent::CommitPace pace_;  ///< as in a serving agent
};

}  // namespace KilnBench
