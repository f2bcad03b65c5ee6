// The agent's state store: the features' requests and the statuses that the server publishes to them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "kiln/agent/platform/Collections.h"
#include "kiln/agent/store/Disposal.h"
#include "kiln/platform/StateStore.h"
#include "kiln/runtime/collections/PrefetchedItems.h"
#include "kiln/runtime/model/EmTypes.h"
#include "kiln/runtime/stage/StateDigest.h"

namespace KilnAgent {

using KilnPlatform::Ref;

/// One change of one record of the store.
struct StoreChange {
  enum class Record : std::uint8_t { request, status };
  Record record;
  KilnEmServer::FeatureType feature;
  KilnEmServer::EmType database;
  KilnEmServer::EmRequestKey key;
};

/// Notified after every change of the store's records.
class StoreObserver {
 public:
  virtual void handleStoreChange(const StoreChange& change) = 0;
  /// A feature was added, or is about to be removed with its records; no other notification reports these.
  virtual void handleFeatureChange(KilnEmServer::FeatureType /*feature*/, bool /*present*/) {}

 protected:
  ~StoreObserver() = default;
};

/// One element for each feature.
template <class T>
class ByFeature {
 public:
  [[nodiscard]] T& of(KilnEmServer::FeatureType feature) {
    return each_[static_cast<std::size_t>(feature) - Names::kFirst];
  }
  /// Calls `visitor(feature, of(feature))` for each feature.
  template <class Visitor>
  void forEach(Visitor&& visitor) {
    KilnPlatform::forEachEnumValue<KilnEmServer::FeatureType>(
        [&](KilnEmServer::FeatureType feature) { visitor(feature, of(feature)); });
  }

 private:
  using Names = KilnPlatform::EnumNames<KilnEmServer::FeatureType>;
  std::array<T, Names::kNames.size()> each_{};
};

/// Calls `visitor.template operator()<Db>()` for each of the three databases, in the order of EmType.
template <class Visitor>
void forEachDatabase(Visitor&& visitor) {
  visitor.template operator()<KilnTunnelNiLib::Isem>();
  visitor.template operator()<KilnTunnelNiLib::Esem>();
  visitor.template operator()<KilnTunnelNiLib::Lem>();
}

/// Calls `visitor.template operator()<Db>()` for one database and returns its result.
template <class Visitor>
auto withDatabase(KilnEmServer::EmType database, Visitor&& visitor) {
  switch (database) {
    case KilnEmServer::EmType::isem:
      return visitor.template operator()<KilnTunnelNiLib::Isem>();
    case KilnEmServer::EmType::esem:
      return visitor.template operator()<KilnTunnelNiLib::Esem>();
    case KilnEmServer::EmType::lem:
      break;
  }
  return visitor.template operator()<KilnTunnelNiLib::Lem>();
}

/// The store, in memory. It outlives the servers that use it. Features write requests only through the
/// operations below; the server uses the StateStore interface.
class MemoryStateStore final : public KilnPlatform::StateStore {
 public:
  template <class Db>
  using Request = KilnTunnelNiLib::SrvConfigEntry<typename Db::ClientData>;

  /// Every feature is present at first.
  explicit MemoryStateStore(Ref<KilnPlatform::TaskScheduler> scheduler);
  ~MemoryStateStore() override;

  [[nodiscard]] const Features& features() const override { return *features_; }
  Ref<const KilnTunnelNiLib::LemSrvConfig> lemSrvConfig(KilnEmServer::FeatureType feature) override;
  Ref<const KilnTunnelNiLib::IsemSrvConfig> isemSrvConfig(KilnEmServer::FeatureType feature) override;
  Ref<const KilnTunnelNiLib::EsemSrvConfig> esemSrvConfig(KilnEmServer::FeatureType feature) override;
  Ref<KilnTunnelNiLib::LemSrvStatus> lemSrvStatus(KilnEmServer::FeatureType feature) override;
  Ref<KilnTunnelNiLib::IsemSrvStatus> isemSrvStatus(KilnEmServer::FeatureType feature) override;
  Ref<KilnTunnelNiLib::EsemSrvStatus> esemSrvStatus(KilnEmServer::FeatureType feature) override;
  Ref<KilnPlatform::TaskScheduler> taskScheduler() override { return scheduler_; }

  /// Gives an absent feature new, empty collections; does nothing for a present one.
  void addFeature(KilnEmServer::FeatureType feature);
  /// Removes a feature's collections of all databases; does nothing for an absent one.
  void removeFeature(KilnEmServer::FeatureType feature);

  // The features' operations. They do nothing for an absent feature.
  template <class Db>
  void requestIs(KilnEmServer::FeatureType feature, const typename Db::EntryKey& key,
                 const Request<Db>& request) {
    if (auto* records = recordsOf<Db>(feature)) records->config->config().is(key, request);
  }
  template <class Db>
  void requestDel(KilnEmServer::FeatureType feature, const typename Db::EntryKey& key) {
    if (auto* records = recordsOf<Db>(feature)) records->config->config().del(key);
  }
  /// Many changes of one feature in one call, in their order: cheaper than single calls, since the data that
  /// they will touch is prefetched. All changes apply to the collection that the feature has at the begin of
  /// the call.
  template <class Db>
  void requestsAre(KilnEmServer::FeatureType feature,
                   std::span<const std::pair<typename Db::EntryKey, Request<Db>>> requests) {
    eachExpected<Db>(
        feature, requests, [](const auto& request) -> const auto& { return request.first; },
        [](auto& config, const auto& request) { config.is(request.first, request.second); });
  }
  template <class Db>
  void requestsDel(KilnEmServer::FeatureType feature, std::span<const typename Db::EntryKey> keys) {
    eachExpected<Db>(
        feature, keys, [](const auto& key) -> const auto& { return key; },
        [](auto& config, const auto& key) { config.del(key); });
  }
  template <class Db>
  void requestDelAll(KilnEmServer::FeatureType feature) {
    if (auto* records = recordsOf<Db>(feature)) records->config->config().delAll();
  }
  /// Restores a status that an earlier server published.
  template <class Db>
  void restoreStatus(KilnEmServer::FeatureType feature,
                     const KilnTunnelNiLib::SrvStatusEntry<typename Db::EntryKey>& status) {
    if (auto* records = recordsOf<Db>(feature)) records->status->statusIs(status);
  }
  /// A feature's requests; null if it is absent.
  template <class Db>
  Ref<const KilnTunnelNiLib::SrvConfig<Db>> requests(KilnEmServer::FeatureType feature) const {
    const auto* records = recordsOf<Db>(feature);
    return records == nullptr ? nullptr : records->config;
  }
  /// A feature's statuses; null if it is absent.
  template <class Db>
  Ref<const KilnTunnelNiLib::SrvStatus<Db>> statuses(KilnEmServer::FeatureType feature) const {
    const auto* records = recordsOf<Db>(feature);
    return records == nullptr ? nullptr : records->status;
  }

  /// Adds an observer of all records, which must stay alive until it is removed.
  void observerIs(StoreObserver& observer) { observers_.push_back(&observer); }
  void observerDel(StoreObserver& observer) { std::erase(observers_, &observer); }

  /// Saves the present content for revert().
  void commit();
  /// Restores the content of the last commit(), or the initial content. The observer is notified of each
  /// record that changes. No server may be subscribed.
  void revert();

  /// Forgets every subscriber but the store's own, as if the server's process had died.
  void forgetServer();

  /// Describes the records, the content that revert() would restore, and the remains of removed features.
  void noteState(KilnEmServer::StateDigest& digest) const;

 private:
  /// Forwards the changes of one collection to the observer.
  template <class Key>
  class Watch final : public KilnPlatform::KeySubscriber<Key> {
   public:
    Watch(const MemoryStateStore& store, StoreChange change) : store_(store), change_(change) {}
    void handleChange(const Key& key) override {
      if (store_.observers_.empty()) return;
      change_.key = KilnEmServer::requestKeyAs<KilnEmServer::EmRequestKey>(key);
      for (StoreObserver* observer : store_.observers_) observer->handleStoreChange(change_);
    }

   private:
    const MemoryStateStore& store_;
    StoreChange change_;
  };

  /// One feature's collections of one database. The server may hold them longer than the store does.
  template <class Database>
  struct Records {
    using Db = Database;
    using Key = typename Db::EntryKey;
    Records(const MemoryStateStore& store, KilnEmServer::FeatureType feature);
    ~Records() {
      config->config().unsubscribe(requestWatch);
      status->status().unsubscribe(statusWatch);
    }
    Records(const Records&) = delete;
    Records& operator=(const Records&) = delete;
    void subscribe();
    void forgetServer();

    Ref<KilnTunnelNiLib::SrvConfig<Db>> config;
    Ref<KilnTunnelNiLib::SrvStatus<Db>> status;
    Watch<Key> requestWatch;
    Watch<Key> statusWatch;
  };
  struct Feature {
    Feature(const MemoryStateStore& store, KilnEmServer::FeatureType feature)
        : lem(store, feature), isem(store, feature), esem(store, feature) {}
    Records<KilnTunnelNiLib::Lem> lem;
    Records<KilnTunnelNiLib::Isem> isem;
    Records<KilnTunnelNiLib::Esem> esem;
  };

  /// The saved content of one record collection.
  template <class Db>
  struct Saved {
    std::vector<std::pair<typename Db::EntryKey, Request<Db>>> requests;
    std::vector<std::pair<typename Db::EntryKey, KilnTunnelNiLib::SrvStatusEntry<typename Db::EntryKey>>>
        statuses;
  };
  struct SavedFeature {
    Saved<KilnTunnelNiLib::Lem> lem;
    Saved<KilnTunnelNiLib::Isem> isem;
    Saved<KilnTunnelNiLib::Esem> esem;
  };

  void noteCommitted(KilnEmServer::StateDigest& digest) const;

  template <class Db>
  const Records<Db>* recordsOf(KilnEmServer::FeatureType feature) const {
    const auto found = records_.find(feature);
    if (found == records_.end()) return nullptr;
    if constexpr (std::is_same_v<Db, KilnTunnelNiLib::Lem>) {
      return &found->second->lem;
    } else if constexpr (std::is_same_v<Db, KilnTunnelNiLib::Isem>) {
      return &found->second->isem;
    } else {
      return &found->second->esem;
    }
  }

  /// Calls `change(requests, item)` for each item, after the feature's request under the item's key was
  /// prefetched.
  template <class Db, class Item, class KeyOf, class Change>
  void eachExpected(KilnEmServer::FeatureType feature, std::span<const Item> items, KeyOf&& keyOf,
                    Change&& change) {
    const auto* records = recordsOf<Db>(feature);
    if (records == nullptr) return;
    const auto config = records->config;
    KilnEmServer::forEachPrefetched(config->config(), items, keyOf,
                                    [&](const Item& item) { change(config->config(), item); });
  }

  Ref<KilnPlatform::TaskScheduler> scheduler_;
  std::shared_ptr<Disposal> disposal_;  ///< of the collections of removed features
  std::vector<StoreObserver*> observers_;
  std::map<KilnEmServer::FeatureType, std::unique_ptr<Feature>> records_;
  std::unique_ptr<Features> features_;
  std::map<KilnEmServer::FeatureType, SavedFeature> saved_;
};

}  // namespace KilnAgent
