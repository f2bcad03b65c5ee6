#include "kiln/runtime/collections/HandleIndex.h"

#include <bit>
#include <utility>

#include "kiln/platform/Assert.h"

namespace KilnEmServer {
namespace {

constexpr std::size_t kLeastCapacity = 16;
/// Cells visited per change. A table doubles when it is five eighths full, so a migration ends long before
/// the next one begins.
constexpr std::size_t kCellsPerChange = 16;

}  // namespace

void HandleIndex::Table::allocate(std::size_t capacity) {
  // Fresh pages of the system are zero, so unused cells are not written.
  cells = makeTable<Cell>(capacity);
  mask = capacity - 1;
  size = 0;
  shift = 32 - static_cast<unsigned>(std::countr_zero(capacity));
}

void HandleIndex::Table::insert(Cell cell) {
  std::size_t at = home(cell.hash);
  while (cells[at].handlePlusOne != 0) at = (at + 1) & mask;
  cells[at] = cell;
  ++size;
}

bool HandleIndex::Table::erase(std::uint32_t hash, std::uint32_t handle) {
  if (size == 0) return false;
  std::size_t at = home(hash);
  while (cells[at].handlePlusOne != handle + 1) {
    if (cells[at].handlePlusOne == 0) return false;
    at = (at + 1) & mask;
  }
  eraseAt(at);
  return true;
}

/// Closes the gap: the entries that follow move back as far as their own place allows.
void HandleIndex::Table::eraseAt(std::size_t at) {
  std::size_t gap = at;
  for (std::size_t next = (at + 1) & mask; cells[next].handlePlusOne != 0; next = (next + 1) & mask) {
    if (((next - home(cells[next].hash)) & mask) < ((next - gap) & mask)) continue;
    cells[gap] = cells[next];
    gap = next;
  }
  cells[gap].handlePlusOne = 0;
  --size;
}

void HandleIndex::insert(std::uint32_t hash, std::uint32_t handle) {
  if (current_.cells == nullptr) {
    current_.allocate(kLeastCapacity);
  } else if (const std::size_t capacity = current_.mask + 1; (size() + 1) * 8 > capacity * 5) {
    resize(capacity * 2);
  }
  (migrated(hash) ? current_ : old_).insert({hash, handle + 1});
  migrate(kCellsPerChange);
}

void HandleIndex::erase(std::uint32_t hash, std::uint32_t handle) {
  const bool erased = migrated(hash) ? current_.erase(hash, handle) || old_.erase(hash, handle)
                                     : old_.erase(hash, handle) || current_.erase(hash, handle);
  KILN_ASSERT(erased);
  migrate(kCellsPerChange);
  const std::size_t capacity = current_.mask + 1;
  if (old_.cells == nullptr && capacity > kLeastCapacity && size() * 8 < capacity) resize(capacity / 2);
}

void HandleIndex::clear() {
  old_ = {};
  // The smallest table is kept: an index that is empty now and then allocates nothing.
  if (current_.mask + 1 != kLeastCapacity || current_.size != 0) current_ = {};
}

void HandleIndex::resize(std::size_t capacity) {
  if (old_.cells != nullptr) migrate(old_.mask + 1 + old_.size);
  old_ = std::exchange(current_, {});
  current_.allocate(capacity);
  migrateFrom_ = 0;
  while (old_.cells[migrateFrom_].handlePlusOne != 0) ++migrateFrom_;
  migrated_ = 0;
}

/// Goes around the old table, starting at an empty cell. Entries without a gap between them are moved
/// together: a lookup must find either all or none of the entries before its own.
void HandleIndex::migrate(std::size_t cells) {
  if (old_.cells == nullptr) return;
  bool inRow = false;
  while (old_.size != 0 && (cells != 0 || inRow)) {
    Cell& cell = old_.cells[(migrateFrom_ + migrated_) & old_.mask];
    inRow = cell.handlePlusOne != 0;
    if (inRow) {
      current_.insert(cell);
      cell = {};
      --old_.size;
    }
    ++migrated_;
    cells -= cells != 0 ? 1 : 0;
  }
  if (old_.size == 0) old_ = {};
}

}  // namespace KilnEmServer
