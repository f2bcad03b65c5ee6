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

/// "mixed", or the name of the type's table.
std::string_view mixName(RequestMix mix);
/// Maximum number of requests of a mix that have different hardware keys.
std::uint32_t mostRequests(RequestMix mix);

/// Interfaces whose requests need a VLAN domain; each has its own domain.
inline constexpr std::uint32_t kInterfaces = 480;

/// A request with the types of one database.
struct Request {
  KilnEmServer::EmType database;
  KilnEmServer::FeatureType feature;
  KilnEmServer::EmComposerKey key;
};
/// A request that was created and is not submitted yet.
struct MadeRequest {
  Request request;
  KilnEmServer::EmEntry entry;
  std::uint32_t version;  ///< 0 if it is withdrawn
};
/// The n-th request of a mix. Different numbers have different keys.
Request requestOf(RequestMix mix, std::uint32_t n);
/// The entry that a version of the n-th request publishes; each version has another one.
KilnEmServer::EmEntry entryOf(const KilnEmServer::EmComposerKey& key, std::uint32_t n, std::uint32_t version);

MadeRequest publicationOf(RequestMix mix, std::uint32_t n, std::uint32_t version);
MadeRequest withdrawalOf(RequestMix mix, std::uint32_t n);

void publish(KilnAgent::MemoryStateStore& store, const Request& request, const KilnEmServer::EmEntry& entry,
             std::uint32_t version);
void withdraw(KilnAgent::MemoryStateStore& store, const Request& request);

/// The requests that features submit together: per feature and database a list of requests and a list of keys
/// to withdraw. Each key is in at most one of the two, and once.
class RequestLists {
 public:
  RequestLists();
  void add(const MadeRequest& made);
  /// Submits all requests and empties the lists.
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
/// The status that a request's feature can read; null if nothing was published yet.
struct StatusView {
  KilnEmServer::EmStatus status;
  std::uint32_t version;
};
std::optional<StatusView> statusOf(const KilnAgent::MemoryStateStore& store, const Request& request);

}  // namespace KilnBench
