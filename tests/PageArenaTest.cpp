// Memory for pages: no two pages share a byte, whatever sizes are taken and released, and released memory is
// used again.
#include "kiln/runtime/collections/PageArena.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <random>
#include <vector>

namespace KilnTest {
namespace {

using KilnEmServer::PageArena;

/// A page whose bytes all identify it.
struct Page {
  void* memory;
  std::size_t bytes;
  unsigned char mark;
  [[nodiscard]] bool intact() const {
    const auto* at = static_cast<const unsigned char*>(memory);
    return std::all_of(at, at + bytes, [this](unsigned char byte) { return byte == mark; });
  }
};

// The arena is filled with pages of one size, then with many, then nearly emptied, several times.
TEST(PageArena, PagesOfAllSizesDoNotOverlap) {
  PageArena& arena = PageArena::instance();
  const std::size_t bytesBefore = arena.counters().bytes;
  std::mt19937 random(7);
  std::vector<Page> pages;
  const auto giveBack = [&](std::size_t at) {
    std::swap(pages[at], pages.back());
    ASSERT_TRUE(pages.back().intact());
    arena.give(pages.back().memory, pages.back().bytes);
    pages.pop_back();
  };
  std::uint64_t mappings = 0;
  for (unsigned round = 0; round < 4; ++round) {
    for (unsigned step = 0; step < 3000; ++step) {
      const std::size_t bytes = round % 2 == 0 ? 14'336 : 1 + random() % (PageArena::kMaxPage + 2000);
      const Page page{arena.take(bytes), bytes, static_cast<unsigned char>(random())};
      ASSERT_EQ(reinterpret_cast<std::uintptr_t>(page.memory) % alignof(std::max_align_t), 0U);
      std::memset(page.memory, page.mark, bytes);
      pages.push_back(page);
      if (random() % 3 == 0) giveBack(random() % pages.size());
    }
    while (pages.size() > 5) giveBack(random() % pages.size());
    if (round == 1) mappings = arena.counters().mappings;
  }
  EXPECT_EQ(arena.counters().mappings, mappings) << "what was given back is not used again";
  while (!pages.empty()) giveBack(0);
  EXPECT_EQ(arena.counters().bytes, bytesBefore);
}

TEST(PageArena, ReservedMemoryNeedsNoRequestToTheSystem) {
  PageArena& arena = PageArena::instance();
  constexpr std::size_t kPages = 1000;
  constexpr std::size_t kBytes = 8192;
  constexpr std::size_t kTable = std::size_t{4} << 20U;
  arena.reserve(kPages * kBytes * 9 / 8 + kTable);
  const std::uint64_t mappings = arena.counters().mappings;
  auto* const table = static_cast<unsigned char*>(arena.takeTable(kTable));
  EXPECT_TRUE(std::all_of(table, table + kTable, [](unsigned char byte) { return byte == 0; }));
  std::memset(table, 0xFF, kTable);
  std::vector<void*> pages;
  const auto takeAndFill = [&](std::size_t count) {
    for (std::size_t page = 0; page < count; ++page) {
      pages.push_back(arena.take(kBytes));
      std::memset(pages.back(), 0xFF, kBytes);
    }
  };
  takeAndFill(kPages);
  arena.giveTable(table, kTable);
  takeAndFill(kTable / kBytes * 7 / 8);  // in place of the table
  EXPECT_EQ(arena.counters().mappings, mappings);
  for (void* page : pages) arena.give(page, kBytes);
}

TEST(PageArena, IdleMemoryIsGivenBackToTheSystem) {
  PageArena& arena = PageArena::instance();
  constexpr std::size_t kBytes = 14'336;
  const auto resident = [] {
    std::size_t size = 0;
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> size >> pages;
    return pages * 4096;
  };
  const std::size_t inUse = arena.counters().bytes;
  std::vector<void*> pages(5000);
  for (int round = 0; round < 2; ++round) {
    for (void*& page : pages) std::memset(page = arena.take(kBytes), 0xFF, kBytes);
    const bool ofArena = arena.counters().bytes != inUse;
    const std::size_t before = resident();
    for (void* page : pages) arena.give(page, kBytes);
    while (arena.giveBack(3)) {
    }
    if (!ofArena) GTEST_SKIP() << "pages come from the allocator";
    EXPECT_LT(resident() + pages.size() * kBytes * 3 / 4, before);
  }
}

}  // namespace
}  // namespace KilnTest
