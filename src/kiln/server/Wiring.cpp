// The whole graph in one place, in the order of the road of an entry. A row names a stage, the entities that
// must exist first, and what it is created from: `in` is read, `feedback` is read without waiting for those
// that write it, `out` is written, `update` both. A row with a key is one of several, a part one of several
// stages of a row.

#include "kiln/compose/ComposerOutputMergeSm.h"
#include "kiln/compose/ComposerSelectorSm.h"
#include "kiln/compose/EsemFodoVdComposerSm.h"
#include "kiln/compose/Isem1TagComposerSm.h"
#include "kiln/compose/Isem2TagComposerSm.h"
#include "kiln/compose/ResolverVd.h"
#include "kiln/compose/SwKeyTranslationSm.h"
#include "kiln/compose/UntaggedComposerSm.h"
#include "kiln/intake/EmSrvConfigMergeSm.h"
#include "kiln/intake/EsemSrvConfigSm.h"
#include "kiln/intake/IsemSrvConfigSm.h"
#include "kiln/intake/LemSrvConfigSm.h"
#include "kiln/program/EmConflictSm.h"
#include "kiln/program/EmKeyMergeSm.h"
#include "kiln/program/EmSwTableStatusSm.h"
#include "kiln/program/SwTableWriters.h"
#include "kiln/server/KilnEmServerSm.h"
#include "kiln/server/ReconcileCompleteSm.h"
#include "kiln/status/EmStatusSm.h"
#include "kiln/status/EsemSrvStatusSm.h"
#include "kiln/status/IsemSrvStatusSm.h"
#include "kiln/status/LemSrvStatusSm.h"
#include "kiln/status/MdbCapabilitiesSm.h"
#include "kiln/status/MdbLocalStatusSm.h"
#include "kiln/status/ResolvedKeyStatusSm.h"
#include "kiln/status/ResourceTableSm.h"
#include "kiln/status/SemCapacitySm.h"

namespace KilnEmServer {
namespace {

constexpr auto kVd = ResolverKeyUnionTag::vd;
/// Priority of the updates of the capacity table: whatever else is ready goes first.
constexpr int kCapacityPriority = -10;

/// What the writer of a key type holds: its interface, or the table of all FAPs itself, which is null if it
/// is missing or of another class. That reference shares the interface's ownership.
template <class Row>
auto heldByWriter(const Asic::TableInterfaces& tables) {
  const auto& interface = tables.of<Row>();
  if constexpr (Row::kWriterHolds == WriterHolds::interface) {
    return interface;
  } else {
    using Table = typename Asic::TableClasses<Row>::SwTable;
    return Ref<Table>(interface, dynamic_cast<Table*>(interface->orderedSwTable(Asic::UnitId::allFap())));
  }
}

/// Whether a key type needs a resolver.
template <class Row>
constexpr bool kResolved = Row::kResolver != ResolverKeyUnionTag::undefined_;

std::vector<EmComposerKeyUnionTag> resolvedTypes() {
  std::vector<EmComposerKeyUnionTag> types;
  forEachKeyType([&]<class Row>() {
    if (kResolved<Row>) types.push_back(Row::kComposerType);
  });
  return types;
}

}  // namespace

void KilnEmServerSm::wireStages() {
  wireIntake();
  wireComposition();
  wireProgramming();
  wireStatus();
  wiring_->wire("finalizeStartupStage")
      .waitsFor(isemSrvStatusByFeature, esemSrvStatusByFeature, lemSrvStatusByFeature)
      .afterEveryOther()
      .run([this] { finalizeStartup(); });
}

void KilnEmServerSm::wireIntake() {
  wiring_->wire("resourceTableSmsStage")
      .waitsFor(isemSrvConfigByFeature, esemSrvConfigByFeature, lemSrvConfigByFeature)
      .create(resourceTableSm, resourceTableSmFactory, feedback(emLogicalKeyToEntry),
              feedback(emStatusMerged), out(isemResourceTable), out(esemResourceTable), out(lemResourceTable),
              own);
  wiring_->wire("isemSrvConfigSmStage")
      .waitsFor(isemSrvConfigByFeature, emTypeToConfig)
      .create(isemSrvConfigSm, isemSrvConfigSmFactory, in(isemSrvConfigByFeature),
              out(emTypeToConfig, EmType::isem), ownRecord, ownTask);
  wiring_->wire("esemSrvConfigSmStage")
      .waitsFor(esemSrvConfigByFeature, emTypeToConfig)
      .create(esemSrvConfigSm, esemSrvConfigSmFactory, in(esemSrvConfigByFeature),
              out(emTypeToConfig, EmType::esem), ownRecord, ownTask);
  wiring_->wire("lemSrvConfigSmStage")
      .waitsFor(lemSrvConfigByFeature, emTypeToConfig)
      .create(lemSrvConfigSm, lemSrvConfigSmFactory, in(lemSrvConfigByFeature),
              out(emTypeToConfig, EmType::lem), ownRecord, ownTask);
  wiring_->wire("emSrvConfigMergeSmStage")
      .waitsFor(emTypeToConfig, emLogicalKeyToEntry)
      .create(emSrvConfigMergeSm, emSrvConfigMergeSmFactory, in(emTypeToConfig), out(emLogicalKeyToEntry),
              ownRecord, ownTask);
}

void KilnEmServerSm::wireComposition() {
  forEachKeyType([&]<class Row>() {
    constexpr auto kType = Row::kComposerType;
    wiring_->wire("composerSelectorSmStage", kType)
        .waitsFor(emLogicalKeyToEntry)
        .create(composerSelectorSm.at(kType), composerSelectorSmFactory, kType, in(emLogicalKeyToEntry),
                out(logicalKeyConfigByComposerType, kType), own);
  });
  wiring_->wire("resolverSmsStage")
      .waitsFor(resolverStatusDir)
      .createPart(kVd, resolverSm.at(kVd), resolverVdFactory, feedback(resolverConfigDir, kVd),
                  out(resolverStatusDir, kVd), update(vlanDomainConfig), in(vlanDomainStatus), own);
  StageRow& composers =
      wiring_->wire("composerSmsStage")
          .waitsFor(logicalKeyConfigByComposerType, resolverStatusDir, swTableKeyConfigByComposerType);
  forEachKeyType([&]<class Row>() {
    constexpr auto kType = Row::kComposerType;
    if constexpr (kResolved<Row>) {
      composers.createPart(
          kType, composerSm.at(kType), ComposerOf<Row>::kFactory, in(logicalKeyConfigByComposerType, kType),
          out(swTableKeyConfigByComposerType, kType), feedback(swTableKeyStatusByComposerType, kType),
          out(resolverConfigDir), in(resolverStatusDir), own, out(emComposeFailure, kType),
          grouped<KeyTraces>(feedback(emLogicalKeyToEntry), feedback(emMergedEntry),
                             feedback(emWrittenKeys)));
    } else {
      wiring_->wire("swKeyTranslationSmStage", kType)
          .waitsFor(logicalKeyConfigByComposerType, swTableKeyConfigByComposerType)
          .create(swKeyTranslationSm.at(kType), swKeyTranslationSmFactory, kType,
                  in(logicalKeyConfigByComposerType, kType), out(swTableKeyConfigByComposerType, kType), own,
                  out(emComposeFailure, kType));
    }
  });
  wiring_->wire("composerOutputMergeStage")
      .waitsFor(swTableKeyConfigByComposerType, swTableKeyConfig)
      .create(composerOutputMergeSm, composerOutputMergeSmFactory, in(swTableKeyConfigByComposerType),
              out(swTableKeyConfig), own);
  // Before reconciliation is complete the tables may hold entries of an earlier server in the domains that
  // are given back.
  wiring_->wire("resolverSweepStage")
      .waitsFor(swTableKeyConfigByComposerType)
      .after("reconcileCompleteSmStage")
      .afterWritersOf(swTableKeyConfigByComposerType)
      .runPart(kVd, [this](const std::string& reportAs) { resolverSm(kVd)->sweep(reportAs); });
}

void KilnEmServerSm::wireProgramming() {
  wiring_->wire("emKeyMergeSmStage")
      .waitsFor(emLogicalKeyToEntry, emMergedEntry)
      .create(emKeyMergeSm, emKeyMergeSmFactory, in(swTableKeyConfig), in(emLogicalKeyToEntry),
              out(emMergedEntry), own);
  wiring_->wire("emConflictSmStage")
      .waitsFor(emMergedEntry, emSwTableConfig, emConflictStatus)
      .create(emConflictSm, emConflictSmFactory, in(emMergedEntry), out(emSwTableConfig),
              out(emConflictStatus), own, in(emLogicalKeyToEntry), in(emComposeFailure));
  forEachKeyType([&]<class Row>() {
    wiring_->wire("swTableWriterSmStage", Row::kTag)
        .waitsFor(emSwTableConfig)
        .endsFirst()
        .create(
            swTableWriterSm.at(Row::kTag), SwTableWriterOf<Row>::kFactory, in(emSwTableConfig),
            update(emSwTableStatus), ownRecord, [this] { return heldByWriter<Row>(arguments_.tables); },
            ownControl,
            grouped<SwTableWriterOptions>(tableRoomOf(Row::kTag),
                                          onlyIf(kResolved<Row>, out(emWrittenKeys))));
  });
  wiring_->wire("reconcileCompleteSmStage")
      .waitsFor(emSwTableStatus)
      .afterWritersOf(emSwTableStatus)
      .create(reconcileCompleteSm, reconcileCompleteSmFactory, ownRecord, update(orderedTableInterface));
  wiring_->wire("swTableStatusSmStage")
      .waitsFor(emSwTableStatus, emLogicalKeyToStatus)
      .create(swTableStatusSm, emSwTableStatusSmFactory, in(emSwTableStatus), out(emLogicalKeyToStatus), own);
}

void KilnEmServerSm::wireStatus() {
  wiring_->wire("mdbLocalStatusSmStage")
      .waitsFor(mdbLocalStatus)
      .create(mdbLocalStatusSm, mdbLocalStatusSmFactory, in(hardwareMdbStatus), out(mdbLocalStatus), own);
  wiring_->wire("mdbCapabilitiesSmStage")
      .waitsFor(mdbLocalStatus, mdbCapabilitiesStatus)
      .create(mdbCapabilitiesSm, mdbCapabilitiesSmFactory, in(mdbLocalStatus), in(hardwareMdbStatus),
              out(mdbCapabilitiesStatus), ownRecord);
  wiring_->wire("capacitySmStage")
      .waitsFor(emSwTableStatus, mdbCapabilitiesStatus)
      .endsFirst()
      .create(
          semCapacitySm,
          [this](const auto&... arguments) {
            auto sm = semCapacitySmFactory(arguments...);
            swTableWriterSm.forEach([&](EmResolvedKeyUnionTag tag, const Ref<EmSwTableWriterSm>& writer) {
              if (kKeyTypeInfo[tag].memory != TableMemory::none) sm->swTableWriterIs(writer);
            });
            sm->handleInitialized();
            return sm;
          },
          out(tableCapacity), Ref<const Clock>(std::make_shared<SchedulerClock>(scheduler_)), "SemCapacity",
          in(hardwareStatus), in(mdbCapabilitiesStatus), in(mdbLocalStatus), in(semCapacityExternalDir),
          in(emSwTableStatus), StageControl{scheduler_, kCapacityPriority});
  wiring_->wire("emStatusSmStage")
      .waitsFor(emLogicalKeyToStatus, emConflictStatus, emStatusMerged)
      .create(emStatusSm, emStatusSmFactory, in(emLogicalKeyToStatus), in(emConflictStatus),
              out(emStatusMerged), own);
  wiring_->wire("resolvedKeyStatusSmStage")
      .waitsFor(emStatusMerged, swTableKeyStatusByComposerType)
      .create(resolvedKeyStatusSm, resolvedKeyStatusSmFactory, in(emStatusMerged),
              out(swTableKeyStatusByComposerType, resolvedTypes()), own);
  const auto wireFeatures = [&](const char* stage, auto& stages, auto factory, const auto& configs,
                                const auto& statuses) {
    KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
      wiring_->wire(stage, feature)
          .waitsFor(configs)
          .ofFeature(feature)
          .create(stages.at(feature), factory, feature, in(emStatusMerged), in(configs, feature),
                  out(statuses, feature), own);
    });
  };
  wireFeatures("isemSrvStatusSmStage", isemSrvStatusSm, isemSrvStatusSmFactory, isemSrvConfigByFeature,
               isemSrvStatusByFeature);
  wireFeatures("esemSrvStatusSmStage", esemSrvStatusSm, esemSrvStatusSmFactory, esemSrvConfigByFeature,
               esemSrvStatusByFeature);
  wireFeatures("lemSrvStatusSmStage", lemSrvStatusSm, lemSrvStatusSmFactory, lemSrvConfigByFeature,
               lemSrvStatusByFeature);
}

}  // namespace KilnEmServer
