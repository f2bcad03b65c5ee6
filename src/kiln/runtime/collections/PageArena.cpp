#include "kiln/runtime/collections/PageArena.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <functional>

#include "kiln/platform/Assert.h"

namespace KilnEmServer {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kFromAllocator = true;
#elif defined(__has_feature)
constexpr bool kFromAllocator = __has_feature(address_sanitizer);
#else
constexpr bool kFromAllocator = false;
#endif

constexpr std::size_t kHugePage = std::size_t{2} << 20U;

/// Memory of the system that begins at a huge-page boundary.
void* mapHuge(std::size_t bytes) {
  const auto map = [](std::size_t size) {
    void* const mapped = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) throw std::bad_alloc();
    return static_cast<std::byte*>(mapped);
  };
  std::byte* begin = map(bytes);
  if (const std::size_t past = reinterpret_cast<std::uintptr_t>(begin) % kHugePage; past != 0) {
    ::munmap(begin, bytes);
    begin = map(bytes + kHugePage);
    const std::size_t before = (kHugePage - reinterpret_cast<std::uintptr_t>(begin) % kHugePage) % kHugePage;
    if (before != 0) ::munmap(begin, before);
    if (before != kHugePage) ::munmap(begin + before + bytes, kHugePage - before);
    begin += before;
  }
  ::madvise(begin, bytes, MADV_HUGEPAGE);  // if the system has no huge pages, small ones are used
  return begin;
}

}  // namespace

template <class T>
void PageArena::link(T*& first, T& member) {
  member.previous = nullptr;
  member.next = first;
  if (first != nullptr) first->previous = &member;
  first = &member;
}

template <class T>
void PageArena::unlink(T*& first, T& member) {
  (member.previous != nullptr ? member.previous->next : first) = member.next;
  if (member.next != nullptr) member.next->previous = member.previous;
}

void* PageArena::take(std::size_t bytes) {
  if (kFromAllocator || bytes > kMaxPage) return ::operator new(bytes);
  const std::size_t size = (bytes + kStep - 1) / kStep * kStep;
  Span*& roomy = roomy_[size / kStep - 1];
  Span& span = roomy != nullptr ? *roomy : openSpan(size);
  ++span.pages;
  void* page = nullptr;
  if (span.free != nullptr) {
    page = std::exchange(span.free, span.free->next);
  } else {
    page = std::exchange(span.fresh, span.fresh + size);
  }
  if (span.free == nullptr && span.fresh + size > span.end) unlink(roomy, span);
  return page;
}

void PageArena::give(void* page, std::size_t bytes) noexcept {
  if (kFromAllocator || bytes > kMaxPage) {
    ::operator delete(page);
    return;
  }
  Block& block = blockOf(page);
  const auto offset =
      static_cast<std::size_t>(static_cast<std::byte*>(page) - reinterpret_cast<std::byte*>(&block));
  Span& span = block.spans[offset / kSpan];
  KILN_ASSERT(span.size >= bytes && span.pages != 0);
  const bool wasFull = span.free == nullptr && span.fresh + span.size > span.end;
  span.free = ::new (page) FreePage{span.free};
  --span.pages;
  if (wasFull) link(roomy_[span.size / kStep - 1], span);
  if (span.pages == 0) closeSpan(span);
}

PageArena::Span& PageArena::openSpan(std::size_t size) {
  Block& block = open_ != nullptr ? *open_ : openBlock();
  std::size_t at = 0;
  while (block.spans[at].size != 0) ++at;
  Span& span = block.spans[at];
  auto* const begin = reinterpret_cast<std::byte*>(&block) + at * kSpan;
  constexpr std::size_t kHead = (sizeof(Block) + kStep - 1) / kStep * kStep;
  span = {.fresh = begin + (at == 0 ? kHead : 0), .end = begin + kSpan, .size = size};
  if (++block.used == kSpans) unlink(open_, block);
  link(roomy_[size / kStep - 1], span);
  counters_.bytes += kSpan;
  return span;
}

void PageArena::closeSpan(Span& span) noexcept {
  unlink(roomy_[span.size / kStep - 1], span);
  span.size = 0;
  counters_.bytes -= kSpan;
  Block& block = blockOf(&span);
  if (block.used-- == kSpans) link(open_, block);
  if (block.used != 0) return;
  unlink(open_, block);
  if (Block* const before = std::exchange(spare_, &block)) {
    if (!isReserved(before)) ::madvise(before, kBlock, MADV_FREE);
    empty_.push_back(before);  // there is room; see openBlock
  }
}

PageArena::Block& PageArena::openBlock() {
  void* memory = std::exchange(spare_, nullptr);
  if (memory == nullptr && !empty_.empty()) {
    memory = empty_.back();
    empty_.pop_back();
    givenBack_ = std::min(givenBack_, empty_.size());
  } else if (memory == nullptr && untouched_.size() != 0) {
    memory = std::exchange(untouched_.begin, untouched_.begin + kBlock);
  } else if (memory == nullptr) {
    memory = map(kBlock);
    empty_.reserve(++blocks_);
  }
  Block* const block = ::new (memory) Block;
  link(open_, *block);
  return *block;
}

bool PageArena::giveBack(std::size_t blocks) noexcept {
  for (; blocks != 0 && givenBack_ != empty_.size(); --blocks) {
    Block* const block = empty_[givenBack_++];
    if (!isReserved(block)) ::madvise(block, kBlock, MADV_DONTNEED);
  }
  return givenBack_ != empty_.size();
}

void* PageArena::map(std::size_t bytes) {
  ++counters_.mappings;
  return mapHuge(bytes);
}

void PageArena::reserve(std::size_t bytes) {
  if (kFromAllocator || untouched_.size() >= bytes) return;
  constexpr std::size_t kSmallPage = 4096;
  // Empty blocks do not count: no table fits into them, and their memory may have been given back.
  for (; untouched_.size() != 0; untouched_.begin += kBlock) {
    empty_.push_back(reinterpret_cast<Block*>(untouched_.begin));
  }
  const std::size_t blocks = (bytes + kBlock - 1) / kBlock;
  reserved_.reserve(reserved_.size() + 1);
  empty_.reserve(blocks_ + blocks);
  auto* const begin = static_cast<std::byte*>(map(blocks * kBlock));
  for (std::size_t at = 0; at < blocks * kBlock; at += kSmallPage) begin[at] = std::byte{0};
  blocks_ += blocks;
  untouched_ = {begin, begin + blocks * kBlock};
  reserved_.push_back(untouched_);
}

bool PageArena::isReserved(const void* address) const {
  return std::any_of(reserved_.begin(), reserved_.end(), [&](const Memory& memory) {
    return std::less_equal<>()(memory.begin, address) && std::less<>()(address, memory.end);
  });
}

void* PageArena::takeTable(std::size_t bytes) {
  if (kFromAllocator || bytes % kHugePage != 0) {
    void* const table = std::calloc(bytes, 1);
    if (table == nullptr) throw std::bad_alloc();
    return table;
  }
  counters_.bytes += bytes;
  if (untouched_.size() < bytes) return map(bytes);
  untouched_.end -= bytes;
  return untouched_.end;
}

void PageArena::giveTable(void* table, std::size_t bytes) noexcept {
  if (kFromAllocator || bytes % kHugePage != 0) {
    std::free(table);
    return;
  }
  counters_.bytes -= bytes;
  if (!isReserved(table)) {
    ::munmap(table, bytes);
    return;
  }
  auto* const begin = static_cast<std::byte*>(table);
  for (std::size_t at = 0; at < bytes; at += kBlock) empty_.push_back(reinterpret_cast<Block*>(begin + at));
}

}  // namespace KilnEmServer
