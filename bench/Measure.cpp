#include "bench/Measure.h"

#include <malloc.h>

#include <atomic>
#include <cerrno>
#include <numeric>
#include <random>

#include "kiln/runtime/collections/PageArena.h"

// These definitions in the program replace the C library's, also for calls from the program's libraries.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

std::atomic<std::uint64_t> asked{0};

// Only one thread allocates, so a plain increment is enough, and it disturbs the measurement least.
void count() {
  asked.store(asked.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

}  // namespace

extern "C" {
void* malloc(std::size_t size) {
  count();
  return __libc_malloc(size);
}
void* calloc(std::size_t elements, std::size_t size) {
  count();
  return __libc_calloc(elements, size);
}
void* realloc(void* memory, std::size_t size) {
  count();
  return __libc_realloc(memory, size);
}
void* memalign(std::size_t alignment, std::size_t size) {
  count();
  return __libc_memalign(alignment, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return memalign(alignment, size);
}
int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  *memory = memalign(alignment, size);
  return *memory == nullptr ? ENOMEM : 0;
}
}

namespace KilnBench {

std::vector<std::uint32_t> numbers(std::uint32_t count, bool shuffled, std::uint64_t seed) {
  std::vector<std::uint32_t> all(count);
  std::iota(all.begin(), all.end(), 0U);
  std::mt19937_64 random(seed);
  for (std::size_t left = count; shuffled && left > 1; --left) std::swap(all[left - 1], all[random() % left]);
  return all;
}

std::uint64_t allocations() {
  return asked.load(std::memory_order_relaxed) + KilnEmServer::PageArena::instance().counters().mappings;
}

std::size_t heapBytes() {
  const auto info = ::mallinfo2();
  return info.uordblks + info.hblkhd + KilnEmServer::PageArena::instance().counters().bytes;
}

}  // namespace KilnBench
