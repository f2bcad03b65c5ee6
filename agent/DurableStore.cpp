#include "agent/DurableStore.h"

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

#include "agent/RecordCode.h"

namespace KilnAgent {
namespace {

using KilnEmServer::EmRequestKey;
using KilnEmServer::EmType;
using KilnEmServer::FeatureType;
using Interface = VlanDomainService::Interface;

// A record's key begins with its kind. What follows, and its value:
constexpr char kSettings = 'V';       // nothing: the VLAN-domain service's mode and limits
constexpr char kAbsentFeature = 'F';  // a feature that was removed: nothing
constexpr char kRequest = 'R';        // feature, database, key: the request
constexpr char kStatus = 'S';         // feature, database, key: the status
constexpr char kShare = 'G';          // an interface: one with which it shares its VLAN domain
constexpr char kDomainRequest = 'C';  // an interface for which a VLAN domain is asked: nothing
constexpr char kAllotment = 'D';      // an interface: its VLAN domain

/// Whether records of the kind are loaded in the order in which they came.
constexpr bool isOrdered(char kind) {
  return kind == kRequest || kind == kDomainRequest;
}

template <class... Parts>
std::string keyOf(char kind, const Parts&... parts) {
  std::string key(1, kind);
  (encode(key, parts), ...);
  return key;
}

template <class T>
std::optional<std::string> encodedIfAny(const T* value) {
  return value == nullptr ? std::nullopt : std::optional<std::string>(encoded(*value));
}

/// What stands before each record of the state store.
struct Place {
  explicit Place(Decoder& key)
      : feature(key.take<FeatureType>()), database(key.take<EmType>()), requestKey(key.take<EmRequestKey>()) {
    key.end();
  }
  FeatureType feature;
  EmType database;
  EmRequestKey requestKey;
};

}  // namespace

DurableStore::DurableStore(const std::string& path, Durability durability, MemoryStateStore& store,
                           VlanDomainService& vlanDomains)
    : store_(store), vlanDomains_(vlanDomains), file_(path, durability) {
  loadStore();
  loadVlanDomains();
  store_.observerIs(*this);
  vlanDomains_.observerIs(this);
}

DurableStore::~DurableStore() {
  store_.observerDel(*this);
  vlanDomains_.observerIs(nullptr);
}

// --- Following changes -------------------------------------------------------------------------------------

void DurableStore::note(std::string key, bool absent) {
  const auto [at, isNew] = pending_.try_emplace(std::move(key), Pending{++changes_, absent});
  if (isNew) return;
  if (at->second.fresh && !absent) at->second.order = changes_;
  at->second.fresh = at->second.fresh || absent;
}

void DurableStore::handleStoreChange(const StoreChange& change) {
  const bool isRequest = change.record == StoreChange::Record::request;
  const bool present = withDatabase(change.database, [&]<class Db>() {
    const auto key = KilnEmServer::requestKeyAs<typename Db::EntryKey>(change.key);
    return isRequest ? store_.requests<Db>(change.feature)->config().has(key)
                     : store_.statuses<Db>(change.feature)->status().has(key);
  });
  note(keyOf(isRequest ? kRequest : kStatus, change.feature, change.database, change.key), !present);
}

void DurableStore::handleFeatureChange(FeatureType feature, bool present) {
  note(keyOf(kAbsentFeature, feature), present);
  if (present) return;
  forEachDatabase([&]<class Db>() {
    const auto noteAll = [&](char kind, const auto& records) {
      KilnPlatform::forEachIn(records, [&](const auto& key, const auto&) {
        note(keyOf(kind, feature, Db::kEmType, KilnEmServer::requestKeyAs<EmRequestKey>(key)), true);
      });
    };
    noteAll(kRequest, store_.requests<Db>(feature)->config());
    noteAll(kStatus, store_.statuses<Db>(feature)->status());
  });
}

void DurableStore::handleDomainChange(const VlanDomainChange& change) {
  using Record = VlanDomainChange::Record;
  switch (change.record) {
    case Record::settings:
      return note(keyOf(kSettings), false);
    case Record::share:
      return note(keyOf(kShare, change.interface), false);
    case Record::request:
      return note(keyOf(kDomainRequest, change.interface),
                  !vlanDomains_.config()->config().has(change.interface));
    case Record::allotment:
      return note(keyOf(kAllotment, change.interface),
                  !vlanDomains_.status()->status().has(change.interface));
  }
}

// --- Commits -----------------------------------------------------------------------------------------------

std::optional<std::string> DurableStore::storeValueOf(char kind, Decoder& key) const {
  const Place place(key);
  return withDatabase(place.database, [&]<class Db>() -> std::optional<std::string> {
    const auto own = KilnEmServer::requestKeyAs<typename Db::EntryKey>(place.requestKey);
    if (!store_.features().has(place.feature)) return std::nullopt;
    if (kind == kRequest) return encodedIfAny(store_.requests<Db>(place.feature)->config().find(own));
    return encodedIfAny(store_.statuses<Db>(place.feature)->status().find(own));
  });
}

std::optional<std::string> DurableStore::domainValueOf(char kind, Decoder& key) const {
  const auto interface = key.take<Interface>();
  switch (kind) {
    case kShare: {
      const auto with = vlanDomains_.sharesWith(interface);
      return encodedIfAny(with ? &*with : nullptr);
    }
    case kDomainRequest:
      return encodedIfAny(vlanDomains_.config()->config().find(interface));
    default:
      return encodedIfAny(vlanDomains_.status()->status().find(interface));
  }
}

std::optional<std::string> DurableStore::valueOf(std::string_view key) const {
  Decoder rest(key.substr(1));
  switch (key.front()) {
    case kSettings: {
      std::string settings;
      encode(settings, vlanDomains_.mode());
      encode(settings, vlanDomains_.limits().first);
      encode(settings, vlanDomains_.limits().last);
      return settings;
    }
    case kAbsentFeature:
      return store_.features().has(rest.take<FeatureType>()) ? std::nullopt : std::optional(std::string());
    case kRequest:
    case kStatus:
      return storeValueOf(key.front(), rest);
    default:
      return domainValueOf(key.front(), rest);
  }
}

void DurableStore::commit() {
  if (pending_.empty()) return;
  // In the order of the file: what lies on one of its pages is written at once.
  std::vector<const Pendings::value_type*> sorted;
  sorted.reserve(pending_.size());
  for (const auto& pending : pending_) sorted.push_back(&pending);
  std::sort(sorted.begin(), sorted.end(), [](const auto* a, const auto* b) { return a->first < b->first; });
  RecordStore::Batch batch(file_);
  for (const auto* pending : sorted) {
    const auto& [key, change] = *pending;
    const std::optional<std::string> value = valueOf(key);
    if (!value) {
      batch.del(key);
      continue;
    }
    const bool mayStand = isOrdered(key.front()) && !change.fresh;
    batch.put(key, mayStand ? batch.orderOf(key).value_or(change.order) : change.order, *value);
  }
  batch.commit();
  ++counters_.commits;
  counters_.records += pending_.size();
  pending_.clear();
}

// --- Loading -----------------------------------------------------------------------------------------------

void DurableStore::visit(char kind, const std::function<void(Decoder& key, Decoder& value)>& visitor) {
  const auto visitRecord = [&](const RecordStore::Record& record) {
    Decoder key(record.key.substr(1));
    Decoder value(record.value);
    visitor(key, value);
    key.end();
    value.end();
    changes_ = std::max(changes_, record.order);
    ++counters_.loaded;
  };
  const std::string_view prefix(&kind, 1);
  isOrdered(kind) ? file_.visitInOrder(prefix, visitRecord) : file_.visit(prefix, visitRecord);
}

void DurableStore::loadStore() {
  visit(kAbsentFeature, [this](Decoder& key, Decoder&) { store_.removeFeature(key.take<FeatureType>()); });
  visit(kRequest, [this](Decoder& key, Decoder& value) {
    const Place place(key);
    withDatabase(place.database, [&]<class Db>() {
      store_.requestIs<Db>(place.feature, KilnEmServer::requestKeyAs<typename Db::EntryKey>(place.requestKey),
                           value.take<MemoryStateStore::Request<Db>>());
    });
  });
  visit(kStatus, [this](Decoder& key, Decoder& value) {
    const Place place(key);
    withDatabase(place.database, [&]<class Db>() {
      const auto status = value.take<KilnTunnelNiLib::SrvStatusEntry<typename Db::EntryKey>>();
      const auto own = KilnEmServer::requestKeyAs<typename Db::EntryKey>(place.requestKey);
      if (status.key != own) throw std::range_error("a status of another request");
      store_.restoreStatus<Db>(place.feature, status);
    });
  });
}

void DurableStore::loadVlanDomains() {
  visit(kSettings, [this](Decoder&, Decoder& value) {
    const auto mode = value.take<VlanDomainService::Mode>();
    const auto first = value.take<std::uint16_t>();
    const auto last = value.take<std::uint16_t>();
    if (mode > VlanDomainService::Mode::manual || first > last) throw std::range_error("impossible settings");
    vlanDomains_.modeIs(mode);
    vlanDomains_.limitsAre({first, last});
  });
  visit(kShare, [this](Decoder& key, Decoder& value) {
    const auto interface = key.take<Interface>();
    const auto with = value.take<Interface>();
    vlanDomains_.share(interface.intfId, with.intfId, interface.systemTcamId);
  });
  visit(kAllotment, [this](Decoder& key, Decoder& value) {
    vlanDomains_.restoreAllotment(key.take<Interface>(), value.take<std::uint16_t>());
  });
  visit(kDomainRequest,
        [this](Decoder& key, Decoder&) { vlanDomains_.restoreRequest(key.take<Interface>()); });
}

}  // namespace KilnAgent
