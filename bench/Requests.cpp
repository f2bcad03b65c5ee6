#include "bench/Requests.h"

#include "bench/Cycle.h"
#include "kiln/agent/scenario/NumberedKey.h"
#include "kiln/platform/KilnTunnelNiLib.h"
#include "kiln/runtime/model/EmTypes.h"

namespace KilnBench {
namespace {

using namespace KilnTunnelNiLib;
using KilnAgent::MemoryStateStore;
using KilnAgent::withDatabase;
using KilnEmServer::EmComposerKey;
using KilnEmServer::EmEntry;
using KilnEmServer::FeatureType;

constexpr std::uint32_t kVlanIds = 4094;
constexpr std::uint32_t kFodoIds = 1U << 18U;

/// Out of a hundred requests of the mix, the numbers below `below`, and not below that of the previous row,
/// have this type.
struct Share {
  std::uint32_t below;
  RequestMix type;
};
constexpr std::array<Share, 8> kShares{{{30, RequestMix::isem1TagEntryKey},
                                        {50, RequestMix::isem2TagEntryKey},
                                        {57, RequestMix::esemFodoVdEntryKey},
                                        {58, RequestMix::isemUntaggedEntryKey},
                                        {80, RequestMix::isemMplsEntryKey},
                                        {90, RequestMix::lemVpwsAcEntryKey},
                                        {96, RequestMix::esemFodoEntryKey},
                                        {100, RequestMix::isemInnerEthEntryKey}}};

RequestMix typeOf(RequestMix mix, std::uint32_t n) {
  if (mix != kMixed) return mix;
  const std::uint32_t draw = n * 37 % 100;
  for (const Share& share : kShares) {
    if (draw >= share.below) continue;
    // The types with few keys leave their share to others.
    if (share.type == RequestMix::isemUntaggedEntryKey && n >= kInterfaces) {
      return RequestMix::isem1TagEntryKey;
    }
    if (share.type == RequestMix::esemFodoEntryKey && n >= kFodoIds) return RequestMix::lemVpwsAcEntryKey;
    return share.type;
  }
  return mix;
}

constexpr std::uint16_t u16(std::uint32_t number) {
  return static_cast<std::uint16_t>(number);
}
constexpr std::uint8_t u8(std::uint32_t number) {
  return static_cast<std::uint8_t>(number);
}

constexpr FeatureType featureOf(RequestMix type) {
  switch (type) {
    case RequestMix::isemUntaggedEntryKey:
      return FeatureType::bridging;
    case RequestMix::isemInnerEthEntryKey:
      return FeatureType::evpn;
    case RequestMix::isemMplsEntryKey:
      return FeatureType::mpls;
    case RequestMix::lemVpwsAcEntryKey:
      return FeatureType::vpws;
    default:
      return FeatureType::subinterface;
  }
}

EmComposerKey keyOf(RequestMix type, std::uint32_t n) {
  const std::uint64_t interface = 1000 + n % kInterfaces;
  const std::uint32_t rest = n / kInterfaces;
  switch (type) {
    case RequestMix::isemUntaggedEntryKey:
      return IsemUntaggedComposerKey{interface, 0};
    case RequestMix::isem1TagEntryKey:
      return Isem1TagComposerKey{interface, 0, u16(1 + rest % kVlanIds)};
    case RequestMix::isem2TagEntryKey:
      return Isem2TagComposerKey{interface, 0, u16(1 + rest % kVlanIds), u16(1 + rest / kVlanIds)};
    case RequestMix::esemFodoVdEntryKey:
      return EsemFodoVdComposerKey{interface, 0, rest};
    case RequestMix::isemInnerEthEntryKey:
      return IsemInnerEthComposerKey{u16(n), u8(n >> 16U)};
    case RequestMix::isemMplsEntryKey:
      return IsemMplsComposerKey{16 + n, 0};
    case RequestMix::esemFodoEntryKey:
      return EsemFodoComposerKey{n};
    case RequestMix::lemVpwsAcEntryKey:
      return LemVpwsAcComposerKey{n % (1U << 20U), u16(1 + n % kVlanIds), u16(1 + (n >> 20U)), u8(n % 8), 0};
    default:
      break;
  }
  EmComposerKey key;
  KilnEmServer::visitKeyType(type, [&]<class Row>() {
    const bool resolved = Row::kResolver != KilnEmServer::ResolverKeyUnionTag::undefined_;
    key = KilnAgent::numberedKey<Row>(resolved ? rest : n, {interface, 0});
  });
  return key;
}

template <class Db>
typename Db::EntryKey requestKey(const Request& request) {
  return {Hardware::Kiln::FapId::allFap(), Hardware::Kiln::LocalCoreId::all(), request.key};
}
template <class Db>
MemoryStateStore::Request<Db> record(const EmEntry& entry, std::uint32_t version) {
  MemoryStateStore::Request<Db> record;
  record.clientData.*Db::kEntryOfClientData = entry;
  record.requestVersion = version;
  return record;
}

}  // namespace

std::string_view mixName(RequestMix mix) {
  return mix == kMixed ? "mixed" : KilnEmServer::tableStem(mix);
}

std::uint32_t mostRequests(RequestMix mix) {
  if (mix == RequestMix::isemUntaggedEntryKey) return kInterfaces;
  return mix == RequestMix::esemFodoEntryKey ? kFodoIds : kInterfaces * kVlanIds;
}

Request requestOf(RequestMix mix, std::uint32_t n) {
  const RequestMix type = typeOf(mix, n);
  return {KilnEmServer::emTypeOf(type), featureOf(type), keyOf(type, n)};
}

EmEntry entryOf(const EmComposerKey& key, std::uint32_t n, std::uint32_t version) {
  const std::uint32_t lif = n + version;
  EmEntry made;
  KilnEmServer::visitKeyType(key.tag(), [&]<class Row>() {
    typename Row::Entry entry;
    if constexpr (requires { entry.lif; }) entry.lif = lif;
    if constexpr (requires { entry.outLif; }) entry.outLif = lif;
    if constexpr (requires { entry.vsi; }) entry.vsi = 3;
    if constexpr (requires { entry.profile; }) entry.profile = 1;
    if constexpr (requires { entry.editProfile; }) entry.editProfile = 1;
    if constexpr (requires { entry.destination; }) entry.destination = 2;
    if constexpr (requires { entry.statisticsId; }) entry.statisticsId = n;
    made = entry;
  });
  return made;
}

MadeRequest publicationOf(RequestMix mix, std::uint32_t n, std::uint32_t version) {
  const Request request = requestOf(mix, n);
  return {request, entryOf(request.key, n, version), version};
}
MadeRequest withdrawalOf(RequestMix mix, std::uint32_t n) {
  return {requestOf(mix, n), {}, 0};
}

void publish(MemoryStateStore& store, const Request& request, const EmEntry& entry, std::uint32_t version) {
  withDatabase(request.database, [&]<class Db>() {
    store.requestIs<Db>(request.feature, requestKey<Db>(request), record<Db>(entry, version));
  });
}

void withdraw(MemoryStateStore& store, const Request& request) {
  withDatabase(request.database,
               [&]<class Db>() { store.requestDel<Db>(request.feature, requestKey<Db>(request)); });
}

RequestLists::RequestLists() {
  forEachList([]<class Db>(FeatureType /*feature*/, Lists<Db>& lists) {
    lists.published.reserve(kListSize);
    lists.withdrawn.reserve(kListSize);
  });
}

void RequestLists::add(const MadeRequest& made) {
  const Request& request = made.request;
  withDatabase(request.database, [&]<class Db>() {
    Lists<Db>& lists = listsOf<Db>(request.feature);
    if (made.version != 0) {
      lists.published.emplace_back(requestKey<Db>(request), record<Db>(made.entry, made.version));
    } else {
      lists.withdrawn.push_back(requestKey<Db>(request));
    }
  });
}

void RequestLists::handIn(MemoryStateStore& store) {
  forEachList([&]<class Db>(FeatureType feature, Lists<Db>& lists) {
    store.requestsAre<Db>(feature, lists.published);
    store.requestsDel<Db>(feature, lists.withdrawn);
    lists.published.clear();
    lists.withdrawn.clear();
  });
}

std::optional<StatusView> statusOf(const MemoryStateStore& store, const Request& request) {
  return withDatabase(request.database, [&]<class Db>() -> std::optional<StatusView> {
    const auto* found = store.statuses<Db>(request.feature)->status().find(requestKey<Db>(request));
    if (found == nullptr) return std::nullopt;
    return StatusView{found->status, found->requestVersion};
  });
}

}  // namespace KilnBench
