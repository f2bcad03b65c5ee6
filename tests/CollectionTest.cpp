// Guarantees that all implementations of the keyed collections give.
#include "kiln/runtime/collections/Collection.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>

#include "kiln/agent/platform/Collections.h"
#include "tests/TestSupport.h"

namespace KilnTest {
namespace {

template <class C>
class CollectionTest : public testing::Test {
 protected:
  C collection;
};
using Implementations = testing::Types<ColumnCollection<int, std::string>, DenseCollection<int, std::string>,
                                       OrderedCollection<int, std::string>>;
TYPED_TEST_SUITE(CollectionTest, Implementations);

TYPED_TEST(CollectionTest, DelAllNotifiesEachKeyOfAConsistentCollection) {
  for (int key = 0; key < 20; ++key) this->collection.is(key, "v");
  Recorder recorder(this->collection);
  this->collection.delAll();
  EXPECT_TRUE(this->collection.empty());
  const auto deletions = recorder.deletions();  // a notified key that is still present is not counted
  EXPECT_EQ(std::set<int>(deletions.begin(), deletions.end()).size(), 20u);
  EXPECT_EQ(deletions.size(), 20u);
}

/// Implements only the required functions, and counts the walks that are started.
class CountedWalks final : public KeyedCollection<int, int> {
 public:
  [[nodiscard]] const int* find(const int& key) const override { return content_.find(key); }
  [[nodiscard]] std::size_t size() const override { return content_.size(); }
  bool is(const int& key, const int& value) override { return content_.is(key, value); }
  bool del(const int& key) override { return content_.del(key); }
  const int* scanNext(ScanCursor<int>& cursor) const override {
    if (!std::exchange(cursor.started, true)) ++walks;
    return content_.scanNext(cursor);
  }
  void subscribe(KeySubscriber<int>& subscriber) const override { content_.subscribe(subscriber); }
  void unsubscribe(KeySubscriber<int>& subscriber) const override { content_.unsubscribe(subscriber); }
  mutable int walks = 0;

 private:
  ColumnCollection<int, int> content_;
};

// A walk that is restarted would pass over all places that are already empty.
TEST(CollectionWalks, DelAllWalksOnce) {
  CountedWalks collection;
  for (int key = 0; key < 100; ++key) collection.is(key, key);
  collection.delAll();
  EXPECT_TRUE(collection.empty());
  EXPECT_EQ(collection.walks, 1);
  const auto agents = KilnAgent::makeCollection<int, int>();
  for (int key = 0; key < 100; ++key) agents->is(key, key);
  agents->delAll();
  EXPECT_TRUE(agents->empty());
}

// An argument is often a value or key that is stored in the collection itself, since callers avoid copies.
TYPED_TEST(CollectionTest, TakesItsOwnValuesAsArguments) {
  this->collection.is(0, std::string(100, 'x'));
  for (int key = 1; key < 100; ++key) this->collection.is(key, *this->collection.find(0));
  EXPECT_EQ(*this->collection.find(99), std::string(100, 'x'));
}

// Every operation against a plain map, with the same number of notifications.
TYPED_TEST(CollectionTest, AgreesWithAModelUnderRandomOperations) {
  std::mt19937 random(7);
  std::map<int, std::string> model;
  Recorder recorder(this->collection);
  std::size_t changes = 0;
  for (int step = 0; step < 20000; ++step) {
    const int key = static_cast<int>(random() % 60);
    if (random() % 3 != 0) {
      const std::string value(1, static_cast<char>('a' + random() % 3));
      const auto at = model.find(key);
      const bool changed = at == model.end() || at->second != value;
      changes += changed;
      model[key] = value;
      ASSERT_EQ(this->collection.is(key, value), changed);
    } else {
      const bool present = model.erase(key) != 0;
      changes += present;
      ASSERT_EQ(this->collection.del(key), present);
    }
    if (changes != 0) {
      ASSERT_EQ(recorder.changes.back().value.has_value(), model.contains(recorder.changes.back().key));
    }
    ASSERT_EQ(this->collection.size(), model.size());
    ASSERT_EQ(this->collection.get(key).value_or("none"), model.contains(key) ? model[key] : "none");
  }
  EXPECT_EQ(contentOf(this->collection), model);
  EXPECT_EQ(recorder.changes.size(), changes);
}

// Between two steps of a walk, keys are inserted and deleted. Keys that were present throughout are visited,
// and the walk ends although keys are inserted as fast as it proceeds.
TYPED_TEST(CollectionTest, AWalkSurvivesMutation) {
  for (unsigned seed = 0; seed < 300; ++seed) {
    std::mt19937 random(seed);
    TypeParam walked;
    const int size = static_cast<int>(random() % 40);
    std::set<int> throughout;
    for (int key = 0; key < size; ++key) {
      walked.is(static_cast<int>(random() % 100), "v");
    }
    for (const auto& [key, value] : contentOf(walked)) throughout.insert(key);
    KilnPlatform::ScanCursor<int> cursor;
    std::set<int> visited;
    int steps = 0;
    while (const auto key = walked.scanNext(cursor)) {
      ASSERT_TRUE(walked.has(*key));
      visited.insert(*key);
      ASSERT_LT(++steps, 400) << "seed " << seed;
      for (unsigned change = random() % 4; change > 0; --change) {
        const int other = static_cast<int>(random() % 100);
        if (random() % 2 == 0) {
          walked.is(other, std::to_string(random() % 3));
        } else {
          walked.del(other);
          throughout.erase(other);
        }
      }
      if (random() % 4 == 0) walked.is(1000 + steps, "v");
    }
    for (const int key : throughout) ASSERT_TRUE(visited.contains(key)) << "seed " << seed << " key " << key;
  }
}

TYPED_TEST(CollectionTest, TheOrderOfAWalkFollowsFromTheOperations) {
  const auto build = [](unsigned spare) {
    TypeParam walked;
    std::vector<std::unique_ptr<int>> elsewhere(spare);  // another memory layout
    std::mt19937 random(3);
    for (int step = 0; step < 500; ++step) {
      const int key = static_cast<int>(random() % 80);
      random() % 3 == 0 ? static_cast<void>(walked.del(key)) : static_cast<void>(walked.is(key, "v"));
    }
    std::vector<int> order;
    KilnPlatform::forEachIn(walked, [&](int key, const auto& /*value*/) { order.push_back(key); });
    return order;
  };
  const auto first = build(0);
  EXPECT_GT(first.size(), 30u);
  EXPECT_EQ(build(1000), first);
}

/// Removes itself and another subscriber when it is notified for the first time.
struct Leaver final : KeySubscriber<int> {
  explicit Leaver(const KeyedCollection<int, std::string>& c) : collection(c) { c.subscribe(*this); }
  void handleChange(const int& /*key*/) override {
    ++calls;
    collection.unsubscribe(*this);
    if (other != nullptr) collection.unsubscribe(*other);
    if (newcomer != nullptr) collection.subscribe(*newcomer);
  }
  const KeyedCollection<int, std::string>& collection;
  KeySubscriber<int>* other = nullptr;
  KeySubscriber<int>* newcomer = nullptr;
  int calls = 0;
};
struct Counter final : KeySubscriber<int> {
  void handleChange(const int& /*key*/) override { ++calls; }
  int calls = 0;
};

TYPED_TEST(CollectionTest, SubscribersComeAndGoWhileTheyAreNotified) {
  Leaver leaver(this->collection);
  Counter taken;
  Counter staying;
  Counter newcomer;
  this->collection.subscribe(taken);
  this->collection.subscribe(staying);
  leaver.other = &taken;
  leaver.newcomer = &newcomer;
  this->collection.is(1, "a");
  EXPECT_EQ(newcomer.calls, 0);
  this->collection.is(2, "a");
  EXPECT_EQ(leaver.calls, 1);
  EXPECT_EQ(taken.calls, 0);
  EXPECT_EQ(staying.calls, 2);
  EXPECT_EQ(newcomer.calls, 1);
  this->collection.unsubscribe(staying);
  this->collection.unsubscribe(newcomer);
}

/// Changes the collection from within a notification, as immediate reactions do.
struct Nester final : KeySubscriber<int> {
  explicit Nester(KeyedCollection<int, std::string>& c) : collection(c) { c.subscribe(*this); }
  ~Nester() { collection.unsubscribe(*this); }
  void handleChange(const int& key) override {
    if (key < 50) {
      for (int next = 50; next < 150; ++next) collection.is(next, "nested");
      collection.del(key);
    }
    seen.push_back(key);
  }
  KeyedCollection<int, std::string>& collection;
  std::vector<int> seen;
};

TYPED_TEST(CollectionTest, MayBeChangedFromWithinANotification) {
  Nester nester(this->collection);
  Recorder after(this->collection);
  this->collection.is(7, "a");
  EXPECT_EQ(this->collection.size(), 100u);
  EXPECT_FALSE(this->collection.has(7));
  EXPECT_EQ(nester.seen.front(), 50);
  EXPECT_EQ(nester.seen.back(), 7);
  EXPECT_EQ(after.of(7).size(), 2u);
}

}  // namespace
}  // namespace KilnTest
