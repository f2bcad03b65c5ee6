// The chip's vocabulary: FAPs, cores, MDB profiles and the status that the agent publishes of them.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kiln/platform/Collection.h"
#include "kiln/platform/Value.h"

namespace Hardware::Kiln {

/// One forwarding chip. 0x7FE means all chips.
class FapId {
 public:
  using Number = std::uint16_t;
  constexpr FapId() = default;
  constexpr explicit FapId(std::uint64_t number) : number_(static_cast<Number>(number)) {
    if (number > 0xFFFF) throw std::range_error("Hardware::Kiln::FapId::value > 0xffff not allowed");
  }
  static constexpr FapId allFap() { return FapId(0x7FE); }
  [[nodiscard]] constexpr Number number() const { return number_; }
  friend auto operator<=>(const FapId&, const FapId&) = default;

 private:
  Number number_ = 0;
};

/// One core of a chip: 0 to 4; 5 means all cores, 6 none.
class LocalCoreId {
 public:
  using Number = std::uint8_t;
  static constexpr Number kMin = 0;
  static constexpr Number kNull = 6;
  constexpr LocalCoreId() = default;
  constexpr explicit LocalCoreId(std::uint64_t number) : number_(static_cast<Number>(number)) {
    if (number > kNull) {
      throw std::range_error(
          "Hardware::Kiln::LocalCoreId::value < Hardware::Kiln::LocalCoreId::min or > "
          "Hardware::Kiln::LocalCoreId::null not allowed");
    }
  }
  static constexpr LocalCoreId all() { return LocalCoreId(5); }
  [[nodiscard]] constexpr Number number() const { return number_; }
  friend auto operator<=>(const LocalCoreId&, const LocalCoreId&) = default;

 private:
  Number number_ = 0;
};

/// Chip type by its number; the server's capacity knows 3, 4 and 5.
using FapType = std::uint8_t;

/// What the agent publishes of one FAP.
struct FapInfo {
  std::string name;  ///< for example "Fap0"
  FapType fapType = 0;
  std::vector<LocalCoreId> cores;
  KILN_VALUE(Hardware::Kiln, FapInfo, name, fapType, cores)
};

/// Which FAPs exist, with their types and cores.
class Status {
 public:
  using Faps = KilnPlatform::KeyedCollection<FapId, FapInfo>;
  explicit Status(std::unique_ptr<Faps> faps) : faps_(std::move(faps)) {}
  Faps& fap() { return *faps_; }
  [[nodiscard]] const Faps& fap() const { return *faps_; }

 private:
  std::unique_ptr<Faps> faps_;
};

}  // namespace Hardware::Kiln

namespace KilnMdb {

/// Number of an MDB physical table, for example 64.
using PhysicalTableId = std::uint16_t;

/// The capacity that one profile gives one physical table.
struct TableCapabilities {
  PhysicalTableId table = 0;
  bool exactMatch = false;
  /// Entries that the table holds at each entry width, as pairs (width in bits, entries).
  std::vector<std::pair<std::uint16_t, std::uint32_t>> entriesByWidth;
  KILN_VALUE(KilnMdb, TableCapabilities, table, exactMatch, entriesByWidth)
};

/// An MDB profile: how the database's memory is divided among tables.
struct ProfileCapabilities {
  std::vector<TableCapabilities> tables;
  KILN_VALUE(KilnMdb, ProfileCapabilities, tables)
};

}  // namespace KilnMdb

namespace Hardware::Kiln {

/// The MDB profile in use on each FAP, and the capabilities of each profile that the chip knows.
class MdbStatus {
 public:
  using ProfileIds = KilnPlatform::KeyedCollection<FapId, std::uint32_t>;
  using Profiles = KilnPlatform::KeyedCollection<std::uint32_t, KilnMdb::ProfileCapabilities>;
  MdbStatus(std::unique_ptr<ProfileIds> profileIds, std::unique_ptr<Profiles> profiles)
      : profileIds_(std::move(profileIds)), profiles_(std::move(profiles)) {}
  ProfileIds& profileId() { return *profileIds_; }
  [[nodiscard]] const ProfileIds& profileId() const { return *profileIds_; }
  Profiles& profile() { return *profiles_; }
  [[nodiscard]] const Profiles& profile() const { return *profiles_; }

 private:
  std::unique_ptr<ProfileIds> profileIds_;
  std::unique_ptr<Profiles> profiles_;
};

}  // namespace Hardware::Kiln
