// Keys and entries of the exact-match databases, on the features' side and on the hardware's.
//
// A request names its key by a composer key, whose fields are plain unsigned integers. The hardware key of
// the same type has fields of the same names in the hardware's own widths, and a `vlanDomain` in place of the
// interface if the type needs a VLAN domain.
//
// KILN_KEY_TYPES below is the table of key types. Everything that differs between them is derived from it and
// from the fields of their structures: a new key type is a row there and its structures here.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

#include "kiln/platform/Assert.h"
#include "kiln/platform/FixedString.h"
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

// Composer keys: the keys of the features' requests.

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

// Entry keys: the keys of the chip's tables.

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

// Entries: the result data of the chip's tables.

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

/// The exact-match databases.
KILN_NAMED_ENUM(KilnEmServer, EmType, 0, isem, esem, lem)

/// The client features, lowest priority first: if two request one hardware key, the greater value wins.
KILN_NAMED_ENUM(KilnEmServer, FeatureType, 1, bridging, subinterface, vxlan, mpls, evpn, vpws, srv6,
                mirroring)

/// The outcome of a request.
KILN_NAMED_ENUM(KilnEmServer, EmStatus, 0, hwPending, hwSuccess, hwFail, hwKeyConflict)

/// The kind of resource that a composer key needs before it can be composed; `undefined_` is none.
enum class ResolverKeyUnionTag : std::uint8_t { undefined_ = 0, vd = 1 };

/// The memory of the chip in which the entries of a key type are stored. The two ingress memories are
/// different physical tables on different types of FAP; `none` means no table of the MDB.
enum class TableMemory : std::uint8_t { none, isemNarrow, isemWide, esem };

/// What a table writer is created with: the interface to the tables of its type, or the table itself.
enum class WriterHolds : std::uint8_t { interface, table };

/// How the checks of a table writer name a hardware key's chip and core: `emHwKey.fapId()` or `fapId`.
enum class CheckNames : std::uint8_t { accessors, fields };

/// The key types, in the order of their numbers, which begin with 1. Columns: the stem of names, as it is and
/// capitalized; database; resolver; memory, and the width of an entry there in units of 60 bits, 0 if it is
/// in none; what its writer holds, and how that names chip and core in its checks.
// clang-format off
#define KILN_KEY_TYPES(ROW) \
  /*  stem          Stem          database  resolver    memory      width  holds      names */ \
  ROW(isemUntagged, IsemUntagged, isem,     vd,         isemNarrow, 1,     interface, accessors) \
  ROW(isem1Tag,     Isem1Tag,     isem,     vd,         isemNarrow, 1,     interface, accessors) \
  ROW(isem2Tag,     Isem2Tag,     isem,     vd,         isemNarrow, 1,     interface, accessors) \
  ROW(isemInnerEth, IsemInnerEth, isem,     undefined_, isemWide,   2,     interface, accessors) \
  ROW(isemMpls,     IsemMpls,     isem,     undefined_, isemWide,   2,     interface, accessors) \
  ROW(esemFodoVd,   EsemFodoVd,   esem,     vd,         esem,       2,     interface, accessors) \
  ROW(esemFodo,     EsemFodo,     esem,     undefined_, esem,       2,     table,     fields) \
  ROW(lemVpwsAc,    LemVpwsAc,    lem,      undefined_, none,       0,     table,     accessors)
// clang-format on

#define KILN_ENTRY_KEY_ENUMERATOR(stem, ...) stem##EntryKey,
#define KILN_ENTRY_ENUMERATOR(stem, ...) stem##Entry,

/// Which composer turns a logical key into a hardware key. Shares its numbering with EmResolvedKeyUnionTag.
enum class EmComposerKeyUnionTag : std::uint8_t { undefined_ = 0, KILN_KEY_TYPES(KILN_ENTRY_KEY_ENUMERATOR) };

/// Which table a hardware key belongs to.
enum class EmResolvedKeyUnionTag : std::uint8_t { undefined_ = 0, KILN_KEY_TYPES(KILN_ENTRY_KEY_ENUMERATOR) };

/// Which table an entry is for.
enum class EmEntryUnionTag : std::uint8_t { undefined_ = 0, KILN_KEY_TYPES(KILN_ENTRY_ENUMERATOR) };

#undef KILN_ENTRY_KEY_ENUMERATOR
#undef KILN_ENTRY_ENUMERATOR

}  // namespace KilnEmServer

namespace KilnPlatform {

#define KILN_ENTRY_KEY_NAME(stem, ...) , std::string_view(#stem "EntryKey")
#define KILN_ENTRY_NAME(stem, ...) , std::string_view(#stem "Entry")

template <>
struct EnumNames<KilnEmServer::EmComposerKeyUnionTag> {
  static constexpr std::string_view kTypeName = "KilnEmServer::EmComposerKeyUnionTag";
  static constexpr int kFirst = 0;
  static constexpr std::array kNames{std::string_view("undefined") KILN_KEY_TYPES(KILN_ENTRY_KEY_NAME)};
};
template <>
struct EnumNames<KilnEmServer::EmResolvedKeyUnionTag> {
  static constexpr std::string_view kTypeName = "KilnEmServer::EmResolvedKeyUnionTag";
  static constexpr int kFirst = 0;
  static constexpr auto kNames = EnumNames<KilnEmServer::EmComposerKeyUnionTag>::kNames;
};
template <>
struct EnumNames<KilnEmServer::EmEntryUnionTag> {
  static constexpr std::string_view kTypeName = "KilnEmServer::EmEntryUnionTag";
  static constexpr int kFirst = 0;
  static constexpr std::array kNames{std::string_view("undefined") KILN_KEY_TYPES(KILN_ENTRY_NAME)};
};
template <>
struct EnumNames<KilnEmServer::ResolverKeyUnionTag> {
  static constexpr std::string_view kTypeName = "KilnEmServer::ResolverKeyUnionTag";
  static constexpr int kFirst = 0;
  static constexpr std::array<std::string_view, 2> kNames = {"undefined", "vd"};
};

#undef KILN_ENTRY_KEY_NAME
#undef KILN_ENTRY_NAME

}  // namespace KilnPlatform

namespace KilnEmServer {

/// A row of the table of key types, as a type.
template <EmResolvedKeyUnionTag tag>
struct KeyType;

#define KILN_KEY_TYPE(stem, Stem, database, resolver, memory, width, holds, names)                \
  template <>                                                                                     \
  struct KeyType<EmResolvedKeyUnionTag::stem##EntryKey> {                                         \
    static constexpr EmResolvedKeyUnionTag kTag = EmResolvedKeyUnionTag::stem##EntryKey;          \
    static constexpr EmComposerKeyUnionTag kComposerType = EmComposerKeyUnionTag::stem##EntryKey; \
    static constexpr KilnPlatform::FixedString kStem{#stem};                                      \
    static constexpr EmType kDatabase = EmType::database;                                         \
    static constexpr ResolverKeyUnionTag kResolver = ResolverKeyUnionTag::resolver;               \
    static constexpr TableMemory kMemory = TableMemory::memory;                                   \
    static constexpr std::uint32_t kWidth60Bit = width;                                           \
    static constexpr WriterHolds kWriterHolds = WriterHolds::holds;                               \
    static constexpr CheckNames kCheckNames = CheckNames::names;                                  \
    using ComposerKey = KilnTunnelNiLib::Stem##ComposerKey;                                       \
    using EntryKey = KilnTunnelNiLib::Stem##EntryKey;                                             \
    using Entry = KilnTunnelNiLib::Stem##Entry;                                                   \
  };
KILN_KEY_TYPES(KILN_KEY_TYPE)
#undef KILN_KEY_TYPE

/// How many key types there are.
inline constexpr std::size_t kKeyTypes = KilnPlatform::EnumNames<EmResolvedKeyUnionTag>::kNames.size() - 1;

/// The table that the keys of a composer type belong to, and the composer type whose keys become those of a
/// table: the two enumerations share their numbers.
constexpr EmResolvedKeyUnionTag tableTypeOf(EmComposerKeyUnionTag composerType) {
  return static_cast<EmResolvedKeyUnionTag>(composerType);
}
constexpr EmResolvedKeyUnionTag tableTypeOf(EmEntryUnionTag entryType) {
  return static_cast<EmResolvedKeyUnionTag>(entryType);
}
constexpr EmEntryUnionTag entryTypeOf(EmResolvedKeyUnionTag table) {
  return static_cast<EmEntryUnionTag>(table);
}
constexpr EmComposerKeyUnionTag composerTypeOf(EmResolvedKeyUnionTag table) {
  return static_cast<EmComposerKeyUnionTag>(table);
}

namespace detail {
template <template <class...> class T, class Sequence>
struct OverKeyTypes;
template <template <class...> class T, std::size_t... index>
struct OverKeyTypes<T, std::index_sequence<index...>> {
  using type = T<KeyType<static_cast<EmResolvedKeyUnionTag>(index + 1)>...>;
};
}  // namespace detail
/// T with all rows as arguments, in the order of their numbers.
template <template <class...> class T>
using OverKeyTypes = typename detail::OverKeyTypes<T, std::make_index_sequence<kKeyTypes>>::type;

/// Calls `visitor.template operator()<Row>()` with each row, in the order of their numbers.
template <class Visitor>
constexpr void forEachKeyType(Visitor&& visitor) {
  [&]<std::size_t... index>(std::index_sequence<index...>) {
    (visitor.template operator()<KeyType<static_cast<EmResolvedKeyUnionTag>(index + 1)>>(), ...);
  }
  (std::make_index_sequence<kKeyTypes>());
}

/// Calls `visitor` in the same way with the row of one key type; false for any other number.
template <class Visitor>
constexpr bool visitKeyType(EmResolvedKeyUnionTag tag, Visitor&& visitor) {
  return [&]<std::size_t... index>(std::index_sequence<index...>) {
    return ((static_cast<std::size_t>(tag) == index + 1 &&
             (visitor.template operator()<KeyType<static_cast<EmResolvedKeyUnionTag>(index + 1)>>(), true)) ||
            ...);
  }
  (std::make_index_sequence<kKeyTypes>());
}
template <class Visitor>
constexpr bool visitKeyType(EmComposerKeyUnionTag composerType, Visitor&& visitor) {
  return visitKeyType(tableTypeOf(composerType), std::forward<Visitor>(visitor));
}

/// The values of a row that are not types.
struct KeyTypeInfo {
  EmResolvedKeyUnionTag tag;
  EmComposerKeyUnionTag composerType;
  std::string_view stem;  ///< of its table's names, for example "isemMpls"
  EmType database;
  ResolverKeyUnionTag resolver;
  TableMemory memory;
  std::uint32_t width60Bit;
};

/// One value for each key type.
template <class T>
class ByKeyType {
 public:
  /// A number that is no key type's is a failed assertion.
  [[nodiscard]] constexpr T& operator[](EmResolvedKeyUnionTag tag) { return values_[indexOf(tag)]; }
  [[nodiscard]] constexpr const T& operator[](EmResolvedKeyUnionTag tag) const {
    return values_[indexOf(tag)];
  }
  [[nodiscard]] constexpr T& operator[](EmComposerKeyUnionTag composerType) {
    return (*this)[tableTypeOf(composerType)];
  }
  [[nodiscard]] constexpr const T& operator[](EmComposerKeyUnionTag composerType) const {
    return (*this)[tableTypeOf(composerType)];
  }
  /// The values, in the order of the key types' numbers.
  [[nodiscard]] constexpr auto begin() { return values_.begin(); }
  [[nodiscard]] constexpr auto end() { return values_.end(); }
  [[nodiscard]] constexpr auto begin() const { return values_.begin(); }
  [[nodiscard]] constexpr auto end() const { return values_.end(); }
  constexpr void fill(const T& value) { values_.fill(value); }
  friend bool operator==(const ByKeyType&, const ByKeyType&) = default;

 private:
  static constexpr std::size_t indexOf(EmResolvedKeyUnionTag tag) {
    const std::size_t index = static_cast<std::size_t>(tag) - 1;
    KILN_ASSERT(index < kKeyTypes);
    return index;
  }
  std::array<T, kKeyTypes> values_{};
};

/// The row of each key type, as values.
inline constexpr ByKeyType<KeyTypeInfo> kKeyTypeInfo = [] {
  ByKeyType<KeyTypeInfo> info;
  forEachKeyType([&]<class Row>() {
    info[Row::kTag] = {Row::kTag,      Row::kComposerType, Row::kStem.view(), Row::kDatabase,
                       Row::kResolver, Row::kMemory,       Row::kWidth60Bit};
  });
  return info;
}();

/// The stem of a table's names.
constexpr std::string_view tableStem(EmResolvedKeyUnionTag tag) {
  return kKeyTypeInfo[tag].stem;
}
constexpr std::string_view tableStem(EmComposerKeyUnionTag type) {
  return kKeyTypeInfo[type].stem;
}
/// The table with this stem; nothing if no table has it.
constexpr std::optional<EmResolvedKeyUnionTag> tableOfStem(std::string_view stem) {
  for (const KeyTypeInfo& type : kKeyTypeInfo) {
    if (type.stem == stem) return type.tag;
  }
  return std::nullopt;
}

#define KILN_COMPOSER_KEY(stem, Stem, ...) , KilnTunnelNiLib::Stem##ComposerKey
#define KILN_ENTRY_KEY(stem, Stem, ...) , KilnTunnelNiLib::Stem##EntryKey
#define KILN_ENTRY(stem, Stem, ...) , KilnTunnelNiLib::Stem##Entry

struct EmComposerKeyTraits {
  using Tag = EmComposerKeyUnionTag;
  static constexpr std::string_view kTypeName = "KilnEmServer::EmComposerKey";
  static constexpr std::string_view kName = "EmComposerKey";
  static constexpr std::size_t kCapacity = 24;
  static constexpr std::size_t kHints = 2;  ///< for the request key, for the logical key
};
/// The composer key of a request: the part that its composer reads.
using EmComposerKey = KilnPlatform::TaggedUnion<EmComposerKeyTraits KILN_KEY_TYPES(KILN_COMPOSER_KEY)>;

struct EmResolvedKeyTraits {
  using Tag = EmResolvedKeyUnionTag;
  static constexpr std::string_view kTypeName = "KilnEmServer::EmResolvedKey";
  static constexpr std::string_view kName = "EmResolvedKey";
  static constexpr std::size_t kCapacity = 16;
  static constexpr std::size_t kHints = 1;  ///< for the hardware key
};
/// A fully resolved key of one of the chip's tables.
using EmResolvedKey = KilnPlatform::TaggedUnion<EmResolvedKeyTraits KILN_KEY_TYPES(KILN_ENTRY_KEY)>;

struct EmEntryTraits {
  using Tag = EmEntryUnionTag;
  static constexpr std::string_view kTypeName = "KilnEmServer::EmEntry";
  static constexpr std::string_view kName = "EmEntry";
  static constexpr std::size_t kCapacity = 16;
};
/// The result data of one table entry.
using EmEntry = KilnPlatform::TaggedUnion<EmEntryTraits KILN_KEY_TYPES(KILN_ENTRY)>;

#undef KILN_COMPOSER_KEY
#undef KILN_ENTRY_KEY
#undef KILN_ENTRY

/// The database that holds the tables of a key type. `undefined` has none and is an assertion failure.
constexpr EmType emTypeOf(EmComposerKeyUnionTag composerType) {
  EmType database = EmType::lem;
  const bool known = visitKeyType(composerType, [&]<class Row>() { database = Row::kDatabase; });
  KILN_ASSERT_MESSAGE(known, "Unsupported keyType {}", static_cast<int>(composerType));
  return database;
}

}  // namespace KilnEmServer
