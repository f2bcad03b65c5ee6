// Keys by handle: the index under collisions, growth and shrinking, and handles that several holders share.
#include "kiln/runtime/collections/KeySpace.h"

#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kiln/runtime/collections/Collection.h"
#include "kiln/runtime/collections/PendingKeys.h"
#include "kiln/runtime/model/EmTypes.h"

namespace KilnTest {
namespace {

using KilnEmServer::Arrival;
using KilnEmServer::ArrivalQueue;
using KilnEmServer::Collection;
using KilnEmServer::EmHwKey;
using KilnEmServer::HandleIndex;
using KilnEmServer::KeySpace;
using KilnEmServer::PendingKeys;
using KilnEmServer::SparseCollection;

// Hashes that collide, are adjacent and wrap around the table's end, while the number of entries rises and
// falls, so that most changes happen during a migration.
TEST(HandleIndex, AgreesWithAModelWhileItIsResized) {
  for (unsigned seed = 0; seed < 12; ++seed) {
    std::mt19937 random(seed);
    HandleIndex index;
    std::map<std::uint32_t, std::uint32_t> hashOf;  // by handle
    const auto found = [&](std::uint32_t handle, std::uint32_t hash) {
      return index.find(hash, [&](std::uint32_t other) { return other == handle; });
    };
    for (unsigned step = 0; step < 12000; ++step) {
      const auto handle = static_cast<std::uint32_t>(random() % 4000);
      const bool growing = step / 3000 % 2 == 0;
      if (const auto at = hashOf.find(handle); at == hashOf.end()) {
        if (!growing && random() % 8 != 0) continue;
        const auto hash =
            static_cast<std::uint32_t>(random() % 3 == 0 ? random() : 0U - random() % (1U + seed * 30));
        hashOf.emplace(handle, hash);
        index.insert(hash, handle);
      } else if (!growing || random() % 8 == 0) {
        index.erase(at->second, handle);
        ASSERT_EQ(found(handle, at->second), HandleIndex::kNone);
        hashOf.erase(at);
      }
      ASSERT_EQ(index.size(), hashOf.size());
      auto some = hashOf.lower_bound(static_cast<std::uint32_t>(random() % 4000));
      for (unsigned more = 0; more < 8 && some != hashOf.end(); ++more, ++some) {
        ASSERT_EQ(found(some->first, some->second), some->first) << "seed " << seed << " step " << step;
      }
    }
  }
}

// The counter of moments wraps around, and comparisons are still correct.
TEST(ArrivalQueue, AgreesWithAModelOverManyPages) {
  std::mt19937_64 random(1);
  ArrivalQueue queue;
  std::deque<std::pair<std::uint32_t, Arrival>> model;
  Arrival arrival = 0;
  for (unsigned step = 0; step < 60000; ++step) {
    const bool filling = step / 5000 % 2 == 0;
    if (model.empty() || random() % 8 < (filling ? 6U : 2U)) {
      const auto number = static_cast<std::uint32_t>(random());
      arrival += static_cast<Arrival>(random() % (1U << 18));
      queue.push(number, arrival);
      model.emplace_back(number, arrival);
    } else {
      ASSERT_EQ(queue.firstArrival(), model.front().second);
      ASSERT_TRUE(model.size() == 1 || KilnEmServer::isBefore(queue.firstArrival(), model[1].second + 1));
      ASSERT_EQ(queue.numberAhead(0), model.front().first);
      ASSERT_EQ(queue.pop(), model.front().first);
      model.pop_front();
    }
    ASSERT_EQ(queue.size(), model.size());
  }
}

// Key objects that outlive their handles: their hint may name a handle that is free, that another key has, or
// whose page was freed. The right key is found in each case.
void expectKeysFound(std::size_t count, unsigned stepsPerPhase) {
  KeySpace<EmHwKey>& space = KeySpace<EmHwKey>::instance();
  ASSERT_EQ(space.size(), 0U);
  const auto keyOf = [](std::size_t label) {
    return EmHwKey{Hardware::Kiln::FapId::allFap(), Hardware::Kiln::LocalCoreId::all(),
                   KilnTunnelNiLib::IsemMplsEntryKey{.label = static_cast<std::uint32_t>(label)}};
  };
  std::vector<EmHwKey> keys;
  for (std::size_t i = 0; i < count; ++i) keys.push_back(keyOf(i));
  std::map<std::size_t, EmHwKey> held;
  std::mt19937 random(1);
  for (unsigned step = 0; step < 10 * stepsPerPhase; ++step) {
    const std::size_t i = random() % count;
    // From time to time a key takes over the hint of another one.
    if (random() % 4 == 0) hintOf(keys[i]).handleIs(hintOf(keys[random() % count]).handle());
    const bool draining = step / stepsPerPhase % 2 == 1;
    if (const auto at = held.find(i); at == held.end()) {
      const auto left = space.find(keys[i]);
      ASSERT_TRUE(left == KeySpace<EmHwKey>::kNone || (space.exceedsCache() && space.key(left) == keys[i]));
      if (draining && random() % 8 != 0) continue;
      const auto handle = space.acquire(keys[i]);
      ASSERT_EQ(hintOf(keys[i]).handle(), handle);
      held.emplace(i, space.key(handle));
    } else {
      ASSERT_EQ(space.key(space.find(keys[i])), keyOf(i));
      if (!draining && random() % 8 != 0) continue;
      space.release(space.find(at->second));
      held.erase(at);
    }
    ASSERT_GE(space.size(), held.size());
    ASSERT_LE(space.size(), held.size() + (space.exceedsCache() ? 8 : 0));
  }
  for (const auto& [i, key] : held) space.release(space.find(key));
  EXPECT_EQ(space.size(), 0U);
}

TEST(KeySpace, FindsKeysWithStaleHints) {
  expectKeysFound(300, 2000);
  expectKeysFound(9000, 20000);
}

// A key is released with its last use, and without any use the space is empty.
TEST(KeySpace, ReleasesAKeyWithItsLastUse) {
  KeySpace<std::string>& space = KeySpace<std::string>::instance();
  const std::size_t before = space.size();
  auto first = std::make_unique<Collection<std::string, int>>();
  SparseCollection<std::string, int> second;
  PendingKeys<std::string> pending;
  const auto nameOf = [](int number) {
    return "a key that is long enough to lie on the heap " + std::to_string(number);
  };
  std::mt19937 random(1);
  std::set<std::string> inFirst;
  std::set<std::string> inSecond;
  std::set<std::string> waiting;
  for (unsigned step = 0; step < 20000; ++step) {
    const std::string key = nameOf(static_cast<int>(random() % 300));
    switch (random() % 6) {
      case 0:
        ASSERT_EQ(first->is(key, 1), inFirst.insert(key).second);
        break;
      case 1:
        ASSERT_EQ(first->del(key), inFirst.erase(key) != 0);
        break;
      case 2:
        ASSERT_EQ(second.is(key, 1), inSecond.insert(key).second);
        break;
      case 3:
        ASSERT_EQ(second.del(key), inSecond.erase(key) != 0);
        break;
      case 4:
        ASSERT_EQ(pending.add(key, step), waiting.insert(key).second);
        break;
      default:
        if (!pending.empty()) {
          ASSERT_EQ(waiting.erase(pending.pop()), 1U);
        }
    }
    ASSERT_EQ(second.has(key), inSecond.contains(key));
    if (step % 100 != 0) continue;
    std::set<std::string> held = inFirst;
    held.insert(inSecond.begin(), inSecond.end());
    held.insert(waiting.begin(), waiting.end());
#ifdef KILN_ORDERED_COLLECTIONS
    held = waiting;  // the other implementation stores its keys itself
#endif
    ASSERT_EQ(space.size(), before + held.size());
  }
  first.reset();
  second.delAll();
  pending.clear();
  EXPECT_EQ(space.size(), before);
}

}  // namespace
}  // namespace KilnTest
