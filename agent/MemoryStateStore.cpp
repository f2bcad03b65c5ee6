#include "agent/MemoryStateStore.h"

namespace KilnAgent {

using KilnEmServer::FeatureType;

template <class Db>
MemoryStateStore::Records<Db>::Records(const MemoryStateStore& store, FeatureType feature)
    : config(std::make_shared<KilnTunnelNiLib::SrvConfig<Db>>(makeCollection<Key, Request<Db>>())),
      status(std::make_shared<KilnTunnelNiLib::SrvStatus<Db>>(
          makeCollection<Key, KilnTunnelNiLib::SrvStatusEntry<Key>>())),
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
    : scheduler_(std::move(scheduler)), features_(makeCollection<FeatureType, KilnPlatform::Unit>()) {
  KilnPlatform::forEachEnumValue<FeatureType>([this](FeatureType feature) { addFeature(feature); });
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

void MemoryStateStore::forgetServer() {
  forgetSubscribers(*features_);
  for (const auto& [feature, records] : records_) {
    records->lem.forgetServer();
    records->isem.forgetServer();
    records->esem.forgetServer();
  }
}

}  // namespace KilnAgent
