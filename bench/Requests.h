// The requests that benchmarks publish: of one key type, or of all in the shares of an edge between a metro
// network and its customers.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "kiln/agent/store/MemoryStateStore.h"
#include "kiln/platform/EmKeys.h"

namespace KilnBench {

/// A key type, or `undefined_` for the mix of all.
using RequestMix = KilnEmServer::EmComposerKeyUnionTag;
inline constexpr RequestMix kMixed = RequestMix::undefined_;

/// "mixed", or as the type's table is called.
std::string_view mixName(RequestMix mix);
/// The most requests of a mix that all have a hardware key of their own.
std::uint32_t mostRequests(RequestMix mix);

/// Interfaces whose requests need a VLAN domain, each with a domain of its own.
inline constexpr std::uint32_t kInterfaces = 480;

/// A request in the terms of one database.
struct Request {
  KilnEmServer::EmType database;
  KilnEmServer::FeatureType feature;
  KilnEmServer::EmComposerKey key;
};
/// A request that was made and waits to be handed in.
struct MadeRequest {
  Request request;
  KilnEmServer::EmEntry entry;
  std::uint32_t version;  ///< 0 where it is withdrawn
};
/// The n-th request of a mix. Different numbers have different keys.
Request requestOf(RequestMix mix, std::uint32_t n);
/// The entry that a version of the n-th request asks for; another one for each version.
KilnEmServer::EmEntry entryOf(const KilnEmServer::EmComposerKey& key, std::uint32_t n, std::uint32_t version);

MadeRequest publicationOf(RequestMix mix, std::uint32_t n, std::uint32_t version);
MadeRequest withdrawalOf(RequestMix mix, std::uint32_t n);

void publish(KilnAgent::MemoryStateStore& store, const Request& request, const KilnEmServer::EmEntry& entry,
             std::uint32_t version);
void withdraw(KilnAgent::MemoryStateStore& store, const Request& request);

/// What features hand in together: per feature and database a list of requests and one of keys to withdraw.
/// For each key at most one of the two, and once.
class RequestLists {
 public:
  RequestLists();
  void add(const MadeRequest& made);
  /// Hands all in and empties the lists.
  void handIn(KilnAgent::MemoryStateStore& store);

 private:
  template <class Db>
  struct Lists {
    std::vector<std::pair<typename Db::EntryKey, KilnAgent::MemoryStateStore::Request<Db>>> published;
    std::vector<typename Db::EntryKey> withdrawn;
  };
  template <class Db>
  using ListsByFeature = KilnAgent::ByFeature<Lists<Db>>;
  template <class Db>
  Lists<Db>& listsOf(KilnEmServer::FeatureType feature) {
    return std::get<ListsByFeature<Db>>(lists_).of(feature);
  }

  /// Calls `visitor.template operator()<Db>(feature, lists)` for each feature's lists of each database.
  template <class Visitor>
  void forEachList(Visitor&& visitor) {
    KilnAgent::forEachDatabase([&]<class Db>() {
      std::get<ListsByFeature<Db>>(lists_).forEach([&](KilnEmServer::FeatureType feature, Lists<Db>& lists) {
        visitor.template operator()<Db>(feature, lists);
      });
    });
  }

  std::tuple<ListsByFeature<KilnTunnelNiLib::Isem>, ListsByFeature<KilnTunnelNiLib::Esem>,
             ListsByFeature<KilnTunnelNiLib::Lem>>
      lists_;
};
/// What a request's feature can read; null where nothing was published yet.
struct StatusView {
  KilnEmServer::EmStatus status;
  std::uint32_t version;
};
std::optional<StatusView> statusOf(const KilnAgent::MemoryStateStore& store, const Request& request);

}  // namespace KilnBench
