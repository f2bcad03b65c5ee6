// Values by handle: the storage of one holder of keys.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "kiln/platform/Assert.h"
#include "kiln/runtime/collections/AlwaysInline.h"
#include "kiln/runtime/collections/FetchAhead.h"
#include "kiln/runtime/collections/PageArena.h"

namespace KilnEmServer {

/// The memory layout of a column, independent of its value type.
class ColumnPlaces {
 public:
  /// Handles of one page.
  static constexpr std::size_t kPerPage = 128;

  /// Prefetches the handle's value into the cache, if it has one. The place of a value that will be added is
  /// not prefetched: it is next to the values that were added last.
  KILN_ALWAYS_INLINE void prefetch(std::uint32_t handle) const {
    if (!has(handle)) return;
    const auto* value =
        static_cast<const std::byte*>(pages_[handle / kPerPage]) + handle % kPerPage * stride_;
    prefetchLine(value);
    if (last_ > kLine) prefetchLine(value + kLine);
    prefetchLine(value + last_);
  }

  /// Whether the handle has a value.
  [[nodiscard]] bool has(std::uint32_t handle) const {
    return handle < known_ && (present_[handle / kPerWord] & bit(handle)) != 0;
  }

 protected:
  static constexpr std::size_t kPerWord = 64;
  static constexpr std::size_t kWordsPerPage = kPerPage / kPerWord;
  static constexpr std::size_t kLine = 64;  ///< bytes that are fetched together

  /// `stride` is the distance from one value to the next in bytes; 0 for values without content.
  explicit ColumnPlaces(std::size_t stride) : stride_(stride), last_(stride == 0 ? 0 : stride - 1) {}
  ~ColumnPlaces() = default;

  static std::uint64_t bit(std::uint32_t handle) { return std::uint64_t{1} << (handle % kPerWord); }

  // Bits and pages are stored apart: the page pointers are on few cache lines, so a prefetch does not wait
  // for them.
  std::vector<std::uint64_t> present_;  ///< a bit per handle
  std::vector<void*> pages_;            ///< null if no handle of the page has a value
  std::size_t known_ = 0;               ///< handles below it have a bit

 private:
  std::size_t stride_;
  std::size_t last_;  ///< byte of a value
};

/// Columns that are read together, each listed once.
class ColumnList {
 public:
  void add(const ColumnPlaces& column) {
    if (std::find(columns_.begin(), columns_.end(), &column) != columns_.end()) return;
    columns_.push_back(&column);
    ++changes_;
  }
  void remove(const ColumnPlaces& column) {
    std::erase(columns_, &column);
    ++changes_;
  }
  void prefetch(std::uint32_t handle) const {
    for (const ColumnPlaces* column : columns_) column->prefetch(handle);
  }
  [[nodiscard]] const std::vector<const ColumnPlaces*>& columns() const { return columns_; }
  /// How often any list of this thread changed.
  static std::uint64_t changes() { return changes_; }

 private:
  std::vector<const ColumnPlaces*> columns_;
  static inline constinit thread_local std::uint64_t changes_ = 0;
};

/// A map from handles to values, for a holder of most handles of a page or of none. Values are stored in
/// pages by handle: a value never moves, growth costs one page, and a page without values takes no memory.
template <class V>
class Column : public ColumnPlaces {
 public:
  static constexpr std::uint32_t kNone = ~std::uint32_t{0};

  Column() : ColumnPlaces(kHasContent ? sizeof(V) : 0) {}
  ~Column() { clear(); }
  Column(const Column&) = delete;
  Column& operator=(const Column&) = delete;

  [[nodiscard]] std::size_t size() const { return size_; }
  [[nodiscard]] bool empty() const { return size_ == 0; }

  /// The handle's value, or null. Valid until that value is erased.
  [[nodiscard]] KILN_ALWAYS_INLINE V* find(std::uint32_t handle) const {
    return has(handle) ? valueAt(handle) : nullptr;
  }
  /// Adds a value; the handle must not have one.
  template <class... Args>
  V& emplace(std::uint32_t handle, Args&&... args) {
    const std::size_t at = handle / kPerPage;
    if (at >= pages_.size()) {
      pages_.resize(at + 1);
      present_.resize((at + 1) * kWordsPerPage);
      known_ = (at + 1) * kPerPage;
    }
    if (pages_[at] == nullptr) pages_[at] = PageArena::instance().take(kPageBytes);
    V* value = ::new (static_cast<void*>(valueAt(handle))) V{std::forward<Args>(args)...};
    present_[handle / kPerWord] |= bit(handle);
    ++size_;
    ++emplaced_;
    return *value;
  }
  /// Removes the value of the handle, which must have one.
  void erase(std::uint32_t handle) {
    std::uint64_t& word = present_[handle / kPerWord];
    KILN_ASSERT((word & bit(handle)) != 0);
    valueAt(handle)->~V();
    word &= ~bit(handle);
    --size_;
    if (word == 0) retire(handle / kPerPage);
  }
  void clear() {
    for (std::uint32_t handle = next(0); handle != kNone; handle = next(handle + 1)) erase(handle);
  }
  /// The least handle with a value from `handle` on, or kNone.
  [[nodiscard]] std::uint32_t next(std::size_t handle) const {
    for (std::size_t word = handle / kPerWord; word < present_.size(); ++word) {
      std::uint64_t present = present_[word];
      if (word == handle / kPerWord) present &= ~std::uint64_t{0} << (handle % kPerWord);
      if (present != 0)
        return static_cast<std::uint32_t>(word * kPerWord + static_cast<unsigned>(std::countr_zero(present)));
    }
    return kNone;
  }

 private:
  /// Values without content share one place.
  static constexpr bool kHasContent = !std::is_empty_v<V>;
  static constexpr std::size_t kPageBytes = (kHasContent ? kPerPage : 1) * sizeof(V);

  [[nodiscard]] V* valueAt(std::uint32_t handle) const {
    return static_cast<V*>(pages_[handle / kPerPage]) + (kHasContent ? handle % kPerPage : 0);
  }

  /// Gives a page back that holds no value any more. An empty column drops its page table only after as many
  /// insertions as the table has entries, so that a key that is added and removed repeatedly costs little.
  void retire(std::size_t page) {
    for (std::size_t word = page * kWordsPerPage; word < (page + 1) * kWordsPerPage; ++word) {
      if (present_[word] != 0) return;
    }
    PageArena::instance().give(std::exchange(pages_[page], nullptr), kPageBytes);
    if (size_ != 0 || emplaced_ < pages_.size()) return;
    emplaced_ = 0;
    known_ = 0;
    std::vector<void*>().swap(pages_);
    std::vector<std::uint64_t>().swap(present_);
  }

  std::size_t size_ = 0;
  std::size_t emplaced_ = 0;  ///< values since the page table was dropped
};

}  // namespace KilnEmServer
