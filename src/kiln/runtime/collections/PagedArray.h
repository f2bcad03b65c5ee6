// Arrays that grow by pages: an element never moves, and growth costs one page.
#pragma once

#include <cstddef>
#include <new>
#include <utility>
#include <vector>

#include "kiln/platform/Assert.h"
#include "kiln/runtime/collections/PageArena.h"

namespace KilnEmServer {

/// A vector that never moves its elements. One that never held any element holds no page.
template <class T>
class PagedArray {
 public:
  PagedArray() = default;
  ~PagedArray() { clear(); }
  PagedArray(const PagedArray&) = delete;
  PagedArray& operator=(const PagedArray&) = delete;

  [[nodiscard]] std::size_t size() const { return size_; }
  [[nodiscard]] bool empty() const { return size_ == 0; }
  [[nodiscard]] T& operator[](std::size_t at) { return *slot(at); }
  [[nodiscard]] const T& operator[](std::size_t at) const { return *slot(at); }
  [[nodiscard]] T& back() { return *slot(size_ - 1); }

  template <class... Args>
  T& emplace_back(Args&&... args) {
    if (size_ == pages_.size() * kPerPage) pages_.push_back(makePage<Page>());
    T* element = ::new (static_cast<void*>(slot(size_))) T{std::forward<Args>(args)...};
    ++size_;
    return *element;
  }
  void pop_back() {
    KILN_ASSERT(size_ != 0);
    slot(--size_)->~T();
    // One spare page is kept, so that a size that varies around a page boundary allocates nothing.
    if (size_ + 2 * kPerPage <= pages_.size() * kPerPage) pages_.pop_back();
  }
  void clear() {
    while (size_ != 0) pop_back();
  }

 private:
  static constexpr std::size_t kLeastBytes = 256;  ///< of a page, also in the arena
  static constexpr std::size_t kPerPage = sizeof(T) < 8 ? kLeastBytes / sizeof(T) : 32;
  struct Page {
    alignas(T) std::byte bytes[kPerPage * sizeof(T)];
  };
  [[nodiscard]] T* slot(std::size_t at) const {
    return reinterpret_cast<T*>(pages_[at / kPerPage]->bytes) + at % kPerPage;
  }

  std::vector<PagePtr<Page>> pages_;
  std::size_t size_ = 0;
};

}  // namespace KilnEmServer
