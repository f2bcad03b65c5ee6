// The values that are passed between stages.
#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>

#include "kiln/platform/Assert.h"
#include "kiln/platform/Collection.h"
#include "kiln/platform/EmKeys.h"
#include "kiln/platform/Hardware.h"
#include "kiln/platform/Value.h"

namespace KilnEmServer {

/// A feature's request key, of any database.
struct EmRequestKey {
  Hardware::Kiln::FapId fapId;
  Hardware::Kiln::LocalCoreId localCoreId;
  EmComposerKey emComposerKey;
  KILN_VALUE(KilnEmServer, EmRequestKey, fapId, localCoreId, emComposerKey)
};

/// The key of a feature's request. Two features that request one composer key on the same chip and core have
/// two logical keys.
struct EmLogicalKey {
  FeatureType featureType = FeatureType{};
  Hardware::Kiln::FapId fapId;
  Hardware::Kiln::LocalCoreId localCoreId;
  EmComposerKey emComposerKey;
  KILN_VALUE(KilnEmServer, EmLogicalKey, featureType, fapId, localCoreId, emComposerKey)
};

inline const KilnPlatform::KeyHint& hintOf(const EmLogicalKey& key) {
  return key.emComposerKey.hint<1>();
}

/// A requested entry and the version of the request that carried it.
struct EmConfigEntry {
  [[no_unique_address]] EmEntry emEntry;
  std::uint32_t requestVersion = 0;
  KILN_VALUE(KilnEmServer, EmConfigEntry, emEntry, requestVersion)
};

/// A logical key and the requested entry that won for it. What is programmed is that entry's own `emEntry`.
struct EmLogicalKeyAndEntry {
  EmLogicalKey emLogicalKey;
  EmConfigEntry emEntry;
  KILN_VALUE(KilnEmServer, EmLogicalKeyAndEntry, emLogicalKey, emEntry)
};

/// The key as the chip's table sees it.
struct EmHwKey {
  EmHwKey() = default;
  EmHwKey(Hardware::Kiln::FapId fap, Hardware::Kiln::LocalCoreId core, const EmResolvedKey& key)
      : emResolvedKey(key), fapId(fap), localCoreId(core) {}

  // Chip and core are stored in the gap behind the union, although they precede it in comparisons and in the
  // text form.
  [[no_unique_address]] EmResolvedKey emResolvedKey;
  Hardware::Kiln::FapId fapId;
  Hardware::Kiln::LocalCoreId localCoreId;

  friend bool operator==(const EmHwKey&, const EmHwKey&) = default;
  friend std::strong_ordering operator<=>(const EmHwKey& a, const EmHwKey& b) {
    return std::tie(a.fapId, a.localCoreId, a.emResolvedKey) <=>
           std::tie(b.fapId, b.localCoreId, b.emResolvedKey);
  }
  KILN_VALUE_FIELDS(KilnEmServer, EmHwKey, fapId, localCoreId, emResolvedKey)
};
static_assert(sizeof(EmHwKey) == 24 && sizeof(EmConfigEntry) == 24);

inline const KilnPlatform::KeyHint& hintOf(const EmHwKey& key) {
  return key.emResolvedKey.hint<0>();
}

/// A requested entry with the hardware key that was composed for it. Converts to false only if both are
/// defaults.
struct EmHwEntry {
  EmConfigEntry emEntry;
  EmHwKey emHwKey;
  explicit operator bool() const { return emHwKey != EmHwKey{} || emEntry != EmConfigEntry{}; }
  KILN_VALUE(KilnEmServer, EmHwEntry, emEntry, emHwKey)
};

/// Hardware outcome for one logical key under its hardware key.
struct EmHwKeyStatus {
  enum class State : std::uint8_t { hwPending = 0, hwSuccess = 1, hwFail = 2, hwKeyConflict = 3 };
  EmLogicalKey emLogicalKey;
  EmHwKey emHwKey;
  State state = State::hwPending;
  KILN_VALUE(KilnEmServer, EmHwKeyStatus, emLogicalKey, emHwKey, state)
};

/// Progress of one logical key through resolution and programming.
struct EmLogicalKeyState {
  enum class State : std::uint8_t {
    resolutionFail = 0,
    resolutionPending = 1,
    hwPending = 2,
    hwFail = 3,
    hwSuccess = 4,
    hwKeyConflict = 5,
  };
  EmLogicalKey emLogicalKey;
  State state = State::resolutionFail;
  KILN_VALUE(KilnEmServer, EmLogicalKeyState, emLogicalKey, state)
};

/// The status of one request, with the request's entry and version and its hardware key. Converts to false
/// only if every field is a default.
struct EmRequestStatus {
  EmLogicalKey emLogicalKey;
  EmConfigEntry emConfigEntry;
  EmHwKey emSwTableKeyFapCore;
  EmStatus status = EmStatus::hwPending;
  explicit operator bool() const {
    return status != EmStatus{} || emLogicalKey != EmLogicalKey{} || emSwTableKeyFapCore != EmHwKey{} ||
           emConfigEntry != EmConfigEntry{};
  }
  KILN_VALUE(KilnEmServer, EmRequestStatus, emLogicalKey, emConfigEntry, emSwTableKeyFapCore, status)
};

/// The status of one software-table entry, stated for the logical key and entry that produced it.
struct EmSwTableStatusEntry {
  EmLogicalKeyAndEntry emLogicalKeyAndEntry;
  EmHwKeyStatus::State status = EmHwKeyStatus::State::hwPending;
  /// Orders the statuses of one table in time. Not part of the value.
  std::uint64_t answer = 0;

  friend bool operator==(const EmSwTableStatusEntry& a, const EmSwTableStatusEntry& b) {
    return a.status == b.status && a.emLogicalKeyAndEntry == b.emLogicalKeyAndEntry;
  }
  friend auto operator<=>(const EmSwTableStatusEntry& a, const EmSwTableStatusEntry& b) {
    return std::tie(a.emLogicalKeyAndEntry, a.status) <=> std::tie(b.emLogicalKeyAndEntry, b.status);
  }
  KILN_VALUE_FIELDS(KilnEmServer, EmSwTableStatusEntry, emLogicalKeyAndEntry, status)
};

/// The key of a VLAN-domain resolution.
struct VdResolverKey {
  KilnTunnelNiLib::IntfIdSystemTcamId vdKey;
  KILN_VALUE(KilnEmServer, VdResolverKey, vdKey)
};

struct ResolverKeyTraits {
  using Tag = ResolverKeyUnionTag;
  static constexpr std::string_view kTypeName = "KilnEmServer::ResolverKey";
  static constexpr std::string_view kName = "ResolverKey";
  static constexpr std::size_t kCapacity = 16;
};
/// The key of a request to a resolver; the tag is the resolver's type.
using ResolverKey = KilnPlatform::TaggedUnion<ResolverKeyTraits, VdResolverKey>;

/// Result of a resolver for one resolver key. The order of the states matters: among several, the least
/// decides.
struct ResolutionState {
  enum State : std::uint8_t { resolutionFail_ = 0, resolutionPending_ = 1, resolutionSuccess_ = 2 };
  ResolverKey resolverKey;
  State state = resolutionFail_;
  std::uint64_t val = 0;  ///< the resolved value; 0 unless the state is success
  KILN_VALUE(KilnEmServer, ResolutionState, resolverKey, state, val)
};

/// The request of a composer to a resolver under one resolver key.
struct ResolverRequest {
  enum class RequestType : std::uint8_t { resourceRequest = 0, resourceInUse = 1 };
  ResolverKey resolverKey;
  RequestType requestType = RequestType::resourceRequest;
  std::uint64_t inUseVal = 0;  ///< the resolved value that the composer uses
  std::uint64_t inUseVer = 0;  ///< the composer's epoch
  KILN_VALUE(KilnEmServer, ResolverRequest, resolverKey, requestType, inUseVal, inUseVer)
};

/// Converts a resolution's state; any number above 2 is an assertion failure.
EmLogicalKeyState::State translateState(ResolutionState::State state);
/// Converts a hardware outcome; any number above 3 is an assertion failure.
EmLogicalKeyState::State translateState(EmHwKeyStatus::State state);

/// The composer type of a composer key; a key without one is an assertion failure.
EmComposerKeyUnionTag emComposerTypeFromUnion(const EmComposerKey& key);
/// The table type of a resolved key; a key without one is an assertion failure.
EmResolvedKeyUnionTag emResolvedKeyEnumFromUnion(const EmResolvedKey& key);

/// A request key of a database as the logical key of a feature.
template <class EntryKey>
EmLogicalKey logicalKeyOf(FeatureType feature, const EntryKey& key) {
  return {feature, key.fapId, key.localCoreId, key.emComposerKey};
}
/// The logical key was looked up before and will be looked up again from the request key, which remembers its
/// place.
template <class EntryKey>
void rememberLogicalKey(const EntryKey& key, const EmLogicalKey& logicalKey) {
  key.emComposerKey.template hint<1>().handleIs(hintOf(logicalKey).handle());
}
/// Converts between the request keys, which have the same fields.
template <class To, class From>
To requestKeyAs(const From& key) {
  return {key.fapId, key.localCoreId, key.emComposerKey};
}

}  // namespace KilnEmServer

template <>
struct KilnPlatform::EnumNames<KilnEmServer::EmHwKeyStatus::State> {
  static constexpr std::string_view kTypeName = "KilnEmServer::EmHwKeyStatus::State";
  static constexpr int kFirst = 0;
  static constexpr std::array<std::string_view, 4> kNames = {"hwPending", "hwSuccess", "hwFail",
                                                             "hwKeyConflict"};
};
template <>
struct KilnPlatform::EnumNames<KilnEmServer::EmLogicalKeyState::State> {
  static constexpr std::string_view kTypeName = "KilnEmServer::EmLogicalKeyState::State";
  static constexpr int kFirst = 0;
  static constexpr std::array<std::string_view, 6> kNames = {
      "resolutionFail", "resolutionPending", "hwPending", "hwFail", "hwSuccess", "hwKeyConflict"};
};
template <>
struct KilnPlatform::EnumNames<KilnEmServer::ResolutionState::State> {
  static constexpr std::string_view kTypeName = "KilnEmServer::ResolutionState::State";
  static constexpr int kFirst = 0;
  static constexpr std::array<std::string_view, 3> kNames = {"resolutionFail", "resolutionPending",
                                                             "resolutionSuccess"};
};
template <>
struct KilnPlatform::EnumNames<KilnEmServer::ResolverRequest::RequestType> {
  static constexpr std::string_view kTypeName = "KilnEmServer::ResolverRequest::RequestType";
  static constexpr int kFirst = 0;
  static constexpr std::array<std::string_view, 2> kNames = {"resourceRequest", "resourceInUse"};
};

namespace KilnPlatform {

/// By feature and composer type. Features without a name share the last partition of each type. Keys of one
/// composer type are stored together.
template <>
struct KeyPartition<KilnEmServer::EmLogicalKey> {
  static constexpr std::size_t kGroups = KilnEmServer::kKeyTypes + 1;
  static constexpr std::size_t kUnnamed =
      EnumNames<KilnEmServer::FeatureType>::kFirst + EnumNames<KilnEmServer::FeatureType>::kNames.size();
  static constexpr std::size_t kCount = kGroups * (kUnnamed + 1);
  static constexpr std::size_t of(KilnEmServer::FeatureType feature,
                                  KilnEmServer::EmComposerKeyUnionTag type) {
    return std::min(static_cast<std::size_t>(feature), kUnnamed) * kGroups + static_cast<std::size_t>(type);
  }
  static std::size_t of(const KilnEmServer::EmLogicalKey& key) {
    return of(key.featureType, key.emComposerKey.tag());
  }
  static constexpr std::size_t groupOf(std::size_t partition) { return partition % kGroups; }
};

/// By table.
template <>
struct KeyPartition<KilnEmServer::EmHwKey> {
  static constexpr std::size_t kGroups = KilnEmServer::kKeyTypes + 1;
  static constexpr std::size_t kCount = kGroups;
  static std::size_t of(const KilnEmServer::EmHwKey& key) {
    return static_cast<std::size_t>(key.emResolvedKey.tag());
  }
  static constexpr std::size_t groupOf(std::size_t partition) { return partition; }
};

}  // namespace KilnPlatform

namespace KilnEmServer {

// Selections of partitions. Every selection contains the keys without a type: their handler detects the
// broken invariant.

/// The logical keys of the composer types for which `selects(type)` is true.
template <class Selects>
KilnPlatform::PartitionSet<EmLogicalKey> partitionsOfTypes(Selects&& selects) {
  using Partition = KilnPlatform::KeyPartition<EmLogicalKey>;
  KilnPlatform::PartitionSet<EmLogicalKey> selected;
  for (std::size_t partition = 0; partition < selected.size(); ++partition) {
    const auto type = static_cast<EmComposerKeyUnionTag>(Partition::groupOf(partition));
    selected[partition] = type == EmComposerKeyUnionTag::undefined_ || selects(type);
  }
  return selected;
}
/// The logical keys of one feature. Features without a name share one selection.
KilnPlatform::PartitionSet<EmLogicalKey> partitionsOf(FeatureType feature);
/// The hardware keys of one table.
KilnPlatform::PartitionSet<EmHwKey> partitionsOf(EmResolvedKeyUnionTag table);

}  // namespace KilnEmServer

// Text forms are instantiated in one place, since every stage's traces need them.
namespace KilnPlatform {
extern template std::string textOf(const KilnEmServer::EmRequestKey&);
extern template std::string textOf(const KilnEmServer::EmLogicalKey&);
extern template std::string textOf(const KilnEmServer::EmConfigEntry&);
extern template std::string textOf(const KilnEmServer::EmLogicalKeyAndEntry&);
extern template std::string textOf(const KilnEmServer::EmHwKey&);
extern template std::string textOf(const KilnEmServer::EmHwEntry&);
extern template std::string textOf(const KilnEmServer::EmHwKeyStatus&);
extern template std::string textOf(const KilnEmServer::EmRequestStatus&);
extern template std::string textOf(const KilnEmServer::EmSwTableStatusEntry&);
}  // namespace KilnPlatform
