// The whole graph in one place: every stage, what creates it, what it waits for, what it reads and writes.

#include <fmt/format.h>

#include <string>
#include <utility>
#include <vector>

#include "kiln/server/KilnEmServerSm.h"

namespace KilnEmServer {
namespace {

using KilnPlatform::StageMap;
using Names = std::vector<std::string>;

/// "base[ key ]": the member of a collection of collections.
template <class Key>
std::string memberOf(const char* base, Key key) {
  return fmt::format("{}[ {} ]", base, key);
}

/// The members of a collection of collections for the composer types that need resolution, for those that
/// need none, or for all.
enum class ComposerTypes { resolving, direct, all };
Names membersOf(const char* base, ComposerTypes which) {
  Names names;
  KilnPlatform::forEachEnumValue<EmComposerKeyUnionTag>([&](EmComposerKeyUnionTag type) {
    if (type == EmComposerKeyUnionTag::undefined_) return;
    const bool wanted =
        which == ComposerTypes::all || (which == ComposerTypes::resolving) == resolutionNeeded(type);
    if (wanted) names.push_back(memberOf(base, type));
  });
  return names;
}

Names operator+(Names left, const Names& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

const Names kConfigByFeature = {"isemSrvConfigByFeature", "esemSrvConfigByFeature", "lemSrvConfigByFeature"};
const Names kStatusByFeature = {"isemSrvStatusByFeature", "esemSrvStatusByFeature", "lemSrvStatusByFeature"};

}  // namespace

// Each row: stage; action; waits for; reads; reads as feedback; writes.
StageMap KilnEmServerSm::stageMap() {  // NOLINT(readability-function-size): a table
  const Names emTypes = {memberOf("emTypeToConfig", EmType::isem), memberOf("emTypeToConfig", EmType::esem),
                         memberOf("emTypeToConfig", EmType::lem)};
  StageMap map;
  const auto add = [&](const char* stage, void (KilnEmServerSm::*action)(), Names waitsFor, Names reads,
                       Names feedbackReads, Names writes) {
    map.push_back({stage, [this, action] { (this->*action)(); }, std::move(waitsFor), std::move(reads),
                   std::move(feedbackReads), std::move(writes)});
  };
  using Sm = KilnEmServerSm;
  add("resourceTableSmsStage", &Sm::createResourceTableSms, kConfigByFeature, {},
      {"emLogicalKeyToEntry", "emStatusMerged"},
      {"isemResourceTable", "esemResourceTable", "lemResourceTable"});
  add("isemSrvConfigSmStage", &Sm::createIsemSrvConfigSm, {"isemSrvConfigByFeature", "emTypeToConfig"},
      {"isemSrvConfigByFeature"}, {}, {emTypes[0]});
  add("esemSrvConfigSmStage", &Sm::createEsemSrvConfigSm, {"esemSrvConfigByFeature", "emTypeToConfig"},
      {"esemSrvConfigByFeature"}, {}, {emTypes[1]});
  add("lemSrvConfigSmStage", &Sm::createLemSrvConfigSm, {"lemSrvConfigByFeature", "emTypeToConfig"},
      {"lemSrvConfigByFeature"}, {}, {emTypes[2]});
  add("emSrvConfigMergeSmStage", &Sm::createEmSrvConfigMergeSm, {"emTypeToConfig", "emLogicalKeyToEntry"},
      emTypes, {}, {"emLogicalKeyToEntry"});
  add("resolverSmsStage", &Sm::createResolverSms, {"resolverStatusDir"}, {"vlanDomainStatus"},
      {"resolverConfigDir"}, {"resolverStatusDir", "vlanDomainConfig"});
  add("composerSmsStage", &Sm::createComposerSms,
      {"logicalKeyConfigByComposerType", "resolverStatusDir", "swTableKeyConfigByComposerType"},
      membersOf("logicalKeyConfigByComposerType", ComposerTypes::resolving) + Names{"resolverStatusDir"},
      membersOf("swTableKeyStatusByComposerType", ComposerTypes::resolving) +
          Names{"emWrittenKeys", "emMergedEntry", "emLogicalKeyToEntry"},
      membersOf("swTableKeyConfigByComposerType", ComposerTypes::resolving) +
          membersOf("emComposeFailure", ComposerTypes::resolving) + Names{"resolverConfigDir"});
  add("composerOutputMergeStage", &Sm::createComposerOutputMergeSm,
      {"swTableKeyConfigByComposerType", "swTableKeyConfig"},
      membersOf("swTableKeyConfigByComposerType", ComposerTypes::all), {}, {"swTableKeyConfig"});
  add("resolverSweepStage", &Sm::doResolverSweep, {"swTableKeyConfigByComposerType"},
      membersOf("swTableKeyConfigByComposerType", ComposerTypes::all) + Names{"resolverConfigDir"}, {}, {});
  add("emKeyMergeSmStage", &Sm::createEmKeyMergeSm, {"emLogicalKeyToEntry", "emMergedEntry"},
      {"swTableKeyConfig", "emLogicalKeyToEntry"}, {}, {"emMergedEntry"});
  add("emConflictSmStage", &Sm::createEmConflictSm, {"emMergedEntry", "emSwTableConfig", "emConflictStatus"},
      Names{"emMergedEntry", "emLogicalKeyToEntry"} + membersOf("emComposeFailure", ComposerTypes::all), {},
      {"emSwTableConfig", "emConflictStatus"});
  add("reconcileCompleteSmStage", &Sm::createReconcileCompleteSm, {"emSwTableStatus"}, {"emSwTableStatus"},
      {}, {});
  add("swTableStatusSmStage", &Sm::createSwTableStatusSm, {"emSwTableStatus", "emLogicalKeyToStatus"},
      {"emSwTableStatus"}, {}, {"emLogicalKeyToStatus"});
  add("mdbLocalStatusSmStage", &Sm::createMdbLocalStatusSm, {"mdbLocalStatus"}, {"hardwareMdbStatus"}, {},
      {"mdbLocalStatus"});
  add("mdbCapabilitiesSmStage", &Sm::createMdbCapabilitiesSm, {"mdbLocalStatus", "mdbCapabilitiesStatus"},
      {"mdbLocalStatus", "hardwareMdbStatus"}, {}, {"mdbCapabilitiesStatus"});
  add("capacitySmStage", &Sm::createCapacitySm, {"emSwTableStatus", "mdbCapabilitiesStatus"},
      {"emSwTableStatus", "mdbCapabilitiesStatus", "mdbLocalStatus", "hardwareStatus",
       "semCapacityExternalDir"},
      {}, {"tableCapacity"});
  add("emStatusSmStage", &Sm::createEmStatusSm,
      {"emLogicalKeyToStatus", "emConflictStatus", "emStatusMerged"},
      {"emLogicalKeyToStatus", "emConflictStatus"}, {}, {"emStatusMerged"});
  add("resolvedKeyStatusSmStage", &Sm::createResolvedKeyStatusSm,
      {"emStatusMerged", "swTableKeyStatusByComposerType"}, {"emStatusMerged"}, {},
      membersOf("swTableKeyStatusByComposerType", ComposerTypes::resolving));
  add("finalizeStartupStage", &Sm::finalizeStartup, kStatusByFeature, {}, {}, {});
  const std::size_t finalize = map.size() - 1;
  addKeyedStages(map);
  for (auto& entry : map) {
    // Until then the tables may hold entries of an earlier server in the domains that are given back.
    if (entry.stage == "resolverSweepStage") entry.after.push_back("reconcileCompleteSmStage");
  }
  for (const auto& entry : map) {
    if (entry.stage != "finalizeStartupStage") map[finalize].after.push_back(entry.stage);
  }
  return map;
}

void KilnEmServerSm::addKeyedStages(StageMap& map) {  // NOLINT(readability-function-size): a table
  const auto forEachComposerType = [](auto&& visit) {
    KilnPlatform::forEachEnumValue<EmComposerKeyUnionTag>([&](EmComposerKeyUnionTag type) {
      if (type != EmComposerKeyUnionTag::undefined_) visit(type);
    });
  };
  forEachComposerType([&](EmComposerKeyUnionTag type) {
    std::string name = fmt::format("composerSelectorSmStage-{}", type);
    map.push_back({name,
                   [this, type, name] { createComposerSelectorSm(type, name); },
                   {"emLogicalKeyToEntry"},
                   {"emLogicalKeyToEntry"},
                   {},
                   {memberOf("logicalKeyConfigByComposerType", type)}});
  });
  KilnPlatform::forEachEnumValue<EmResolvedKeyUnionTag>([&](EmResolvedKeyUnionTag tag) {
    if (tag == EmResolvedKeyUnionTag::undefined_) return;
    std::string name = fmt::format("swTableWriterSmStage-{}", tag);
    map.push_back({name,
                   [this, tag, name] { createSwTableWriterSm(tag, name); },
                   {"emSwTableConfig"},
                   {"emSwTableConfig"},
                   {"emSwTableStatus"},
                   resolutionNeeded(composerTypeOf(tag)) ? Names{"emSwTableStatus", "emWrittenKeys"}
                                                         : Names{"emSwTableStatus"}});
  });
  const auto addStatusStages = [&](const char* base, const char* config, const char* status,
                                   void (KilnEmServerSm::*action)(FeatureType, const std::string&)) {
    KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
      const auto create = [this, action, base, feature] {
        (this->*action)(feature, fmt::format("{}-{}", base, feature));
      };
      map.push_back({fmt::format("{}-{}", base, feature),
                     create,
                     {config},
                     {"emStatusMerged", config},
                     {},
                     {memberOf(status, feature)}});
    });
  };
  addStatusStages("isemSrvStatusSmStage", "isemSrvConfigByFeature", "isemSrvStatusByFeature",
                  &KilnEmServerSm::createIsemSrvStatusSm);
  addStatusStages("esemSrvStatusSmStage", "esemSrvConfigByFeature", "esemSrvStatusByFeature",
                  &KilnEmServerSm::createEsemSrvStatusSm);
  addStatusStages("lemSrvStatusSmStage", "lemSrvConfigByFeature", "lemSrvStatusByFeature",
                  &KilnEmServerSm::createLemSrvStatusSm);
  forEachComposerType([&](EmComposerKeyUnionTag type) {
    if (resolutionNeeded(type)) return;
    std::string name = fmt::format("swKeyTranslationSmStage-{}", type);
    map.push_back({name,
                   [this, type, name] { createSwKeyTranslationSm(type, name); },
                   {"logicalKeyConfigByComposerType", "swTableKeyConfigByComposerType"},
                   {memberOf("logicalKeyConfigByComposerType", type)},
                   {},
                   {memberOf("swTableKeyConfigByComposerType", type), memberOf("emComposeFailure", type)}});
  });
}

}  // namespace KilnEmServer
