// Values by handle: what one holder of keys files under them.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/Assert.h"
#include "runtime/FetchAhead.h"
#include "runtime/PageArena.h"

namespace KilnEmServer {

/// Where a column's values lie, whatever they are.
class ColumnPlaces {
 public:
  /// Fetches the handle's value into the cache, or what stands in its place.
  void prefetch(std::uint32_t handle) const {
    const std::size_t at = handle / kPerPage;
    if (at >= pages_.size()) return;
    const auto* values = static_cast<const std::byte*>(pages_[at].values);
    if (values == nullptr) return;
    const std::byte* value = values + handle % kPerPage * stride_;
    fetchAhead(value);
    if (stride_ <= kLine) return;
    fetchAhead(value + kLine);
    fetchAhead(value + stride_ - 1);
  }

 protected:
  static constexpr std::size_t kPerPage = 64;
  static constexpr std::size_t kLine = 64;  ///< bytes that are fetched together
  struct Page {
    std::uint64_t present = 0;  ///< a bit per handle
    void* values = nullptr;
  };

  explicit ColumnPlaces(std::size_t stride) : stride_(stride) {}
  ~ColumnPlaces() = default;

  std::vector<Page> pages_;

 private:
  std::size_t stride_;  ///< bytes from one value to the next; 0 for values without content
};

/// A map from handles to values, for one who holds most handles of a page or none. Values lie in pages by
/// handle: a value stays where it is, growth costs one page, a page without values takes no room.
template <class V>
class Column : public ColumnPlaces {
 public:
  static constexpr std::uint32_t kNone = ~std::uint32_t{0};

  Column() : ColumnPlaces(kHasContent ? sizeof(V) : 0) {}
  ~Column() {
    clear();
    freePage(spare_);
  }
  Column(const Column&) = delete;
  Column& operator=(const Column&) = delete;

  [[nodiscard]] std::size_t size() const { return size_; }
  [[nodiscard]] bool empty() const { return size_ == 0; }

  /// The handle's value, or null. Stays valid until that value is erased.
  [[nodiscard]] V* find(std::uint32_t handle) const {
    const std::size_t at = handle / kPerPage;
    if (at >= pages_.size()) return nullptr;
    const Page& page = pages_[at];
    if ((page.present >> (handle % kPerPage) & 1) == 0) return nullptr;
    return valueAt(page, handle);
  }
  /// Adds a value; the handle has none.
  template <class... Args>
  V& emplace(std::uint32_t handle, Args&&... args) {
    const std::size_t at = handle / kPerPage;
    if (at >= pages_.size()) pages_.resize(at + 1);
    Page& page = pages_[at];
    if (page.values == nullptr) page.values = spare_ != nullptr ? std::exchange(spare_, nullptr) : newPage();
    V* value = ::new (static_cast<void*>(valueAt(page, handle))) V{std::forward<Args>(args)...};
    page.present |= bit(handle);
    ++size_;
    return *value;
  }
  /// Removes the value that the handle has.
  void erase(std::uint32_t handle) {
    Page& page = pages_[handle / kPerPage];
    KILN_ASSERT((page.present & bit(handle)) != 0);
    valueAt(page, handle)->~V();
    page.present &= ~bit(handle);
    --size_;
    if (page.present == 0) retire(page);
  }
  void clear() {
    for (std::uint32_t handle = next(0); handle != kNone; handle = next(handle + 1)) erase(handle);
  }
  /// The least handle with a value from `handle` on, or kNone.
  [[nodiscard]] std::uint32_t next(std::size_t handle) const {
    for (std::size_t at = handle / kPerPage; at < pages_.size(); ++at) {
      std::uint64_t present = pages_[at].present;
      if (at == handle / kPerPage) present &= ~std::uint64_t{0} << (handle % kPerPage);
      if (present != 0)
        return static_cast<std::uint32_t>(at * kPerPage + static_cast<unsigned>(std::countr_zero(present)));
    }
    return kNone;
  }

 private:
  /// Values without content need one place in all.
  static constexpr bool kHasContent = !std::is_empty_v<V>;
  static V* valueAt(const Page& page, std::uint32_t handle) {
    return static_cast<V*>(page.values) + offset(handle);
  }
  static std::size_t offset(std::uint32_t handle) { return kHasContent ? handle % kPerPage : 0; }
  static std::uint64_t bit(std::uint32_t handle) { return std::uint64_t{1} << (handle % kPerPage); }

  static constexpr std::size_t kPageBytes = (kHasContent ? kPerPage : 1) * sizeof(V);
  static void* newPage() { return PageArena::instance().take(kPageBytes); }
  static void freePage(void* values) {
    if (values != nullptr) PageArena::instance().give(values, kPageBytes);
  }
  /// The page holds no value any more. One such page is kept, so that a key that comes and goes allocates
  /// nothing.
  void retire(Page& page) {
    freePage(std::exchange(spare_, std::exchange(page.values, nullptr)));
    if (size_ == 0 && pages_.size() > kPerPage) std::vector<Page>().swap(pages_);
  }

  std::size_t size_ = 0;
  void* spare_ = nullptr;
};

}  // namespace KilnEmServer
