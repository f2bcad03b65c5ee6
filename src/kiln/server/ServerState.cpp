// What of the server's collections is described in another way than by its content.
#include "kiln/server/ServerEntity.h"

namespace KilnEmServer::detail {

using KilnPlatform::forEachIn;

// The answers about one logical key are compared with each other.
void noteCollections(StateDigest& digest, const std::string& name, const EmSwTableStatus& emSwTableStatus) {
  const auto& statuses = emSwTableStatus.status();
  digest.begin(name, &statuses);
  digest.walked([&](auto&& item) {
    forEachIn(statuses, [&](const EmHwKey& hwKey, const EmSwTableStatusEntry& status) {
      std::size_t earlier = 0;
      forEachIn(statuses, [&](const EmHwKey& /*other*/, const EmSwTableStatusEntry& than) {
        const bool same = than.emLogicalKeyAndEntry.emLogicalKey == status.emLogicalKeyAndEntry.emLogicalKey;
        if (same && than.answer < status.answer) ++earlier;
      });
      item(hwKey, status, earlier);
    });
  });
}

// Whether a composer is still in the epoch of its request the composer says.
void noteCollections(StateDigest& digest, const std::string& name, const ResolverComposerConfig& requests) {
  digest.begin(name, &requests.resolverRequest());
  digest.walked([&](auto&& item) {
    forEachIn(requests.resolverRequest(), [&](const ResolverKey& key, const ResolverRequest& request) {
      item(key, request.requestType, request.inUseVal);
    });
  });
}

}  // namespace KilnEmServer::detail
