// The capacity table: how full each table is, for operators.
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

#include "kiln/platform/Collection.h"
#include "kiln/platform/FixedString.h"
#include "kiln/platform/Value.h"

namespace KilnPlatform {

/// One capacity row: a table, the feature that uses it (empty for the table as a whole), the reporting agent
/// and the chip component (FAP and core).
struct TableCapacityKey {
  std::string table;
  std::string feature;
  std::string agent;
  std::string chip;
  KILN_VALUE(KilnPlatform, TableCapacityKey, table, feature, agent, chip)
};

/// Usage of one row, in 60-bit entry units.
struct TableCapacityEntry {
  std::uint32_t used = 0;
  std::uint32_t free = 0;
  std::uint32_t committed = 0;
  std::uint32_t maxLimit = 0;
  std::chrono::nanoseconds updated{0};
  friend bool operator==(const TableCapacityEntry&, const TableCapacityEntry&) = default;
};

/// The rows. The server writes them.
class TableCapacity {
 public:
  using Entries = KeyedCollection<TableCapacityKey, TableCapacityEntry>;
  explicit TableCapacity(std::unique_ptr<Entries> entries) : entries_(std::move(entries)) {}
  Entries& entry() { return *entries_; }
  [[nodiscard]] const Entries& entry() const { return *entries_; }

  struct entryAttr {
    using Entity = TableCapacity;
    using Key = Entries::Key;
    using Value = Entries::Value;
    static constexpr FixedString kName{"entry"};
    static Entries& of(TableCapacity& entity) { return entity.entry(); }
    static const Entries& of(const TableCapacity& entity) { return entity.entry(); }
  };

 private:
  std::unique_ptr<Entries> entries_;
};

}  // namespace KilnPlatform
