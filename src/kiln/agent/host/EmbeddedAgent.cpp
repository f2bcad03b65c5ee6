#include "kiln/agent/host/EmbeddedAgent.h"

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

#include "kiln/agent/host/DroppingTraceSink.h"
#include "kiln/agent/io/InputError.h"
#include "kiln/agent/platform/YieldPolicies.h"
#include "kiln/runtime/trace/Trace.h"
#include "kiln/server/ServerArguments.h"

namespace KilnAgent {
namespace {

std::unique_ptr<KilnPlatform::YieldPolicy> yieldPolicy(const AgentOptions& options) {
  if (options.yieldEvery != 0) return std::make_unique<EveryItems>(options.yieldEvery);
  if (options.sliceBudget) return std::make_unique<TimeBudget>(*options.sliceBudget);
  return nullptr;
}

}  // namespace

ScopedTraces::ScopedTraces(const TraceOptions& options) {
  auto& facility = KilnEmServer::TraceFacility::instance();
  facility.levelIs(options.level);
  for (const auto& [part, level] : options.stages) facility.stageLevelIs(part, level);
  if (!options.file.empty()) {
    try {
      add(std::make_shared<KilnEmServer::FileTraceSink>(options.file));
    } catch (const std::runtime_error& error) {
      throw InputError(error.what());
    }
  } else if (options.standardError && options.mayLose) {
    add(std::make_shared<DroppingTraceSink>(STDERR_FILENO));
  } else if (options.standardError) {
    add(std::make_shared<KilnEmServer::StreamTraceSink>(stderr));
  }
  if (options.sink) add(options.sink);
}

ScopedTraces::~ScopedTraces() {
  auto& facility = KilnEmServer::TraceFacility::instance();
  for (const auto& sink : sinks_) facility.sinkDel(sink);
  facility.stageLevelDelAll();
  facility.levelIs(0);
}

void ScopedTraces::add(Ref<KilnPlatform::TraceSink> sink) {
  KilnEmServer::TraceFacility::instance().sinkIs(sink);
  sinks_.push_back(std::move(sink));
}

EmbeddedAgent::EmbeddedAgent(const AgentOptions& options)
    : traces_(options.traces),
      directory_(options.state.empty() ? std::nullopt : std::optional<StateDirectory>(options.state)),
      scheduler_(std::make_shared<CooperativeScheduler>(yieldPolicy(options), options.seed)),
      store_(std::make_shared<MemoryStateStore>(scheduler_)),
      vlanDomains_(std::make_unique<VlanDomainService>(scheduler_, options.chip.vlanDomains)),
      durable_(directory_ ? std::make_unique<DurableStore>(directory_->store(), options.durability, *store_,
                                                           *vlanDomains_)
                          : nullptr),
      chip_(std::make_shared<SoftChip>(options.chip, scheduler_, options.seed,
                                       directory_ ? directory_->chip() : std::string())),
      capacity_(std::make_shared<KilnPlatform::TableCapacity>(
          makeCollection<KilnPlatform::TableCapacityKey, KilnPlatform::TableCapacityEntry>())),
      externalUsers_(std::make_shared<KilnTunnelNiLib::SemCapacityExternalDir>(
          makeCollection<std::string, KilnTunnelNiLib::SemCapacityExternal>())),
      reconcileMonitor_(std::make_unique<ReconcileMonitor>(*store_, *chip_, *vlanDomains_->config(),
                                                           *vlanDomains_->status())) {
  reconcileMonitor_->agentStarts();
  createServer();
}

EmbeddedAgent::~EmbeddedAgent() {
  server_.reset();
  chip_->serverDied();  // its answers may hold references into the chip's tables
}

void EmbeddedAgent::createServer() {
  server_ = KilnEmServer::kilnEmServerSmFactory({store_, chip_, chip_->chipStatus(), chip_->mdbStatus(),
                                                 capacity_, externalUsers_, vlanDomains_->config(),
                                                 vlanDomains_->status(), chip_->interfaces()});
}

void EmbeddedAgent::restart() {
  chip_->applyIssued();
  reconcileMonitor_->restartBegins(server_.get());
  server_.reset();
  chip_->serverEnded();
  createServer();
}

void EmbeddedAgent::crash(bool lost) {
  scheduler_->forgetAll();
  store_->forgetServer();
  if (lost) store_->revert();
  chip_->serverDied();
  vlanDomains_->forgetServer();
  forgetSubscribers(externalUsers_->user());
  reconcileMonitor_->restartBegins(server_.get());
  server_.reset();
  createServer();
}

void EmbeddedAgent::noteState(KilnEmServer::StateDigest& digest) const {
  digest.begin("ready tasks");
  digest.unordered([&](auto&& item) {
    scheduler_->forEachReady([&](const KilnPlatform::Task& task) { item(task.instance(), task.name()); });
  });
  store_->noteState(digest);
  vlanDomains_->noteState(digest);
  chip_->noteState(digest);
  noteCapacity(digest);
  server_->noteState(digest);
}

void EmbeddedAgent::noteCapacity(KilnEmServer::StateDigest& digest) const {
  digest.begin("capacity", &capacity_->entry());
  digest.walked([&](auto&& item) {
    KilnPlatform::forEachIn(capacity_->entry(), [&](const auto& key, const auto& row) {
      item(key, row.used, row.free, row.committed, row.maxLimit);
    });
  });
  digest.addPart("externalUsers", externalUsers_->user());
}

}  // namespace KilnAgent
