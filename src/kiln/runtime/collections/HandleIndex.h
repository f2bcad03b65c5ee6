// The index from hashes to handles: open addressing, resized in steps.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kiln/runtime/collections/FetchAhead.h"
#include "kiln/runtime/collections/PageArena.h"

namespace KilnEmServer {

/// A multimap from 32-bit hashes to handles, kept nearly in the order of the hashes. When it grows or
/// shrinks, each later change moves a few entries to the new table, so that no single change pays for all of
/// them. Since the order is kept, the pages of the new table are also touched for the first time one by one.
class HandleIndex {
 public:
  static constexpr std::uint32_t kNone = ~std::uint32_t{0};

  /// The first handle under `hash` for which `equal(handle)` holds, or kNone.
  template <class Equal>
  [[nodiscard]] std::uint32_t find(std::uint32_t hash, Equal&& equal) const {
    if (old_.cells == nullptr) [[likely]]
      return current_.find(hash, equal);
    const bool moved = migrated(hash);
    const std::uint32_t found = (moved ? current_ : old_).find(hash, equal);
    return found != kNone ? found : (moved ? old_ : current_).find(hash, equal);
  }
  /// Prefetches the cell that `find` will read first.
  void prefetch(std::uint32_t hash) const {
    current_.prefetch(hash);
    if (old_.cells != nullptr) [[unlikely]]
      old_.prefetch(hash);
  }
  void insert(std::uint32_t hash, std::uint32_t handle);
  /// Removes the handle, which must be stored under this hash.
  void erase(std::uint32_t hash, std::uint32_t handle);
  /// Removes all entries and frees the memory, except a small table.
  void clear();
  [[nodiscard]] std::size_t size() const { return current_.size + old_.size; }

 private:
  struct Cell {
    std::uint32_t hash;
    std::uint32_t handlePlusOne;  ///< 0 in an empty cell
  };
  /// Linear probing; a power of two of cells, never full.
  struct Table {
    TablePtr<Cell> cells;
    std::size_t mask = 0;
    std::size_t size = 0;
    unsigned shift = 0;  ///< from a hash to its cell

    [[nodiscard]] std::size_t home(std::uint32_t hash) const {
      return static_cast<std::size_t>(std::uint64_t{hash} >> shift);
    }

    template <class Equal>
    [[nodiscard]] std::uint32_t find(std::uint32_t hash, Equal&& equal) const {
      if (size == 0) return kNone;
      for (std::size_t at = home(hash); cells[at].handlePlusOne != 0; at = (at + 1) & mask) {
        if (cells[at].hash == hash && equal(cells[at].handlePlusOne - 1)) return cells[at].handlePlusOne - 1;
      }
      return kNone;
    }
    void prefetch(std::uint32_t hash) const {
      if (cells != nullptr) prefetchLine(&cells[home(hash)]);
    }
    void allocate(std::size_t capacity);
    void insert(Cell cell);
    bool erase(std::uint32_t hash, std::uint32_t handle);
    void eraseAt(std::size_t at);
  };

  void resize(std::size_t capacity);
  void migrate(std::size_t cells);
  /// Whether the part of the old table where the hash belongs was moved. The other part still takes new
  /// entries. Entries that wrap around from its end to its begin may be moved before their turn.
  [[nodiscard]] bool migrated(std::uint32_t hash) const {
    return old_.cells == nullptr || ((old_.home(hash) - migrateFrom_) & old_.mask) < migrated_;
  }

  Table current_;
  Table old_;                    ///< the entries that are still to be moved
  std::size_t migrateFrom_ = 0;  ///< the cell of `old_` where the migration began
  std::size_t migrated_ = 0;     ///< number of cells moved since then
};

}  // namespace KilnEmServer
