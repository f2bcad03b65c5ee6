// Values by handle: what one holder of keys files under them.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/Assert.h"

namespace KilnEmServer {

/// A map from handles to values, for one who holds most handles of a page or none. Values lie in pages by
/// handle: a value stays where it is, growth costs one page, a page without values takes no room.
template <class V>
class Column {
 public:
  static constexpr std::uint32_t kNone = ~std::uint32_t{0};

  Column() = default;
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
    return page.values + offset(handle);
  }
  /// Adds a value; the handle has none.
  template <class... Args>
  V& emplace(std::uint32_t handle, Args&&... args) {
    const std::size_t at = handle / kPerPage;
    if (at >= pages_.size()) pages_.resize(at + 1);
    Page& page = pages_[at];
    if (page.values == nullptr) page.values = spare_ != nullptr ? std::exchange(spare_, nullptr) : newPage();
    V* value = ::new (static_cast<void*>(page.values + offset(handle))) V{std::forward<Args>(args)...};
    page.present |= bit(handle);
    ++size_;
    return *value;
  }
  /// Removes the value that the handle has.
  void erase(std::uint32_t handle) {
    Page& page = pages_[handle / kPerPage];
    KILN_ASSERT((page.present & bit(handle)) != 0);
    page.values[offset(handle)].~V();
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
  /// Fetches the handle's value into the cache, or what stands in its place.
  void prefetch(std::uint32_t handle) const {
    const std::size_t at = handle / kPerPage;
    if (at >= pages_.size()) return;
    // An address only: a page without values has none to point into.
    const auto values = reinterpret_cast<std::uintptr_t>(pages_[at].values);
    __builtin_prefetch(reinterpret_cast<const void*>(values + offset(handle) * sizeof(V)));
  }

 private:
  static constexpr std::size_t kPerPage = 64;
  /// Values without content need one place in all.
  static constexpr bool kHasContent = !std::is_empty_v<V>;
  struct Page {
    std::uint64_t present = 0;  ///< a bit per handle
    V* values = nullptr;
  };
  static std::size_t offset(std::uint32_t handle) { return kHasContent ? handle % kPerPage : 0; }
  static std::uint64_t bit(std::uint32_t handle) { return std::uint64_t{1} << (handle % kPerPage); }

  static V* newPage() { return std::allocator<V>().allocate(kHasContent ? kPerPage : 1); }
  static void freePage(V* values) {
    if (values != nullptr) std::allocator<V>().deallocate(values, kHasContent ? kPerPage : 1);
  }
  /// The page holds no value any more. One such page is kept, so that a key that comes and goes allocates
  /// nothing.
  void retire(Page& page) {
    freePage(std::exchange(spare_, std::exchange(page.values, nullptr)));
    if (size_ == 0 && pages_.size() > kPerPage) std::vector<Page>().swap(pages_);
  }

  std::vector<Page> pages_;
  std::size_t size_ = 0;
  V* spare_ = nullptr;
};

}  // namespace KilnEmServer
