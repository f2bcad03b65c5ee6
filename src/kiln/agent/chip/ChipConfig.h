// The configuration of the chip: read from a chip file, or a documented default.
#pragma once

#include <cstdint>
#include <istream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kiln/agent/platform/VlanDomainService.h"
#include "kiln/platform/EmKeys.h"
#include "kiln/platform/Hardware.h"

namespace KilnAgent {

/// The chip's tables, FAPs, MDB profiles and the limits of its VLAN domains.
struct ChipConfig {
  struct Fap {
    Hardware::Kiln::FapId fapId;
    Hardware::Kiln::FapInfo info;
    std::optional<std::uint32_t> profile;  ///< id of its MDB profile; none if it has no profile
    friend bool operator==(const Fap&, const Fap&) = default;
  };

  /// Entries that each table holds.
  KilnEmServer::ByKeyType<std::uint32_t> tableSizes;
  std::vector<Fap> faps;
  std::map<std::uint32_t, KilnMdb::ProfileCapabilities> profiles;
  VlanDomainLimits vlanDomains;
  friend bool operator==(const ChipConfig&, const ChipConfig&) = default;
};

/// The chip that is used without a chip file: 1,000,000 entries per table, two FAPs of two cores, 511 VLAN
/// domains.
ChipConfig defaultChip();

/// The chip that a chip file describes: JSON in which // comments are allowed; omitted members have the
/// default values. Throws InputError if the text is invalid.
ChipConfig readChip(std::istream& text);
/// The same from a file. Throws InputError with the file's name, also if the file is missing.
ChipConfig readChipFile(const std::string& path);

}  // namespace KilnAgent
