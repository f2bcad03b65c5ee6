// Memory for pages of values and tables, laid out for few TLB misses.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace KilnEmServer {

/// Allocates pages of some hundred bytes to some kilobytes from blocks of two megabytes, which the system is
/// advised to back by one huge page each: the data of one entry is in dozens of places, and with small pages
/// nearly each of them costs a page-table walk. Empty blocks are used again before new ones. The system is
/// told that it may take the memory of empty blocks when it is short of memory, unless the memory was
/// reserved. Reserved memory is given to blocks from one end and to tables from the other; released tables
/// become blocks.
///
/// A block is split into spans, a span into pages of one size. Sizes above kMaxPage come from the allocator.
/// With the address sanitizer all sizes do, so that the sanitizer sees each page.
class PageArena {
 public:
  struct Counters {
    std::size_t bytes = 0;       ///< of spans and tables in use now
    std::uint64_t mappings = 0;  ///< requests for memory to the system since the thread began
  };

  static constexpr std::size_t kMaxPage = 16384;

  /// This thread's arena. It lives as long as the thread.
  static PageArena& instance() {
    static thread_local auto* const arena = new PageArena;
    return *arena;
  }

  /// Memory for one page, aligned for any type; its content is undefined. Throws std::bad_alloc.
  [[nodiscard]] void* take(std::size_t bytes);
  /// Releases a page that was taken with the same size.
  void give(void* page, std::size_t bytes) noexcept;
  /// Zeroed memory for a table; it has huge pages of its own if it fills some. Throws std::bad_alloc.
  [[nodiscard]] void* takeTable(std::size_t bytes);
  /// Releases a table that was taken with the same size.
  void giveTable(void* table, std::size_t bytes) noexcept;
  /// Reserves memory: `bytes` of pages and tables can then be taken without a request to the system, which
  /// maps and zeroes two megabytes on their first use. Throws std::bad_alloc.
  void reserve(std::size_t bytes);
  /// Gives the memory of up to `blocks` empty blocks of two megabytes back to the system; reserved memory is
  /// kept. Returns whether more is left. Call it in idle time: the next use of these blocks is slower.
  bool giveBack(std::size_t blocks) noexcept;
  [[nodiscard]] const Counters& counters() const { return counters_; }

 private:
  static constexpr std::size_t kBlock = std::size_t{2} << 20U;
  static constexpr std::size_t kSpan = std::size_t{128} << 10U;
  static constexpr std::size_t kSpans = kBlock / kSpan;
  static constexpr std::size_t kStep = 256;  ///< sizes are rounded up to a multiple of it
  static constexpr std::size_t kSizes = kMaxPage / kStep;

  struct Memory {
    std::byte* begin = nullptr;
    std::byte* end = nullptr;
    [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(end - begin); }
  };
  struct FreePage {
    FreePage* next;
  };
  struct Span {
    FreePage* free = nullptr;    ///< released pages
    std::byte* fresh = nullptr;  ///< memory from here to `end` was never allocated
    std::byte* end = nullptr;
    std::size_t size = 0;      ///< of its pages; 0 if the span is not in use
    std::size_t pages = 0;     ///< allocated pages
    Span* previous = nullptr;  ///< among the spans of this size with room
    Span* next = nullptr;
  };
  /// Header at the block's begin; the block's first span is smaller by its size.
  struct Block {
    std::array<Span, kSpans> spans;
    std::size_t used = 0;       ///< spans
    Block* previous = nullptr;  ///< among the blocks with a free span
    Block* next = nullptr;
  };

  PageArena() = default;

  static Block& blockOf(void* address) {
    auto* const byte = static_cast<std::byte*>(address);
    return *reinterpret_cast<Block*>(byte - reinterpret_cast<std::uintptr_t>(address) % kBlock);
  }
  Span& openSpan(std::size_t size);
  void closeSpan(Span& span) noexcept;
  Block& openBlock();
  [[nodiscard]] bool isReserved(const void* address) const;
  void* map(std::size_t bytes);

  template <class T>
  static void link(T*& first, T& member);
  template <class T>
  static void unlink(T*& first, T& member);

  std::array<Span*, kSizes> roomy_ = {};  ///< per size the spans with room
  Block* open_ = nullptr;                 ///< the blocks with a free span
  Block* spare_ = nullptr;                ///< the block that became empty last
  std::vector<Block*> empty_;             ///< the others, whose memory may have been given back
  std::size_t givenBack_ = 0;             ///< the first of these, whose memory was given back, or kept
  std::size_t blocks_ = 0;                ///< all blocks, and all that reserved memory may become
  std::vector<Memory> reserved_;          ///< all reservations
  Memory untouched_;                      ///< unused part of the latest one; zeroed
  Counters counters_;
};

/// Destroys an object that has a page of its own.
struct GivePageBack {
  template <class T>
  void operator()(T* object) const noexcept {
    object->~T();
    PageArena::instance().give(object, sizeof(T));
  }
};
template <class T>
using PagePtr = std::unique_ptr<T, GivePageBack>;
/// Makes an object in a page of its own; members without initializers are left as they are.
template <class T>
PagePtr<T> makePage() {
  static_assert(std::is_nothrow_default_constructible_v<T> && alignof(T) <= alignof(std::max_align_t));
  return PagePtr<T>(::new (PageArena::instance().take(sizeof(T))) T);
}

/// Gives back a table of that many elements.
struct GiveTableBack {
  std::size_t size = 0;
  template <class T>
  void operator()(T* table) const noexcept {
    PageArena::instance().giveTable(table, size * sizeof(T));
  }
};
template <class T>
using TablePtr = std::unique_ptr<T[], GiveTableBack>;
/// Makes a table whose bytes are all zero.
template <class T>
TablePtr<T> makeTable(std::size_t size) {
  static_assert(std::is_trivial_v<T>);
  return TablePtr<T>(static_cast<T*>(PageArena::instance().takeTable(size * sizeof(T))), GiveTableBack{size});
}

}  // namespace KilnEmServer
