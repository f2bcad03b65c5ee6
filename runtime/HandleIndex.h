// The index from hashes to handles: open addressing, resized in steps.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/PageArena.h"

namespace KilnEmServer {

/// A multimap from 32-bit hashes to handles. When it grows or shrinks, each later change moves a few entries
/// to the new table, so that no single change pays for all of them.
class HandleIndex {
 public:
  static constexpr std::uint32_t kNone = ~std::uint32_t{0};

  /// The first handle under `hash` for which `equal(handle)` holds, or kNone.
  template <class Equal>
  [[nodiscard]] std::uint32_t find(std::uint32_t hash, Equal&& equal) const {
    const std::uint32_t found = current_.find(hash, equal);
    return found != kNone || old_.size == 0 ? found : old_.find(hash, equal);
  }
  void insert(std::uint32_t hash, std::uint32_t handle);
  /// The handle stands under this hash.
  void erase(std::uint32_t hash, std::uint32_t handle);
  /// Forgets everything and frees the memory, but for a small table.
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

    template <class Equal>
    [[nodiscard]] std::uint32_t find(std::uint32_t hash, Equal&& equal) const {
      if (size == 0) return kNone;
      for (std::size_t at = hash & mask; cells[at].handlePlusOne != 0; at = (at + 1) & mask) {
        if (cells[at].hash == hash && equal(cells[at].handlePlusOne - 1)) return cells[at].handlePlusOne - 1;
      }
      return kNone;
    }
    void allocate(std::size_t capacity);
    void insert(Cell cell);
    bool erase(std::uint32_t hash, std::uint32_t handle);
    void eraseAt(std::size_t at);
  };

  void resize(std::size_t capacity);
  void migrate(std::size_t cells);

  Table current_;
  Table old_;                  ///< what is still to be moved
  std::size_t migrateAt_ = 0;  ///< the cell of `old_` to be looked at next
};

}  // namespace KilnEmServer
