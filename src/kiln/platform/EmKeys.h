// Keys and entries of the exact-match databases, on the features' side and on the hardware's.
//
// A request names its key by a composer key, whose fields are plain unsigned integers; the hardware key of
// the same number has fields of the hardware's own widths, and for types 1, 2, 3 and 6 a VLAN domain in place
// of the interface.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <string_view>
#include <tuple>

#include "kiln/platform/Hardware.h"
#include "kiln/platform/Value.h"

namespace KilnTunnelNiLib {

using KilnPlatform::U11;
using KilnPlatform::U12;
using KilnPlatform::U18;
using KilnPlatform::U20;
using KilnPlatform::U3;
using KilnPlatform::U9;

/// An interface on a system TCAM: the pair for which a VLAN domain is allotted.
struct IntfIdSystemTcamId {
  std::uint64_t intfId = 0;
  std::uint16_t systemTcamId = 0;
  KILN_VALUE(KilnTunnelNiLib, IntfIdSystemTcamId, intfId, systemTcamId)
};

// Composer keys: what features ask with.

struct IsemUntaggedComposerKey {
  std::uint64_t intfId = 0;
  std::uint16_t systemTcamId = 0;
  KILN_VALUE(KilnTunnelNiLib, IsemUntaggedComposerKey, intfId, systemTcamId)
};

struct Isem1TagComposerKey {
  std::uint64_t intfId = 0;
  std::uint16_t systemTcamId = 0;
  std::uint16_t vlanId = 0;
  KILN_VALUE(KilnTunnelNiLib, Isem1TagComposerKey, intfId, systemTcamId, vlanId)
};

struct Isem2TagComposerKey {
  std::uint64_t intfId = 0;
  std::uint16_t systemTcamId = 0;
  std::uint16_t outerVlanId = 0;
  std::uint16_t innerVlanId = 0;
  KILN_VALUE(KilnTunnelNiLib, Isem2TagComposerKey, intfId, systemTcamId, outerVlanId, innerVlanId)
};

struct IsemInnerEthComposerKey {
  std::uint16_t vsi = 0;
  std::uint8_t profile = 0;
  KILN_VALUE(KilnTunnelNiLib, IsemInnerEthComposerKey, vsi, profile)
};

struct IsemMplsComposerKey {
  std::uint32_t label = 0;
  std::uint8_t labelSpace = 0;
  KILN_VALUE(KilnTunnelNiLib, IsemMplsComposerKey, label, labelSpace)
};

struct EsemFodoVdComposerKey {
  std::uint64_t intfId = 0;
  std::uint16_t systemTcamId = 0;
  std::uint32_t fodoId = 0;
  KILN_VALUE(KilnTunnelNiLib, EsemFodoVdComposerKey, intfId, systemTcamId, fodoId)
};

struct EsemFodoComposerKey {
  std::uint32_t fodoId = 0;
  KILN_VALUE(KilnTunnelNiLib, EsemFodoComposerKey, fodoId)
};

struct LemVpwsAcComposerKey {
  std::uint32_t inLif = 0;
  std::uint16_t outerVlanId = 0;
  std::uint16_t innerVlanId = 0;
  std::uint8_t outerPcp = 0;
  std::uint8_t innerPcp = 0;
  KILN_VALUE(KilnTunnelNiLib, LemVpwsAcComposerKey, inLif, outerVlanId, innerVlanId, outerPcp, innerPcp)
};

// Entry keys: what the chip's tables are keyed by.

struct IsemUntaggedEntryKey {
  U9 vlanDomain;
  KILN_VALUE(KilnTunnelNiLib, IsemUntaggedEntryKey, vlanDomain)
};

struct Isem1TagEntryKey {
  U9 vlanDomain;
  U12 vlanId;
  KILN_VALUE(KilnTunnelNiLib, Isem1TagEntryKey, vlanDomain, vlanId)
};

struct Isem2TagEntryKey {
  U9 vlanDomain;
  U12 outerVlanId;
  U12 innerVlanId;
  KILN_VALUE(KilnTunnelNiLib, Isem2TagEntryKey, vlanDomain, outerVlanId, innerVlanId)
};

struct IsemInnerEthEntryKey {
  std::uint16_t vsi = 0;
  std::uint8_t profile = 0;
  KILN_VALUE(KilnTunnelNiLib, IsemInnerEthEntryKey, vsi, profile)
};

struct IsemMplsEntryKey {
  std::uint32_t label = 0;
  std::uint8_t labelSpace = 0;
  KILN_VALUE(KilnTunnelNiLib, IsemMplsEntryKey, label, labelSpace)
};

struct EsemFodoVdEntryKey {
  U18 fodoId;
  U11 vlanDomain;
  KILN_VALUE(KilnTunnelNiLib, EsemFodoVdEntryKey, fodoId, vlanDomain)
};

struct EsemFodoEntryKey {
  U18 fodoId;
  KILN_VALUE(KilnTunnelNiLib, EsemFodoEntryKey, fodoId)
};

struct LemVpwsAcEntryKey {
  U20 inLif;
  U12 outerVlanId;
  U12 innerVlanId;
  U3 outerPcp;
  U3 innerPcp;
  KILN_VALUE(KilnTunnelNiLib, LemVpwsAcEntryKey, inLif, outerVlanId, innerVlanId, outerPcp, innerPcp)
};

// Entries: what the chip's tables answer with.

struct IsemUntaggedEntry {
  std::uint32_t lif = 0;
  std::uint16_t vsi = 0;
  std::uint8_t profile = 0;
  KILN_VALUE(KilnTunnelNiLib, IsemUntaggedEntry, lif, vsi, profile)
};

struct Isem1TagEntry {
  std::uint32_t lif = 0;
  std::uint16_t vsi = 0;
  std::uint8_t profile = 0;
  KILN_VALUE(KilnTunnelNiLib, Isem1TagEntry, lif, vsi, profile)
};

struct Isem2TagEntry {
  std::uint32_t lif = 0;
  std::uint16_t vsi = 0;
  std::uint8_t profile = 0;
  KILN_VALUE(KilnTunnelNiLib, Isem2TagEntry, lif, vsi, profile)
};

struct IsemInnerEthEntry {
  std::uint32_t lif = 0;
  std::uint16_t vsi = 0;
  KILN_VALUE(KilnTunnelNiLib, IsemInnerEthEntry, lif, vsi)
};

struct IsemMplsEntry {
  std::uint32_t lif = 0;
  std::uint16_t vsi = 0;
  KILN_VALUE(KilnTunnelNiLib, IsemMplsEntry, lif, vsi)
};

struct EsemFodoVdEntry {
  std::uint32_t outLif = 0;
  std::uint16_t editProfile = 0;
  KILN_VALUE(KilnTunnelNiLib, EsemFodoVdEntry, outLif, editProfile)
};

struct EsemFodoEntry {
  std::uint32_t outLif = 0;
  std::uint16_t editProfile = 0;
  KILN_VALUE(KilnTunnelNiLib, EsemFodoEntry, outLif, editProfile)
};

struct LemVpwsAcEntry {
  std::uint32_t outLif = 0;
  std::uint32_t destination = 0;
  std::uint32_t statisticsId = 0;
  KILN_VALUE(KilnTunnelNiLib, LemVpwsAcEntry, outLif, destination, statisticsId)
};

}  // namespace KilnTunnelNiLib

namespace KilnEmServer {

/// Which composer turns a logical key into a hardware key. Shares its numbering with EmResolvedKeyUnionTag.
enum class EmComposerKeyUnionTag : std::uint8_t {
  undefined_ = 0,
  isemUntaggedEntryKey,
  isem1TagEntryKey,
  isem2TagEntryKey,
  isemInnerEthEntryKey,
  isemMplsEntryKey,
  esemFodoVdEntryKey,
  esemFodoEntryKey,
  lemVpwsAcEntryKey,
};

/// Which table a hardware key belongs to.
enum class EmResolvedKeyUnionTag : std::uint8_t {
  undefined_ = 0,
  isemUntaggedEntryKey,
  isem1TagEntryKey,
  isem2TagEntryKey,
  isemInnerEthEntryKey,
  isemMplsEntryKey,
  esemFodoVdEntryKey,
  esemFodoEntryKey,
  lemVpwsAcEntryKey,
};

/// Which table an entry is for.
enum class EmEntryUnionTag : std::uint8_t {
  undefined_ = 0,
  isemUntaggedEntry,
  isem1TagEntry,
  isem2TagEntry,
  isemInnerEthEntry,
  isemMplsEntry,
  esemFodoVdEntry,
  esemFodoEntry,
  lemVpwsAcEntry,
};

/// The exact-match databases.
enum class EmType : std::uint8_t { isem = 0, esem = 1, lem = 2 };

/// The client features, least priority first: where two want one hardware key, the greater value wins.
enum class FeatureType : std::uint8_t {
  bridging = 1,
  subinterface = 2,
  vxlan = 3,
  mpls = 4,
  evpn = 5,
  vpws = 6,
  srv6 = 7,
  mirroring = 8,
};

/// What became of a request.
enum class EmStatus : std::uint8_t { hwPending = 0, hwSuccess = 1, hwFail = 2, hwKeyConflict = 3 };

}  // namespace KilnEmServer

namespace KilnPlatform {

inline constexpr std::array<std::string_view, 9> kEntryKeyNames = {
    "undefined",          "isemUntaggedEntryKey", "isem1TagEntryKey",
    "isem2TagEntryKey",   "isemInnerEthEntryKey", "isemMplsEntryKey",
    "esemFodoVdEntryKey", "esemFodoEntryKey",     "lemVpwsAcEntryKey"};

/// The stems by which tables go, under the number of their key type.
inline constexpr std::array<std::string_view, 9> kTableStems = {"undefined",  "isemUntagged", "isem1Tag",
                                                                "isem2Tag",   "isemInnerEth", "isemMpls",
                                                                "esemFodoVd", "esemFodo",     "lemVpwsAc"};

template <>
struct EnumNames<KilnEmServer::EmComposerKeyUnionTag> {
  static constexpr std::string_view kTypeName = "KilnEmServer::EmComposerKeyUnionTag";
  static constexpr int kFirst = 0;
  static constexpr auto kNames = kEntryKeyNames;
};
template <>
struct EnumNames<KilnEmServer::EmResolvedKeyUnionTag> {
  static constexpr std::string_view kTypeName = "KilnEmServer::EmResolvedKeyUnionTag";
  static constexpr int kFirst = 0;
  static constexpr auto kNames = kEntryKeyNames;
};
template <>
struct EnumNames<KilnEmServer::EmEntryUnionTag> {
  static constexpr std::string_view kTypeName = "KilnEmServer::EmEntryUnionTag";
  static constexpr int kFirst = 0;
  static constexpr std::array<std::string_view, 9> kNames = {
      "undefined",     "isemUntaggedEntry", "isem1TagEntry", "isem2TagEntry", "isemInnerEthEntry",
      "isemMplsEntry", "esemFodoVdEntry",   "esemFodoEntry", "lemVpwsAcEntry"};
};
template <>
struct EnumNames<KilnEmServer::EmType> {
  static constexpr std::string_view kTypeName = "KilnEmServer::EmType";
  static constexpr int kFirst = 0;
  static constexpr std::array<std::string_view, 3> kNames = {"isem", "esem", "lem"};
};
template <>
struct EnumNames<KilnEmServer::FeatureType> {
  static constexpr std::string_view kTypeName = "KilnEmServer::FeatureType";
  static constexpr int kFirst = 1;
  static constexpr std::array<std::string_view, 8> kNames = {
      "bridging", "subinterface", "vxlan", "mpls", "evpn", "vpws", "srv6", "mirroring"};
};
template <>
struct EnumNames<KilnEmServer::EmStatus> {
  static constexpr std::string_view kTypeName = "KilnEmServer::EmStatus";
  static constexpr int kFirst = 0;
  static constexpr std::array<std::string_view, 4> kNames = {"hwPending", "hwSuccess", "hwFail",
                                                             "hwKeyConflict"};
};

}  // namespace KilnPlatform

namespace KilnEmServer {

struct EmComposerKeyTraits {
  using Tag = EmComposerKeyUnionTag;
  static constexpr std::string_view kTypeName = "KilnEmServer::EmComposerKey";
  static constexpr std::string_view kName = "EmComposerKey";
  static constexpr std::size_t kCapacity = 24;
  static constexpr std::size_t kHints = 2;  ///< for the request key, for the logical key
};
/// The part of a request's key that its composer works from.
using EmComposerKey =
    KilnPlatform::TaggedUnion<EmComposerKeyTraits, KilnTunnelNiLib::IsemUntaggedComposerKey,
                              KilnTunnelNiLib::Isem1TagComposerKey, KilnTunnelNiLib::Isem2TagComposerKey,
                              KilnTunnelNiLib::IsemInnerEthComposerKey, KilnTunnelNiLib::IsemMplsComposerKey,
                              KilnTunnelNiLib::EsemFodoVdComposerKey, KilnTunnelNiLib::EsemFodoComposerKey,
                              KilnTunnelNiLib::LemVpwsAcComposerKey>;

struct EmResolvedKeyTraits {
  using Tag = EmResolvedKeyUnionTag;
  static constexpr std::string_view kTypeName = "KilnEmServer::EmResolvedKey";
  static constexpr std::string_view kName = "EmResolvedKey";
  static constexpr std::size_t kCapacity = 16;
  static constexpr std::size_t kHints = 1;  ///< for the hardware key
};
/// A fully resolved key of one of the chip's tables.
using EmResolvedKey =
    KilnPlatform::TaggedUnion<EmResolvedKeyTraits, KilnTunnelNiLib::IsemUntaggedEntryKey,
                              KilnTunnelNiLib::Isem1TagEntryKey, KilnTunnelNiLib::Isem2TagEntryKey,
                              KilnTunnelNiLib::IsemInnerEthEntryKey, KilnTunnelNiLib::IsemMplsEntryKey,
                              KilnTunnelNiLib::EsemFodoVdEntryKey, KilnTunnelNiLib::EsemFodoEntryKey,
                              KilnTunnelNiLib::LemVpwsAcEntryKey>;

struct EmEntryTraits {
  using Tag = EmEntryUnionTag;
  static constexpr std::string_view kTypeName = "KilnEmServer::EmEntry";
  static constexpr std::string_view kName = "EmEntry";
  static constexpr std::size_t kCapacity = 16;
};
/// The result data of one table entry.
using EmEntry = KilnPlatform::TaggedUnion<
    EmEntryTraits, KilnTunnelNiLib::IsemUntaggedEntry, KilnTunnelNiLib::Isem1TagEntry,
    KilnTunnelNiLib::Isem2TagEntry, KilnTunnelNiLib::IsemInnerEthEntry, KilnTunnelNiLib::IsemMplsEntry,
    KilnTunnelNiLib::EsemFodoVdEntry, KilnTunnelNiLib::EsemFodoEntry, KilnTunnelNiLib::LemVpwsAcEntry>;

/// The database that holds the tables of a key type. `undefined` has none and is an assertion failure.
constexpr EmType emTypeOf(EmComposerKeyUnionTag composerType) {
  switch (composerType) {
    case EmComposerKeyUnionTag::isemUntaggedEntryKey:
    case EmComposerKeyUnionTag::isem1TagEntryKey:
    case EmComposerKeyUnionTag::isem2TagEntryKey:
    case EmComposerKeyUnionTag::isemInnerEthEntryKey:
    case EmComposerKeyUnionTag::isemMplsEntryKey:
      return EmType::isem;
    case EmComposerKeyUnionTag::esemFodoVdEntryKey:
    case EmComposerKeyUnionTag::esemFodoEntryKey:
      return EmType::esem;
    case EmComposerKeyUnionTag::lemVpwsAcEntryKey:
      return EmType::lem;
    case EmComposerKeyUnionTag::undefined_:
      break;
  }
  KILN_ASSERT_MESSAGE(false, "Unsupported keyType {}", static_cast<int>(composerType));
  return EmType::lem;
}

}  // namespace KilnEmServer
