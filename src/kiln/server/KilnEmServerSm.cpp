#include "kiln/server/KilnEmServerSm.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "kiln/compose/EsemFodoVdComposerSm.h"
#include "kiln/compose/Isem1TagComposerSm.h"
#include "kiln/compose/Isem2TagComposerSm.h"
#include "kiln/compose/UntaggedComposerSm.h"
#include "kiln/platform/Assert.h"
#include "kiln/program/SwTableWriters.h"

namespace KilnEmServer {
namespace {

/// Priority of all stages' tasks.
constexpr int kStagePriority = 10;
/// Priority of the updates of the capacity table: whatever else is ready goes first.
constexpr int kCapacityPriority = -10;

/// The all-FAP table of an interface, for the writers that hold the table itself; null where it is missing or
/// of another class. The reference shares the interface's ownership.
template <class Table, class Interface>
Ref<Table> tableOf(const Ref<Interface>& interface) {
  auto* table = dynamic_cast<Table*>(interface->orderedSwTable(Asic::UnitId::allFap()));
  return Ref<Table>(interface, table);
}

/// The name under which the part for one type of a stage of the map reports.
template <class Type>
std::string partName(std::string_view stage, Type type) {
  return fmt::format("{}-{}", stage, type);
}

constexpr std::array kResolverTypes{ResolverKeyUnionTag::vd};
const std::vector<EmComposerKeyUnionTag> kResolvingComposerTypes = [] {
  std::vector<EmComposerKeyUnionTag> types;
  for (const KeyTypeInfo& type : kKeyTypeInfo) {
    if (resolutionNeeded(type.composerType)) types.push_back(type.composerType);
  }
  return types;
}();

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
}

// Writers go first, so that no answer finds a stage that is half gone, then the stages, last the collections.
KilnEmServerSm::~KilnEmServerSm() {
  if (featureTask_ != nullptr) arguments_.entityManager->features().unsubscribe(*this);
  featureTask_.reset();
  dependencyManagerSm_.reset();
  if (dependencyStatus_ != nullptr) {
    dependencyStatus_->completed().unsubscribe(*this);
    partStatus_->completed().unsubscribe(*this);
  }
  semCapacitySm_.reset();  // it holds the writers as well
  swTableWriterSm_.clear();
  reconcileCompleteSm_.reset();
  isemSrvStatusSm_.clear();
  esemSrvStatusSm_.clear();
  lemSrvStatusSm_.clear();
  leaving_.clear();
  resolvedKeyStatusSm_.reset();
  emStatusSm_.reset();
  swTableStatusSm_.reset();
  mdbCapabilitiesSm_.reset();
  mdbLocalStatusSm_.reset();
  emConflictSm_.reset();
  emKeyMergeSm_.reset();
  composerOutputMergeSm_.reset();
  swKeyTranslationSm_.clear();
  composerSm_.clear();
  resolverSm_.clear();
  composerSelectorSm_.clear();
  emSrvConfigMergeSm_.reset();
  isemSrvConfigSm_.reset();
  esemSrvConfigSm_.reset();
  lemSrvConfigSm_.reset();
  resourceTableSm_.reset();
}

// --- Set-up ------------------------------------------------------------------------------------------------

void KilnEmServerSm::handleInitialized() {
  tracer_.trace<8>("handleInitialized");
  createCollections();
  mountFeatures();
  setupStages();
}

void KilnEmServerSm::createCollections() {
  isemSrvConfigByFeatureIs();
  esemSrvConfigByFeatureIs();
  lemSrvConfigByFeatureIs();
  isemSrvStatusByFeatureIs();
  esemSrvStatusByFeatureIs();
  lemSrvStatusByFeatureIs();
  emLogicalKeyToEntryIs();
  emTypeToConfigIs();
  logicalKeyConfigByComposerTypeIs();
  swTableKeyStatusByComposerTypeIs();
  resolverConfigDirIs();
  resolverStatusDirIs();
  swTableKeyConfigIs();
  swTableKeyConfigByComposerTypeIs();
  emMergedEntryIs();
  emConflictStatusIs();
  emSwTableConfigIs();
  emSwTableStatusIs();
  emLogicalKeyToStatusIs();
  emStatusMergedIs();
  mdbCapabilitiesConfigIs();
  mdbCapabilitiesStatusIs();
  mdbLocalStatusIs();
  emComposeFailureIs();
  emWrittenKeysIs();
  isemResourceTableIs();
  esemResourceTableIs();
  lemResourceTableIs();
}

void KilnEmServerSm::mountFeatures() {
  KilnPlatform::forEachEnumValue<FeatureType>([this](FeatureType feature) {
    if (arguments_.entityManager->features().has(feature)) mountFeature(feature);
  });
  for (const KeyTypeInfo& each : kKeyTypeInfo) {
    const EmComposerKeyUnionTag type = each.composerType;
    logicalKeyConfigByComposerType_->configIs(type);
    swTableKeyConfigByComposerType_->configIs(type);
    emComposeFailure_->configIs(type);
    if (resolutionNeeded(type)) swTableKeyStatusByComposerType_->statusIs(type);
  }
  resolverConfigDir_->resolverConfigIs(ResolverKeyUnionTag::vd);
  resolverStatusDir_->resolverStatusIs(ResolverKeyUnionTag::vd);
}

void KilnEmServerSm::setupStages() {
  scheduler_ = arguments_.entityManager->taskScheduler();
  dependencyStatus_ = std::make_shared<DependencyStatusRecord>();
  dependencyStatus_->completed().subscribe(*this);
  partStatus_ = std::make_shared<DependencyStatusRecord>();
  partStatus_->completed().subscribe(*this);
  featureTask_ = std::make_unique<Task>(
      scheduler_, kStagePriority, "KilnEmServerSm-FeatureTask",
      [](void* owner) { static_cast<KilnEmServerSm*>(owner)->handleFeatures(); }, this);
  arguments_.entityManager->features().subscribe(*this);
  dependencyManagerSm_ = std::make_unique<DependencyManagerSm>(
      "KilnEmServerDependencyManagerSm", scheduler_, kStagePriority, dependencyStatus_,
      [this](const std::string& name) { return collectionExists(name); });
  dependencyManagerSm_->registerStageMap(stageMap());
  dependencyManagerSm_->start();
}

bool KilnEmServerSm::collectionExists(const std::string& name) const {
  const std::string base = name.substr(0, name.find('['));
  const std::pair<std::string_view, const void*> collections[] = {
      {"isemSrvConfigByFeature", isemSrvConfigByFeature_.get()},
      {"esemSrvConfigByFeature", esemSrvConfigByFeature_.get()},
      {"lemSrvConfigByFeature", lemSrvConfigByFeature_.get()},
      {"isemSrvStatusByFeature", isemSrvStatusByFeature_.get()},
      {"esemSrvStatusByFeature", esemSrvStatusByFeature_.get()},
      {"lemSrvStatusByFeature", lemSrvStatusByFeature_.get()},
      {"emLogicalKeyToEntry", emLogicalKeyToEntry_.get()},
      {"emTypeToConfig", emTypeToConfig_.get()},
      {"logicalKeyConfigByComposerType", logicalKeyConfigByComposerType_.get()},
      {"swTableKeyStatusByComposerType", swTableKeyStatusByComposerType_.get()},
      {"resolverConfigDir", resolverConfigDir_.get()},
      {"resolverStatusDir", resolverStatusDir_.get()},
      {"swTableKeyConfig", swTableKeyConfig_.get()},
      {"swTableKeyConfigByComposerType", swTableKeyConfigByComposerType_.get()},
      {"emMergedEntry", emMergedEntry_.get()},
      {"emConflictStatus", emConflictStatus_.get()},
      {"emSwTableConfig", emSwTableConfig_.get()},
      {"emSwTableStatus", emSwTableStatus_.get()},
      {"emLogicalKeyToStatus", emLogicalKeyToStatus_.get()},
      {"emStatusMerged", emStatusMerged_.get()},
      {"mdbCapabilitiesStatus", mdbCapabilitiesStatus_.get()},
      {"mdbLocalStatus", mdbLocalStatus_.get()},
  };
  const auto* found = std::find_if(std::begin(collections), std::end(collections),
                                   [&](const auto& collection) { return collection.first == base; });
  KILN_ASSERT_MESSAGE(found != std::end(collections), "a stage waits for the unknown collection {}", name);
  return found->second != nullptr;
}

StageControl KilnEmServerSm::control() const {
  return {scheduler_, kStagePriority};
}

// --- Actions of the stage map, in the order of the road ----------------------------------------------------

void KilnEmServerSm::createResourceTableSms() {
  resourceTableSm_ =
      resourceTableSmFactory(emLogicalKeyToEntry_, emStatusMerged_, isemResourceTable_, esemResourceTable_,
                             lemResourceTable_, "resourceTableSmsStage", dependencyStatus_, control());
}

void KilnEmServerSm::createIsemSrvConfigSm() {
  isemSrvConfigSm_ =
      isemSrvConfigSmFactory(isemSrvConfigByFeature_, emTypeToConfig_->configIs(EmType::isem),
                             "isemSrvConfigSmStage", dependencyStatus_, scheduler_, kStagePriority);
}

void KilnEmServerSm::createEsemSrvConfigSm() {
  esemSrvConfigSm_ =
      esemSrvConfigSmFactory(esemSrvConfigByFeature_, emTypeToConfig_->configIs(EmType::esem),
                             "esemSrvConfigSmStage", dependencyStatus_, scheduler_, kStagePriority);
}

void KilnEmServerSm::createLemSrvConfigSm() {
  lemSrvConfigSm_ =
      lemSrvConfigSmFactory(lemSrvConfigByFeature_, emTypeToConfig_->configIs(EmType::lem),
                            "lemSrvConfigSmStage", dependencyStatus_, scheduler_, kStagePriority);
}

void KilnEmServerSm::createEmSrvConfigMergeSm() {
  emSrvConfigMergeSm_ =
      emSrvConfigMergeSmFactory(emTypeToConfig_, emLogicalKeyToEntry_, "emSrvConfigMergeSmStage",
                                dependencyStatus_, scheduler_, kStagePriority);
}

void KilnEmServerSm::createComposerSelectorSm(EmComposerKeyUnionTag composerType, const std::string& name) {
  composerSelectorSm_[composerType] = composerSelectorSmFactory(
      composerType, emLogicalKeyToEntry_, logicalKeyConfigByComposerType_->configIs(composerType), name,
      dependencyStatus_, control());
}

void KilnEmServerSm::createResolverSms() {
  resolverSm_[ResolverKeyUnionTag::vd] =
      resolverVdFactory(resolverConfigDir_->resolverConfigIs(ResolverKeyUnionTag::vd),
                        resolverStatusDir_->resolverStatusIs(ResolverKeyUnionTag::vd),
                        arguments_.vlanDomainConfig, arguments_.vlanDomainStatus,
                        partName("resolverSmsStage", ResolverKeyUnionTag::vd), partStatus_, control());
}

void KilnEmServerSm::createComposerSms() {
  forEachKeyType([&]<class Row>() {
    if constexpr (Row::kResolver != ResolverKeyUnionTag::undefined_) createComposer<Row>();
  });
}

template <class Row>
void KilnEmServerSm::createComposer() {
  constexpr EmComposerKeyUnionTag type = Row::kComposerType;
  composerSm_[type] = ComposerOf<Row>::kFactory(
      logicalKeyConfigByComposerType_->configIs(type), swTableKeyConfigByComposerType_->configIs(type),
      swTableKeyStatusByComposerType_->statusIs(type), resolverConfigDir_, resolverStatusDir_,
      partName("composerSmsStage", type), partStatus_, control(), emComposeFailure_->configIs(type),
      KeyTraces{emLogicalKeyToEntry_, emMergedEntry_, emWrittenKeys_});
}

void KilnEmServerSm::doResolverSweep() {
  for (const auto& [type, resolver] : resolverSm_) resolver->sweep(partName("resolverSweepStage", type));
}

void KilnEmServerSm::createSwKeyTranslationSm(EmComposerKeyUnionTag composerType, const std::string& name) {
  swKeyTranslationSm_[composerType] =
      swKeyTranslationSmFactory(composerType, logicalKeyConfigByComposerType_->configIs(composerType),
                                swTableKeyConfigByComposerType_->configIs(composerType), name,
                                dependencyStatus_, control(), emComposeFailure_->configIs(composerType));
}

void KilnEmServerSm::createComposerOutputMergeSm() {
  composerOutputMergeSm_ =
      composerOutputMergeSmFactory(swTableKeyConfigByComposerType_, resolvedKeyColl(),
                                   "composerOutputMergeStage", dependencyStatus_, control());
}

void KilnEmServerSm::createEmKeyMergeSm() {
  emKeyMergeSm_ = emKeyMergeSmFactory(resolvedKeyColl(), emLogicalKeyToEntry_, emMergedEntry_,
                                      "emKeyMergeSmStage", dependencyStatus_, control());
}

void KilnEmServerSm::createEmConflictSm() {
  emConflictSm_ =
      emConflictSmFactory(emMergedEntry_, emSwTableConfig_, emConflictStatus_, "emConflictSmStage",
                          dependencyStatus_, control(), emLogicalKeyToEntry_, emComposeFailure_);
}

// Which key types share a physical table is the same on every FAP type.
Ref<TableRoom> KilnEmServerSm::tableRoomOf(EmResolvedKeyUnionTag tag) {
  constexpr Hardware::Kiln::FapType kAnyFapType = 3;
  const bool shared = kKeyTypeInfo[tag].memory != TableMemory::none;
  Ref<TableRoom>& room = tableRooms_[shared ? physicalTableIdForKeyType(tag, kAnyFapType) : 0];
  if (room == nullptr) room = std::make_shared<TableRoom>();
  return room;
}

void KilnEmServerSm::createSwTableWriterSm(EmResolvedKeyUnionTag tag, const std::string& name) {
  visitKeyType(tag, [&]<class Row>() { createWriter<Row>(name); });
}

template <class Row>
void KilnEmServerSm::createWriter(const std::string& name) {
  constexpr bool resolved = Row::kResolver != ResolverKeyUnionTag::undefined_;
  const auto held = [&] {
    if constexpr (Row::kWriterHolds == WriterHolds::interface) {
      return arguments_.tables.of<Row>();
    } else {
      return tableOf<typename Asic::TableClasses<Row>::SwTable>(arguments_.tables.of<Row>());
    }
  };
  swTableWriterSm_[Row::kTag] = SwTableWriterOf<Row>::kFactory(
      emSwTableConfig_, emSwTableStatus_, name, dependencyStatus_, held(), control(),
      SwTableWriterOptions{.retryRoom = tableRoomOf(Row::kTag),
                           .emWrittenKeys = resolved ? emWrittenKeys_ : nullptr});
}

void KilnEmServerSm::createReconcileCompleteSm() {
  reconcileCompleteSm_ = reconcileCompleteSmFactory("reconcileCompleteSmStage", dependencyStatus_,
                                                    arguments_.orderedTableInterface);
}

void KilnEmServerSm::createSwTableStatusSm() {
  swTableStatusSm_ = emSwTableStatusSmFactory(emSwTableStatus_, emLogicalKeyToStatus_, "swTableStatusSmStage",
                                              dependencyStatus_, control());
}

void KilnEmServerSm::createMdbLocalStatusSm() {
  mdbLocalStatusSm_ = mdbLocalStatusSmFactory(arguments_.hardwareMdbStatus, mdbLocalStatus_,
                                              "mdbLocalStatusSmStage", dependencyStatus_, control());
}

void KilnEmServerSm::createMdbCapabilitiesSm() {
  mdbCapabilitiesSm_ =
      mdbCapabilitiesSmFactory(mdbLocalStatus_, arguments_.hardwareMdbStatus, mdbCapabilitiesStatus_,
                               "mdbCapabilitiesSmStage", dependencyStatus_);
}

void KilnEmServerSm::createCapacitySm() {
  semCapacitySm_ = semCapacitySmFactory(
      arguments_.tableCapacity, std::make_shared<SchedulerClock>(scheduler_), "SemCapacity",
      arguments_.hardwareStatus, mdbCapabilitiesStatus_, mdbLocalStatus_, arguments_.semCapacityExternalDir,
      emSwTableStatus_, {scheduler_, kCapacityPriority});
  for (const auto& [tag, writer] : swTableWriterSm_) {
    if (kKeyTypeInfo[tag].memory != TableMemory::none) semCapacitySm_->swTableWriterIs(writer);
  }
  semCapacitySm_->handleInitialized();
  report("capacitySmStage");
}

void KilnEmServerSm::createEmStatusSm() {
  emStatusSm_ = emStatusSmFactory(emLogicalKeyToStatus_, emConflictStatus_, emStatusMerged_,
                                  "emStatusSmStage", dependencyStatus_, control());
}

void KilnEmServerSm::createResolvedKeyStatusSm() {
  resolvedKeyStatusSm_ = resolvedKeyStatusSmFactory(emStatusMerged_, swTableKeyStatusByComposerType_,
                                                    "resolvedKeyStatusSmStage", dependencyStatus_, control());
}

// A feature that is not present has no status stage; its name is reported in its place.
void KilnEmServerSm::createIsemSrvStatusSm(FeatureType feature, const std::string& name) {
  const auto config = isemSrvConfigByFeature_->isemConfig(feature);
  if (!config) return report(name);
  isemSrvStatusSm_[feature] =
      isemSrvStatusSmFactory(feature, emStatusMerged_, *config, *isemSrvStatusByFeature_->isemStatus(feature),
                             name, dependencyStatus_, control());
}

void KilnEmServerSm::createEsemSrvStatusSm(FeatureType feature, const std::string& name) {
  const auto config = esemSrvConfigByFeature_->esemConfig(feature);
  if (!config) return report(name);
  esemSrvStatusSm_[feature] =
      esemSrvStatusSmFactory(feature, emStatusMerged_, *config, *esemSrvStatusByFeature_->esemStatus(feature),
                             name, dependencyStatus_, control());
}

void KilnEmServerSm::createLemSrvStatusSm(FeatureType feature, const std::string& name) {
  const auto config = lemSrvConfigByFeature_->lemConfig(feature);
  if (!config) return report(name);
  lemSrvStatusSm_[feature] =
      lemSrvStatusSmFactory(feature, emStatusMerged_, *config, *lemSrvStatusByFeature_->lemStatus(feature),
                            name, dependencyStatus_, control());
}

void KilnEmServerSm::finalizeStartup() {
  for (const auto& node : graph().nodes) {
    KILN_ASSERT_MESSAGE(node.stage == "finalizeStartupStage" || dependencyStatus_->completedHas(node.stage),
                        "start-up is finalized before {} is complete", node.stage);
  }
  for (const StageBase* stage : stages()) {
    for (const OutputBase* output : stage->outputs()) {
      const auto& counts = output->reconciliationCounts();
      tracer_.trace<9>("{} {}: kept {}, rewritten {}, inserted {}, deleted {}", stage->name(), output->name(),
                       counts.kept, counts.rewritten, counts.inserted, counts.deleted);
    }
  }
  report("finalizeStartupStage");
}

void KilnEmServerSm::handleChange(const std::string& name) {
  const auto reportWhenComplete = [&](const char* stage, const auto& types) {
    const auto complete = [&](auto type) { return partStatus_->completedHas(partName(stage, type)); };
    if (name.starts_with(stage) && name != stage && std::all_of(types.begin(), types.end(), complete)) {
      report(stage);
    }
  };
  reportWhenComplete("resolverSmsStage", kResolverTypes);
  reportWhenComplete("composerSmsStage", kResolvingComposerTypes);
  reportWhenComplete("resolverSweepStage", kResolverTypes);
  if (name != "reconcileCompleteSmStage") return;
  for (const auto& [tag, writer] : swTableWriterSm_) writer->retryRefused();
  // The tables dropped what was not written again, and notify no subscriber of it.
  if (semCapacitySm_ != nullptr) semCapacitySm_->scheduleUpdate();
}

// --- Features that come and go -----------------------------------------------------------------------------

void KilnEmServerSm::handleChange(const FeatureType& feature) {
  changedFeatures_.add(feature, 0);
  featureTask_->scheduleTask();
}

void KilnEmServerSm::handleFeatures() {
  const auto hasNext = [this] { return !changedFeatures_.empty() || !leaving_.empty(); };
  const auto handleNext = [this] {
    if (changedFeatures_.empty()) return withdrawNext();
    handleFeature(changedFeatures_.pop());
  };
  const auto left = [this] {
    std::size_t items = changedFeatures_.size() + leaving_.size();
    for (const Leaving& leaving : leaving_) items += leaving.stage->keysInOutputs();
    return items;
  };
  control().runSlice(*featureTask_, hasNext, handleNext, left);
}

void KilnEmServerSm::handleFeature(FeatureType feature) {
  const bool present = arguments_.entityManager->features().has(feature);
  if (isemSrvConfigByFeature_->isemConfigHas(feature) && (!present || featureReplaced(feature))) {
    unmountFeature(feature);
  }
  if (present) mountFeature(feature);
}

void KilnEmServerSm::withdrawNext() {
  if (leaving_.front().stage->deleteNext()) return;
  const Leaving left = std::move(leaving_.front());
  leaving_.pop_front();
  // Nothing is left of it to wait for.
  if (!arguments_.entityManager->features().has(left.feature)) return report(left.stage->name());
  tracer_.trace<8>("{} came back before its statuses were withdrawn", left.feature);
  mountFeature(left.feature);
}

bool KilnEmServerSm::featureReplaced(FeatureType feature) const {
  return *isemSrvConfigByFeature_->isemConfig(feature) != arguments_.entityManager->isemSrvConfig(feature);
}

void KilnEmServerSm::mountFeature(FeatureType feature) {
  KilnPlatform::StateStore& store = *arguments_.entityManager;
  isemSrvConfigByFeature_->isemConfigIs(feature, store.isemSrvConfig(feature));
  esemSrvConfigByFeature_->esemConfigIs(feature, store.esemSrvConfig(feature));
  lemSrvConfigByFeature_->lemConfigIs(feature, store.lemSrvConfig(feature));
  isemSrvStatusByFeature_->isemStatusIs(feature, store.isemSrvStatus(feature));
  esemSrvStatusByFeature_->esemStatusIs(feature, store.esemSrvStatus(feature));
  lemSrvStatusByFeature_->lemStatusIs(feature, store.lemSrvStatus(feature));
  if (dependencyManagerSm_ == nullptr) return;
  const auto createReleased = [&](const char* base, auto action, const auto& stages) {
    const std::string name = fmt::format("{}-{}", base, feature);
    if (stages.contains(feature) || !dependencyManagerSm_->released(name)) return;
    const bool follows = std::any_of(leaving_.begin(), leaving_.end(),
                                     [&](const Leaving& leaving) { return leaving.stage->name() == name; });
    // It was reported in the absent stage's place, or is the name of one that leaves.
    dependencyStatus_->completedDel(name);
    if (!follows) (this->*action)(feature, name);
  };
  createReleased("isemSrvStatusSmStage", &KilnEmServerSm::createIsemSrvStatusSm, isemSrvStatusSm_);
  createReleased("esemSrvStatusSmStage", &KilnEmServerSm::createEsemSrvStatusSm, esemSrvStatusSm_);
  createReleased("lemSrvStatusSmStage", &KilnEmServerSm::createLemSrvStatusSm, lemSrvStatusSm_);
}

void KilnEmServerSm::unmountFeature(FeatureType feature) {
  const auto destroy = [&](auto& stages) {
    const auto at = stages.find(feature);
    if (at == stages.end()) return;
    at->second->beginDeleteAll(Withdrawal::everything);
    leaving_.push_back({feature, std::move(at->second)});
    stages.erase(at);
  };
  destroy(isemSrvStatusSm_);
  destroy(esemSrvStatusSm_);
  destroy(lemSrvStatusSm_);
  isemSrvConfigByFeature_->isemConfigDel(feature);
  esemSrvConfigByFeature_->esemConfigDel(feature);
  lemSrvConfigByFeature_->lemConfigDel(feature);
  isemSrvStatusByFeature_->isemStatusDel(feature);
  esemSrvStatusByFeature_->esemStatusDel(feature);
  lemSrvStatusByFeature_->lemStatusDel(feature);
}

// --- What there is to see ----------------------------------------------------------------------------------

std::vector<const StageBase*> KilnEmServerSm::stages() const {
  std::vector<const StageBase*> all;
  const auto add = [&](const auto& stage) {
    if (stage != nullptr) all.push_back(stage.get());
  };
  const auto addEach = [&](const auto& stages) {
    for (const auto& [key, stage] : stages) add(stage);
  };
  add(resourceTableSm_);
  add(isemSrvConfigSm_);
  add(esemSrvConfigSm_);
  add(lemSrvConfigSm_);
  add(emSrvConfigMergeSm_);
  addEach(composerSelectorSm_);
  addEach(resolverSm_);
  addEach(composerSm_);
  addEach(swKeyTranslationSm_);
  add(composerOutputMergeSm_);
  add(emKeyMergeSm_);
  add(emConflictSm_);
  addEach(swTableWriterSm_);
  add(reconcileCompleteSm_);
  add(swTableStatusSm_);
  add(mdbLocalStatusSm_);
  add(mdbCapabilitiesSm_);
  add(semCapacitySm_);
  add(emStatusSm_);
  add(resolvedKeyStatusSm_);
  addEach(isemSrvStatusSm_);
  addEach(esemSrvStatusSm_);
  addEach(lemSrvStatusSm_);
  add(dependencyManagerSm_);
  return all;
}

std::vector<StageProgress> KilnEmServerSm::reconcileProgress() const {
  std::vector<StageProgress> rows;
  for (const auto& node : graph().nodes) {
    rows.push_back({node.stage,
                    dependencyStatus_->completedHas(node.stage),
                    dependencyManagerSm_->waitsFor(node.stage),
                    {}});
  }
  const auto rowOf = [&](const std::string& name) {
    return std::find_if(rows.begin(), rows.end(), [&](const auto& row) { return row.stage == name; });
  };
  for (const StageBase* stage : stages()) {
    auto row = rowOf(stage->name());
    // A composer or resolver is a part of the stage before the dash.
    if (row == rows.end()) row = rowOf(stage->name().substr(0, stage->name().find('-')));
    if (row == rows.end()) continue;  // it is complete when it exists
    for (OutputProgress& output : outputProgress(*stage)) row->outputs.push_back(std::move(output));
    for (std::string& work : stage->waitsFor()) row->waitsFor.push_back(std::move(work));
  }
  return rows;
}

// NOLINTNEXTLINE(readability-function-size): a list
std::vector<std::pair<std::string, std::size_t>> KilnEmServerSm::leftovers() const {
  std::vector<std::pair<std::string, std::size_t>> sizes = {
      {"emLogicalKeyToEntry", emLogicalKeyToEntry_->emLogicalKeyToEntry().size()},
      {"resolvedKeyColl", swTableKeyConfig_->emLogicalKeyToResolvedKey().size()},
      {"emMergedEntry", emMergedEntry_->emMergedEntry().size()},
      {"emConflictStatus", emConflictStatus_->status().size()},
      {"emSwTableConfig", emSwTableConfig_->config().size()},
      {"emSwTableStatus", emSwTableStatus_->status().size()},
      {"emWrittenKeys", emWrittenKeys_->written().size()},
      {"emLogicalKeyToStatus", emLogicalKeyToStatus_->status().size()},
      {"emStatusMerged", emStatusMerged_->status().size()},
      {"isemResourceTable", isemResourceTable_->resource().size()},
      {"esemResourceTable", esemResourceTable_->resource().size()},
      {"lemResourceTable", lemResourceTable_->resource().size()},
      {"vlanDomainConfig", arguments_.vlanDomainConfig->config().size()},
  };
  const auto addMembers = [&](const char* base, const auto& members, auto sizeOf) {
    KilnPlatform::forEachIn(members, [&](const auto& key, const auto& member) {
      sizes.emplace_back(fmt::format("{}[ {} ]", base, key), sizeOf(*member));
    });
  };
  addMembers("emTypeToConfig", emTypeToConfig_->config(),
             [](auto& m) { return m.emLogicalKeyToEntry().size(); });
  addMembers("logicalKeyConfigByComposerType", logicalKeyConfigByComposerType_->config(),
             [](auto& m) { return m.request().size(); });
  addMembers("swTableKeyConfigByComposerType", swTableKeyConfigByComposerType_->config(),
             [](auto& m) { return m.emLogicalKeyToResolvedKey().size(); });
  addMembers("emComposeFailure", emComposeFailure_->config(), [](auto& m) { return m.failure().size(); });
  addMembers("swTableKeyStatusByComposerType", swTableKeyStatusByComposerType_->status(),
             [](auto& m) { return m.resolvedKeyStatus().size(); });
  addMembers("resolverStatusDir", resolverStatusDir_->resolverStatus(),
             [](auto& m) { return m.status().size(); });
  // A composer's own collection is created with its first request, so that only their sum is always there.
  addMembers("resolverConfigDir", resolverConfigDir_->resolverConfig(), [](auto& m) {
    std::size_t requests = 0;
    KilnPlatform::forEachIn(m.resolverComposerConfig(),
                            [&](const auto& /*composerType*/, const auto& config) {
                              requests += config->resolverRequest().size();
                            });
    return requests;
  });
  for (const StageBase* stage : stages()) {
    if (!stage->inputs().empty()) sizes.emplace_back(stage->name() + ".pending", stage->pendingCount());
    for (const LocalState* state : stage->localStates()) {
      sizes.emplace_back(fmt::format("{}.{}", stage->name(), state->name()), state->size());
    }
  }
  std::sort(sizes.begin(), sizes.end());
  return sizes;
}

Ref<KilnEmServerSm> kilnEmServerSmFactory(ServerArguments arguments) {
  auto server = std::make_shared<KilnEmServerSm>(std::move(arguments));
  server->handleInitialized();
  return server;
}

}  // namespace KilnEmServer
