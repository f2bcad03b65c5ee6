#include "kiln/server/KilnEmServerSm.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "kiln/platform/Assert.h"
#include "kiln/status/SemCapacitySm.h"

namespace KilnEmServer {
namespace {

/// Priority of all stages' tasks.
constexpr int kStagePriority = 10;

}  // namespace

bool resolutionNeeded(EmComposerKeyUnionTag composerType) {
  bool needed = false;
  const bool known = visitKeyType(
      composerType, [&]<class Row>() { needed = Row::kResolver != ResolverKeyUnionTag::undefined_; });
  KILN_ASSERT_MESSAGE(known, "Unrecognized composer type {}", composerType);
  return needed;
}

KilnEmServerSm::KilnEmServerSm(ServerArguments arguments) : arguments_(std::move(arguments)) {
  const auto check = [](const auto& argument, std::string_view name) {
    if (argument == nullptr) detail::nullArgument(name, __FILE__, __LINE__);
  };
  check(arguments_.entityManager, "entityManager");
  check(arguments_.orderedTableInterface, "orderedTableInterface");
  check(arguments_.hardwareStatus, "hardwareStatus");
  check(arguments_.hardwareMdbStatus, "hardwareMdbStatus");
  check(arguments_.tableCapacity, "tableCapacity");
  check(arguments_.semCapacityExternalDir, "semCapacityExternalDir");
  check(arguments_.vlanDomainConfig, "vlanDomainConfig");
  check(arguments_.vlanDomainStatus, "vlanDomainStatus");
  forEachKeyType([&]<class Row>() { check(arguments_.tables.of<Row>(), Row::kStem.view()); });
  orderedTableInterface.is(arguments_.orderedTableInterface);
  hardwareStatus.is(arguments_.hardwareStatus);
  hardwareMdbStatus.is(arguments_.hardwareMdbStatus);
  tableCapacity.is(arguments_.tableCapacity);
  semCapacityExternalDir.is(arguments_.semCapacityExternalDir);
  vlanDomainConfig.is(arguments_.vlanDomainConfig);
  vlanDomainStatus.is(arguments_.vlanDomainStatus);
}

KilnEmServerSm::~KilnEmServerSm() {
  features_.reset();
  dependencyManagerSm_.reset();
  if (dependencyStatus_ != nullptr) dependencyStatus_->completed().unsubscribe(*this);
  if (wiring_ != nullptr) wiring_->destroyStages();
}

// --- Set-up ------------------------------------------------------------------------------------------------

void KilnEmServerSm::handleInitialized() {
  tracer_.trace<8>("handleInitialized");
  createCollections();
  setupStages();
}

void KilnEmServerSm::createCollections() {
  for (ServerEntity* entity : entities()) entity->create();
  features_ = std::make_unique<ServerFeatures>(arguments_.entityManager, *this);
  for (const KeyTypeInfo& each : kKeyTypeInfo) {
    const EmComposerKeyUnionTag type = each.composerType;
    logicalKeyConfigByComposerType()->configIs(type);
    swTableKeyConfigByComposerType()->configIs(type);
    emComposeFailure()->configIs(type);
    if (resolutionNeeded(type)) swTableKeyStatusByComposerType()->statusIs(type);
  }
  resolverConfigDir()->resolverConfigIs(ResolverKeyUnionTag::vd);
  resolverStatusDir()->resolverStatusIs(ResolverKeyUnionTag::vd);
}

void KilnEmServerSm::setupStages() {
  scheduler_ = arguments_.entityManager->taskScheduler();
  const StageControl control{scheduler_, kStagePriority};
  dependencyStatus_ = std::make_shared<DependencyStatusRecord>();
  dependencyStatus_->completed().subscribe(*this);
  partStatus_ = std::make_shared<DependencyStatusRecord>();
  wiring_ = std::make_unique<Wiring>(dependencyStatus_, partStatus_, control);
  wireStages();
  checkEachIsWired();
  dependencyManagerSm_ = std::make_unique<DependencyManagerSm>(
      "KilnEmServerDependencyManagerSm", scheduler_, kStagePriority, dependencyStatus_,
      [this](const std::string& name) { return entityExists(name); });
  features_->follow(*wiring_, *dependencyManagerSm_, dependencyStatus_, control);
  dependencyManagerSm_->registerStageMap(wiring_->stageMap());
  dependencyManagerSm_->start();
}

bool KilnEmServerSm::entityExists(const std::string& name) const {
  const auto found = std::find_if(entities().begin(), entities().end(),
                                  [&](const ServerEntity* entity) { return entity->name() == name; });
  KILN_ASSERT_MESSAGE(found != entities().end(), "a stage waits for the unknown collection {}", name);
  return (*found)->exists();
}

void KilnEmServerSm::finalizeStartup() {
  for (const auto& row : wiring_->rows()) {
    KILN_ASSERT_MESSAGE(row->isAfterEveryOther() || dependencyStatus_->completedHas(row->name()),
                        "start-up is finalized before {} is complete", row->name());
  }
  for (const StageBase* stage : stages()) {
    for (const OutputBase* output : stage->outputs()) {
      const auto& counts = output->reconciliationCounts();
      tracer_.trace<9>("{} {}: kept {}, rewritten {}, inserted {}, deleted {}", stage->name(), output->name(),
                       counts.kept, counts.rewritten, counts.inserted, counts.deleted);
    }
  }
}

void KilnEmServerSm::handleChange(const std::string& name) {
  if (name != "reconcileCompleteSmStage") return;
  swTableWriterSm.forEach([](auto /*tag*/, const Ref<EmSwTableWriterSm>& writer) { writer->retryRefused(); });
  // The tables dropped what was not written again, and notify no subscriber of it.
  if (semCapacitySm() != nullptr) semCapacitySm()->scheduleUpdate();
}

// Which key types share a physical table is the same on every FAP type.
Ref<TableRoom> KilnEmServerSm::tableRoomOf(EmResolvedKeyUnionTag tag) {
  constexpr Hardware::Kiln::FapType kAnyFapType = 3;
  const bool shared = kKeyTypeInfo[tag].memory != TableMemory::none;
  Ref<TableRoom>& room = tableRooms_[shared ? physicalTableIdForKeyType(tag, kAnyFapType) : 0];
  if (room == nullptr) room = std::make_shared<TableRoom>();
  return room;
}

// --- What there is to see ----------------------------------------------------------------------------------

std::vector<const StageBase*> KilnEmServerSm::stages() const {
  std::vector<const StageBase*> all = wiring_->stages();
  all.push_back(dependencyManagerSm_.get());
  return all;
}

std::vector<StageProgress> KilnEmServerSm::reconcileProgress() const {
  std::vector<StageProgress> all;
  for (const StageGraph::Node& node : graph().nodes) {
    StageProgress progress{
        node.stage, isComplete(node.stage), dependencyManagerSm_->waitsFor(node.stage), {}};
    wiring_->find(node.stage)->forEachStage([&](const StageBase& stage) {
      for (const OutputBase* output : stage.outputs()) {
        progress.outputs.push_back({output->name(), output->ready(), output->reconciliationCounts()});
      }
      for (std::string& work : stage.waitsFor()) progress.waitsFor.push_back(std::move(work));
    });
    all.push_back(std::move(progress));
  }
  return all;
}

NamedSizes KilnEmServerSm::leftovers() const {
  NamedSizes sizes;
  for (const ServerEntity* entity : entities()) {
    if (entity->content().emptyAtRest) entity->addSizes(sizes);
  }
  for (const StageBase* stage : stages()) {
    if (!stage->inputs().empty()) sizes.emplace_back(stage->name() + ".pending", stage->pendingCount());
    for (const LocalState* state : stage->localStates()) {
      sizes.emplace_back(fmt::format("{}.{}", stage->name(), state->name()), state->size());
    }
  }
  std::sort(sizes.begin(), sizes.end());
  return sizes;
}

void KilnEmServerSm::noteState(StateDigest& digest) const {
  for (const ServerEntity* entity : entities()) {
    if (entity->content().described) entity->noteState(digest);
  }
  digest.addPart("completed", dependencyStatus_->completed());
  digest.addPart("completedParts", partStatus_->completed());
  for (const StageBase* stage : stages()) stage->noteState(digest);
  features_->noteState(digest);
}

Ref<Server> kilnEmServerSmFactory(ServerArguments arguments) {
  auto server = std::make_shared<KilnEmServerSm>(std::move(arguments));
  server->handleInitialized();
  return server;
}

}  // namespace KilnEmServer
