// Requests that features submit as lists.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <random>
#include <utility>
#include <vector>

#include "kiln/agent/platform/CooperativeScheduler.h"
#include "kiln/agent/store/MemoryStateStore.h"

namespace KilnTest {
namespace {

using KilnAgent::MemoryStateStore;
using KilnAgent::StoreChange;
using KilnEmServer::FeatureType;
using KilnTunnelNiLib::Isem;
using KilnTunnelNiLib::IsemEntryKey;
using KilnTunnelNiLib::IsemMplsComposerKey;
using KilnTunnelNiLib::IsemMplsEntry;

IsemEntryKey keyOf(std::uint32_t label) {
  return {Hardware::Kiln::FapId::allFap(), Hardware::Kiln::LocalCoreId::all(), IsemMplsComposerKey{label, 0}};
}

/// A store, and every change of it in order, with the value at that time.
class Followed final : private KilnAgent::StoreObserver {
 public:
  Followed() { store.observerIs(*this); }
  ~Followed() { store.observerDel(*this); }
  Followed(const Followed&) = delete;
  Followed& operator=(const Followed&) = delete;

  MemoryStateStore store{std::make_shared<KilnAgent::CooperativeScheduler>()};
  std::vector<std::pair<IsemEntryKey, std::optional<MemoryStateStore::Request<Isem>>>> changes;

 private:
  void handleStoreChange(const StoreChange& change) override {
    const auto key = KilnEmServer::requestKeyAs<IsemEntryKey>(change.key);
    changes.emplace_back(key, store.requests<Isem>(change.feature)->config().get(key));
  }
};

TEST(RequestLists, ListHasTheEffectOfSingleRequests) {
  constexpr FeatureType kFeature = FeatureType::mpls;
  std::mt19937 engine(7);
  const auto random = [&engine] { return static_cast<std::uint32_t>(engine()); };
  Followed listed;
  Followed single;
  for (int round = 0; round < 40; ++round) {
    std::vector<std::pair<IsemEntryKey, MemoryStateStore::Request<Isem>>> requests;
    std::vector<IsemEntryKey> withdrawn;
    // Longer than a prefetched batch, and with keys that occur twice, exist already or never existed.
    for (std::size_t length = random() % 200; length != 0; --length) {
      requests.push_back({keyOf(random() % 300), {{IsemMplsEntry{random() % 3, 1}}, 1}});
      withdrawn.push_back(keyOf(random() % 300));
    }
    const auto oneByOne = [&] {
      for (const auto& [key, request] : requests) single.store.requestIs<Isem>(kFeature, key, request);
      for (const auto& key : withdrawn) single.store.requestDel<Isem>(kFeature, key);
    };
    if (round % 2 == 0) oneByOne();
    listed.store.requestsAre<Isem>(kFeature, requests);
    listed.store.requestsDel<Isem>(kFeature, withdrawn);
    if (round % 2 != 0) oneByOne();
    ASSERT_EQ(single.changes, listed.changes) << "round " << round;
  }
  EXPECT_GT(listed.changes.size(), 1000U);
}

TEST(RequestLists, ListsForAnAbsentFeatureHaveNoEffect) {
  Followed followed;
  followed.store.removeFeature(FeatureType::mpls);
  const std::vector<std::pair<IsemEntryKey, MemoryStateStore::Request<Isem>>> requests = {{keyOf(1), {}}};
  followed.store.requestsAre<Isem>(FeatureType::mpls, requests);
  followed.store.requestsDel<Isem>(FeatureType::mpls, std::vector{keyOf(1)});
  EXPECT_TRUE(followed.changes.empty());
}

}  // namespace
}  // namespace KilnTest
