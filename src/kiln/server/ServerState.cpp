// What the state of a server consists of: its collections, its stages, and what it has to do itself.
#include <string>
#include <string_view>
#include <tuple>

#include "kiln/server/KilnEmServerSm.h"

namespace KilnEmServer {
namespace {

using KilnPlatform::forEachIn;

template <class Type>
std::string memberName(std::string_view holder, Type type) {
  std::string name(holder);
  name += '-';
  name += KilnPlatform::stringValue(type);
  return name;
}

/// Calls `visitor(type, member)` with each member of a collection of collections, in the order of types.
template <class Holder, class Visitor>
void forEachMember(const Holder& holder, Visitor&& visitor) {
  using Type = typename Holder::Key;
  KilnPlatform::forEachEnumValue<Type>([&](Type type) {
    if (const auto* member = holder.find(type)) visitor(type, **member);
  });
}

/// Each member of a collection of collections as a part of its own.
template <class Holder, class ContentOf>
void noteMembers(StateDigest& digest, std::string_view name, const Holder& holder, ContentOf contentOf) {
  forEachMember(holder, [&](auto type, const auto& member) {
    digest.addPart(memberName(name, type), contentOf(member));
  });
}

// The answers about one logical key are compared with each other.
void noteSwTableStatus(StateDigest& digest, const EmSwTableStatus& emSwTableStatus) {
  const auto& statuses = emSwTableStatus.status();
  digest.begin("emSwTableStatus", &statuses);
  digest.walked([&](auto&& item) {
    forEachIn(statuses, [&](const EmHwKey& hwKey, const EmSwTableStatusEntry& status) {
      std::size_t earlier = 0;
      forEachIn(statuses, [&](const EmHwKey& /*other*/, const EmSwTableStatusEntry& than) {
        const bool same = than.emLogicalKeyAndEntry.emLogicalKey == status.emLogicalKeyAndEntry.emLogicalKey;
        if (same && than.answer < status.answer) ++earlier;
      });
      item(hwKey, status, earlier);
    });
  });
}

// Whether a composer is still in the epoch of its request the composer says.
void noteResolverRequests(StateDigest& digest, const ResolverConfigDir& directory) {
  forEachMember(directory.resolverConfig(), [&](ResolverKeyUnionTag /*type*/,
                                                const ResolverConfig& resolver) {
    forEachMember(resolver.resolverComposerConfig(), [&](EmComposerKeyUnionTag type, const auto& composer) {
      digest.begin(memberName("resolverRequest", type), &composer.resolverRequest());
      digest.walked([&](auto&& item) {
        forEachIn(composer.resolverRequest(), [&](const ResolverKey& key, const ResolverRequest& request) {
          item(key, request.requestType, request.inUseVal);
        });
      });
    });
  });
}

/// Which of the store's collections the server has: the present one of a feature, which the store describes,
/// or one that is present no more, or none.
template <class Holder, class Current, class ContentOf>
void noteMounted(StateDigest& digest, std::string_view name, const Holder& holder, Current current,
                 ContentOf contentOf) {
  digest.begin(std::string(name), &holder);
  KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
    const auto* mounted = holder.find(feature);
    const bool left = mounted != nullptr && *mounted != current(feature);
    digest.add(mounted != nullptr);
    digest.add(left);
    if (left) digest.addContent(contentOf(**mounted));
  });
}

}  // namespace

void KilnEmServerSm::noteState(StateDigest& digest) const {
  noteMounts(digest);
  noteCollections(digest);
  noteStages(digest);
  digest.begin("KilnEmServerSm");
  changedFeatures_.forEach([&](FeatureType feature, Arrival /*arrival*/) { digest.add(feature); });
  digest.add(changedFeatures_.size());
}

void KilnEmServerSm::noteMounts(StateDigest& digest) const {
  KilnPlatform::StateStore& store = *arguments_.entityManager;
  const auto note = [&]<class Holder, class Entity>(std::string_view name, const Holder& holder,
                                                    Ref<Entity> (KilnPlatform::StateStore::*of)(FeatureType),
                                                    auto contentOf) {
    const auto current = [&](FeatureType feature) -> Ref<Entity> {
      return store.features().has(feature) ? (store.*of)(feature) : nullptr;
    };
    noteMounted(digest, name, holder, current, contentOf);
  };
  using Store = KilnPlatform::StateStore;
  const auto config = [](const auto& entity) -> const auto& {
    return entity.config();
  };
  const auto status = [](const auto& entity) -> const auto& {
    return entity.status();
  };
  note("isemSrvConfigByFeature", isemSrvConfigByFeature_->isemConfig(), &Store::isemSrvConfig, config);
  note("esemSrvConfigByFeature", esemSrvConfigByFeature_->esemConfig(), &Store::esemSrvConfig, config);
  note("lemSrvConfigByFeature", lemSrvConfigByFeature_->lemConfig(), &Store::lemSrvConfig, config);
  note("isemSrvStatusByFeature", isemSrvStatusByFeature_->isemStatus(), &Store::isemSrvStatus, status);
  note("esemSrvStatusByFeature", esemSrvStatusByFeature_->esemStatus(), &Store::esemSrvStatus, status);
  note("lemSrvStatusByFeature", lemSrvStatusByFeature_->lemStatus(), &Store::lemSrvStatus, status);
}

void KilnEmServerSm::noteCollections(StateDigest& digest) const {
  noteMembers(
      digest, "emTypeToConfig", emTypeToConfig_->config(),
      [](const auto& m) -> const auto& { return m.emLogicalKeyToEntry(); });
  digest.addPart("emLogicalKeyToEntry", emLogicalKeyToEntry_->emLogicalKeyToEntry());
  noteMembers(
      digest, "emLogicalKeyConfig", logicalKeyConfigByComposerType_->config(),
      [](const auto& m) -> const auto& { return m.request(); });
  noteMembers(
      digest, "resolvedKeyStatus", swTableKeyStatusByComposerType_->status(),
      [](const auto& m) -> const auto& { return m.resolvedKeyStatus(); });
  noteResolverRequests(digest, *resolverConfigDir_);
  noteMembers(
      digest, "resolverStatus", resolverStatusDir_->resolverStatus(),
      [](const auto& m) -> const auto& { return m.status(); });
  noteMembers(
      digest, "swTableKeyConfig", swTableKeyConfigByComposerType_->config(),
      [](const auto& m) -> const auto& { return m.emLogicalKeyToResolvedKey(); });
  noteMembers(
      digest, "emComposeFailure", emComposeFailure_->config(),
      [](const auto& m) -> const auto& { return m.failure(); });
  digest.addPart("resolvedKeyColl", swTableKeyConfig_->emLogicalKeyToResolvedKey());
  digest.addPart("emMergedEntry", emMergedEntry_->emMergedEntry());
  digest.addPart("emConflictStatus", emConflictStatus_->status());
  digest.addPart("emSwTableConfig", emSwTableConfig_->config());
  noteSwTableStatus(digest, *emSwTableStatus_);
  digest.addPart("emWrittenKeys", emWrittenKeys_->written());
  digest.addPart("emLogicalKeyToStatus", emLogicalKeyToStatus_->status());
  digest.addPart("emStatusMerged", emStatusMerged_->status());
  digest.addPart("mdbCapabilitiesConfig", mdbCapabilitiesConfig_->profile());
  digest.addPart("mdbCapabilitiesStatus", mdbCapabilitiesStatus_->profileCapabilities());
  digest.addPart("mdbLocalStatus", mdbLocalStatus_->profileId());
  digest.addPart("isemResourceTable", isemResourceTable_->resource());
  digest.addPart("esemResourceTable", esemResourceTable_->resource());
  digest.addPart("lemResourceTable", lemResourceTable_->resource());
  digest.addPart("completed", dependencyStatus_->completed());
  digest.addPart("completedParts", partStatus_->completed());
}

// A stage that leaves is the only one that still has what it withdraws.
void KilnEmServerSm::noteStages(StateDigest& digest) const {
  for (const StageBase* stage : stages()) stage->noteState(digest);
  for (const Leaving& leaving : leaving_) {
    leaving.stage->noteState(digest);
    digest.add(leaving.feature);
    for (const OutputBase* output : leaving.stage->outputs()) output->noteContent(digest);
  }
}

}  // namespace KilnEmServer
