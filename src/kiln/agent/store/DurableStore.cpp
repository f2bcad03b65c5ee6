#include "kiln/agent/store/DurableStore.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>
#include <vector>

#include "kiln/agent/io/RecordCode.h"

namespace KilnAgent {
namespace {

using KilnEmServer::EmRequestKey;
using KilnEmServer::EmType;
using KilnEmServer::FeatureType;
using Interface = VlanDomainService::Interface;

// A record's key begins with its kind. What follows, and its value:
constexpr char kSettings = 'V';       // nothing: the VLAN-domain service's mode and limits
constexpr char kAbsentFeature = 'F';  // a feature that was removed: nothing
constexpr char kRequest = 'R';        // feature, database, key: which of both it has, the request, its status
constexpr char kShare = 'G';          // an interface: one with which it shares its VLAN domain
constexpr char kDomainRequest = 'C';  // an interface for which a VLAN domain is requested: nothing
constexpr char kAllotment = 'D';      // an interface: its VLAN domain

/// Whether records of the kind are loaded in the order in which they were added.
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

// Content of a record of the state store: a request, its status, or both.
constexpr std::uint8_t kHasRequest = 1;
constexpr std::uint8_t kHasStatus = 2;

/// Visits the fields of a status except its key, which is the record's.
template <class Status, class Visitor>
void forEachFieldButKey(Status& status, Visitor&& visitor) {
  const auto [key, reference, requestVersion, one, state, result] = Status::fields();
  const auto visit = [&](const auto&... field) { (visitor(status.*(field.member)), ...); };
  visit(reference, requestVersion, one, state, result);
}

/// The prefix of each record of the state store.
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

void DurableStore::note(Pending& pending, bool absent) {
  if (absent) {
    pending = {0, true};
  } else if (pending.order == 0) {
    pending.order = ++changes_;
  }
}

void DurableStore::noteOther(std::string key, bool absent) {
  const auto [at, isNew] = others_.try_emplace(std::move(key));
  if (isNew) ++pendingCount_;
  note(at->second, absent);
}

template <class Db, class Change>
void DurableStore::noteRequest(FeatureType feature, const typename Db::EntryKey& key, Change&& change) {
  auto& byKey = std::get<PendingByFeature<Db>>(requests_).of(feature);
  if (byKey == nullptr) byKey = std::make_unique<PendingByKey<Db>>();
  const Pending* before = byKey->find(key);
  if (before == nullptr) ++pendingCount_;
  Pending pending = before == nullptr ? Pending{} : *before;
  change(pending);
  byKey->is(key, pending);
}

void DurableStore::handleStoreChange(const StoreChange& change) {
  withDatabase(change.database, [&]<class Db>() {
    const auto key = KilnEmServer::requestKeyAs<typename Db::EntryKey>(change.key);
    noteRequest<Db>(change.feature, key, [&](Pending& pending) {
      if (change.record != StoreChange::Record::request) return;
      note(pending, !store_.requests<Db>(change.feature)->config().has(key));
    });
  });
}

void DurableStore::handleFeatureChange(FeatureType feature, bool present) {
  noteOther(keyOf(kAbsentFeature, feature), present);
  if (present) return;
  removed_.insert(feature);
  forEachDatabase([&]<class Db>() {
    auto& byKey = std::get<PendingByFeature<Db>>(requests_).of(feature);
    if (byKey != nullptr) pendingCount_ -= byKey->size();
    byKey.reset();
  });
}

void DurableStore::handleDomainChange(const VlanDomainChange& change) {
  using Record = VlanDomainChange::Record;
  switch (change.record) {
    case Record::settings:
      return noteOther(keyOf(kSettings), false);
    case Record::share:
      return noteOther(keyOf(kShare, change.interface), false);
    case Record::request:
      return noteOther(keyOf(kDomainRequest, change.interface),
                       !vlanDomains_.config()->config().has(change.interface));
    case Record::allotment:
      return noteOther(keyOf(kAllotment, change.interface),
                       !vlanDomains_.status()->status().has(change.interface));
  }
}

// --- Commits -----------------------------------------------------------------------------------------------

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
      // Left out by default, so that records without it can be read.
      if (vlanDomains_.limits().perTcam) encode(settings, std::uint8_t{1});
      return settings;
    }
    case kAbsentFeature:
      return store_.features().has(rest.take<FeatureType>()) ? std::nullopt : std::optional(std::string());
    default:
      return domainValueOf(key.front(), rest);
  }
}

/// The records of a commit, with their keys and values in one piece of memory.
class DurableStore::Writes {
 public:
  explicit Writes(std::size_t records) { writes_.reserve(records); }

  /// Adds a record: `addKey(bytes)` appends its key, `addValue(bytes)` its value and returns true, or returns
  /// false to delete the record. Records that are not `ordered` have the order 0.
  template <class AddKey, class AddValue>
  void add(const Pending& change, bool ordered, AddKey&& addKey, AddValue&& addValue) {
    Write write;
    write.order = ordered ? change.order : 0;
    write.keepsOrder = ordered && !change.fresh;
    write.keyAt = bytes_.size();
    addKey(bytes_);
    write.valueAt = bytes_.size();
    write.stays = addValue(bytes_);
    write.end = bytes_.size();
    write.head = headOf(keyIn(write));
    writes_.push_back(write);
  }

  /// In the order of the file, so that the records of one page are written together.
  void writeTo(RecordStore::Batch& batch) {
    std::sort(writes_.begin(), writes_.end(), [this](const Write& a, const Write& b) {
      return a.head != b.head ? a.head < b.head : keyIn(a) < keyIn(b);
    });
    for (const Write& write : writes_) {
      const std::string_view key = keyIn(write);
      const std::string_view value = view(write.valueAt, write.end);
      if (!write.stays) {
        batch.del(key);
      } else if (write.keepsOrder) {
        batch.putInPlace(key, write.order, value);
      } else {
        batch.put(key, write.order, value);
      }
    }
  }

 private:
  /// The first bytes of a key, as numbers in the keys' order; most keys differ there.
  using Head = std::array<std::uint64_t, 3>;
  struct Write {
    Head head;
    std::uint64_t order;
    std::size_t keyAt;
    std::size_t valueAt;
    std::size_t end;
    bool stays;
    bool keepsOrder;  ///< keep the order of a record that the file already has
  };

  static Head headOf(std::string_view key) {
    Head head{};
    const std::size_t size = std::min(key.size(), sizeof head);
    for (std::size_t at = 0; at < size; ++at) {
      head[at / 8] |= std::uint64_t{static_cast<unsigned char>(key[at])} << (56 - at % 8 * 8);
    }
    return head;
  }
  [[nodiscard]] std::string_view view(std::size_t begin, std::size_t end) const {
    return std::string_view(bytes_).substr(begin, end - begin);
  }
  [[nodiscard]] std::string_view keyIn(const Write& write) const { return view(write.keyAt, write.valueAt); }

  std::vector<Write> writes_;
  std::string bytes_;
};

template <class Db>
void DurableStore::addRequests(Writes& writes, FeatureType feature, const PendingByKey<Db>& pending) const {
  const auto requests = store_.requests<Db>(feature);
  const auto statuses = store_.statuses<Db>(feature);
  KilnPlatform::forEachIn(pending, [&](const auto& key, const Pending& change) {
    const auto* request = requests == nullptr ? nullptr : requests->config().find(key);
    const auto* status = statuses == nullptr ? nullptr : statuses->status().find(key);
    const int parts = (request == nullptr ? 0 : kHasRequest) | (status == nullptr ? 0 : kHasStatus);
    writes.add(
        change, request != nullptr,
        [&](std::string& bytes) {
          bytes.push_back(kRequest);
          encode(bytes, feature);
          encode(bytes, Db::kEmType);
          encode(bytes, key);
        },
        [&](std::string& bytes) {
          encode(bytes, static_cast<std::uint8_t>(parts));
          if (request != nullptr) encode(bytes, *request);
          if (status != nullptr)
            forEachFieldButKey(*status, [&](const auto& field) { encode(bytes, field); });
          return parts != 0;
        });
  });
}

void DurableStore::addOthers(Writes& writes) const {
  for (const auto& other : others_) {
    const std::string& key = other.first;
    const std::optional<std::string> value = valueOf(key);
    writes.add(
        other.second, isOrdered(key.front()), [&](std::string& bytes) { bytes += key; },
        [&](std::string& bytes) {
          bytes += value.value_or("");
          return value.has_value();
        });
  }
}

void DurableStore::forgetPending() {
  requests_ = {};
  removed_.clear();
  others_.clear();
  pendingCount_ = 0;
}

void DurableStore::commit() {
  if (pendingCount_ == 0) return;
  Writes writes(pendingCount_);
  forEachDatabase([&]<class Db>() {
    std::get<PendingByFeature<Db>>(requests_).forEach([&](FeatureType feature, const auto& pending) {
      if (pending != nullptr) addRequests<Db>(writes, feature, *pending);
    });
  });
  addOthers(writes);
  RecordStore::Batch batch(file_);
  std::size_t records = pendingCount_;
  for (const FeatureType feature : removed_) records += batch.delAll(keyOf(kRequest, feature));
  writes.writeTo(batch);
  batch.commit();
  ++counters_.commits;
  counters_.records += records;
  forgetPending();
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
    const auto parts = value.take<std::uint8_t>();
    if (parts == 0 || parts > (kHasRequest | kHasStatus)) throw std::range_error("no part of a request");
    withDatabase(place.database, [&]<class Db>() {
      const auto own = KilnEmServer::requestKeyAs<typename Db::EntryKey>(place.requestKey);
      if ((parts & kHasRequest) != 0) {
        store_.requestIs<Db>(place.feature, own, value.take<MemoryStateStore::Request<Db>>());
      }
      if ((parts & kHasStatus) == 0) return;
      KilnTunnelNiLib::SrvStatusEntry<typename Db::EntryKey> status{.key = own};
      forEachFieldButKey(status, [&](auto& field) { value.take(field); });
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
    const bool perTcam = !value.atEnd() && value.take<std::uint8_t>() != 0;
    vlanDomains_.limitsAre({first, last, perTcam});
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
