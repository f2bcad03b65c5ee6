#include "kiln/agent/store/MemoryStateStore.h"

#include <set>

namespace KilnAgent {

using KilnEmServer::FeatureType;

template <class Db>
MemoryStateStore::Records<Db>::Records(const MemoryStateStore& store, FeatureType feature)
    : config(Disposal::share(
          store.disposal_,
          std::make_unique<KilnTunnelNiLib::SrvConfig<Db>>(
              makeCollection<Key, Request<Db>>(static_cast<std::size_t>(feature))),
          [](auto& entity) -> auto& { return entity.config(); })),
      status(Disposal::share(
          store.disposal_,
          std::make_unique<KilnTunnelNiLib::SrvStatus<Db>>(
              makeCollection<Key, KilnTunnelNiLib::SrvStatusEntry<Key>>(static_cast<std::size_t>(feature))),
          [](auto& entity) -> auto& { return entity.status(); })),
      requestWatch(store, {StoreChange::Record::request, feature, Db::kEmType, {}}),
      statusWatch(store, {StoreChange::Record::status, feature, Db::kEmType, {}}) {
  subscribe();
}

template <class Db>
void MemoryStateStore::Records<Db>::subscribe() {
  config->config().subscribe(requestWatch);
  status->status().subscribe(statusWatch);
}

template <class Db>
void MemoryStateStore::Records<Db>::forgetServer() {
  forgetSubscribers(config->config());
  forgetSubscribers(status->status());
  subscribe();
}

MemoryStateStore::MemoryStateStore(Ref<KilnPlatform::TaskScheduler> scheduler)
    : scheduler_(std::move(scheduler)),
      disposal_(std::make_shared<Disposal>(scheduler_)),
      features_(makeCollection<FeatureType, KilnPlatform::Unit>()) {
  KilnPlatform::forEachEnumValue<FeatureType>([this](FeatureType feature) { addFeature(feature); });
  commit();
}

MemoryStateStore::~MemoryStateStore() = default;

Ref<const KilnTunnelNiLib::LemSrvConfig> MemoryStateStore::lemSrvConfig(FeatureType feature) {
  return requests<KilnTunnelNiLib::Lem>(feature);
}
Ref<const KilnTunnelNiLib::IsemSrvConfig> MemoryStateStore::isemSrvConfig(FeatureType feature) {
  return requests<KilnTunnelNiLib::Isem>(feature);
}
Ref<const KilnTunnelNiLib::EsemSrvConfig> MemoryStateStore::esemSrvConfig(FeatureType feature) {
  return requests<KilnTunnelNiLib::Esem>(feature);
}
Ref<KilnTunnelNiLib::LemSrvStatus> MemoryStateStore::lemSrvStatus(FeatureType feature) {
  const auto* records = recordsOf<KilnTunnelNiLib::Lem>(feature);
  return records == nullptr ? nullptr : records->status;
}
Ref<KilnTunnelNiLib::IsemSrvStatus> MemoryStateStore::isemSrvStatus(FeatureType feature) {
  const auto* records = recordsOf<KilnTunnelNiLib::Isem>(feature);
  return records == nullptr ? nullptr : records->status;
}
Ref<KilnTunnelNiLib::EsemSrvStatus> MemoryStateStore::esemSrvStatus(FeatureType feature) {
  const auto* records = recordsOf<KilnTunnelNiLib::Esem>(feature);
  return records == nullptr ? nullptr : records->status;
}

void MemoryStateStore::addFeature(FeatureType feature) {
  const auto [at, inserted] = records_.try_emplace(feature);
  if (!inserted) return;
  at->second = std::make_unique<Feature>(*this, feature);
  features_->is(feature, {});
  for (StoreObserver* observer : observers_) observer->handleFeatureChange(feature, true);
}

void MemoryStateStore::removeFeature(FeatureType feature) {
  if (!records_.contains(feature)) return;
  for (StoreObserver* observer : observers_) observer->handleFeatureChange(feature, false);
  records_.erase(feature);
  features_->del(feature);
}

namespace {

template <class Collection>
auto rowsOf(const Collection& collection) {
  std::vector<std::pair<typename Collection::Key, typename Collection::Value>> rows;
  rows.reserve(collection.size());
  KilnPlatform::forEachIn(collection,
                          [&](const auto& key, const auto& value) { rows.emplace_back(key, value); });
  return rows;
}

/// Makes the rows the collection's content; equal rows are not written.
template <class Collection, class Rows>
void contentIs(Collection& collection, const Rows& rows) {
  std::set<typename Collection::Key> wanted;
  for (const auto& [key, value] : rows) wanted.insert(key);
  for (const auto& [key, value] : rowsOf(collection)) {
    if (!wanted.contains(key)) collection.del(key);
  }
  for (const auto& [key, value] : rows) collection.is(key, value);
}

}  // namespace

void MemoryStateStore::commit() {
  saved_.clear();
  for (const auto& [feature, records] : records_) {
    const auto save = [](const auto& from, auto& to) {
      to = {rowsOf(from.config->config()), rowsOf(from.status->status())};
    };
    SavedFeature& saved = saved_[feature];
    save(records->lem, saved.lem);
    save(records->isem, saved.isem);
    save(records->esem, saved.esem);
  }
}

void MemoryStateStore::revert() {
  KilnPlatform::forEachEnumValue<FeatureType>([this](FeatureType feature) {
    const auto saved = saved_.find(feature);
    if (saved == saved_.end()) return removeFeature(feature);
    addFeature(feature);
    const auto restore = [](const auto& from, const auto& to) {
      contentIs(to.config->config(), from.requests);
      contentIs(to.status->status(), from.statuses);
    };
    const Feature& records = *records_.at(feature);
    restore(saved->second.lem, records.lem);
    restore(saved->second.isem, records.isem);
    restore(saved->second.esem, records.esem);
  });
}

void MemoryStateStore::forgetServer() {
  disposal_->resume();
  forgetSubscribers(*features_);
  for (const auto& [feature, records] : records_) {
    records->lem.forgetServer();
    records->isem.forgetServer();
    records->esem.forgetServer();
  }
}

void MemoryStateStore::noteState(KilnEmServer::StateDigest& digest) const {
  digest.addPart("features", *features_);
  for (const auto& [feature, records] : records_) {
    const std::string_view whose = KilnPlatform::stringValue(feature);
    const auto nameOf = [whose](KilnEmServer::EmType database, std::string_view what) {
      std::string name(whose);
      return name.append(" ").append(KilnPlatform::stringValue(database)).append(what);
    };
    const auto note = [&]<class Db>(const Records<Db>& own) {
      digest.addPart(nameOf(Db::kEmType, " requests"), own.config->config());
      digest.addPart(nameOf(Db::kEmType, " statuses"), own.status->status());
    };
    note(records->isem);
    note(records->esem);
    note(records->lem);
  }
  noteCommitted(digest);
  digest.begin("Disposal");
  digest.add(*disposal_);
}

void MemoryStateStore::noteCommitted(KilnEmServer::StateDigest& digest) const {
  const auto note = [&](const auto& rows) {
    digest.walked([&](auto&& item) {
      for (const auto& [key, value] : rows) item(key, value);
    });
  };
  digest.begin("committed");
  for (const auto& [feature, saved] : saved_) {
    digest.add(feature);
    note(saved.isem.requests);
    note(saved.isem.statuses);
    note(saved.esem.requests);
    note(saved.esem.statuses);
    note(saved.lem.requests);
    note(saved.lem.statuses);
  }
}

}  // namespace KilnAgent
