// The requests that benchmarks publish.
#pragma once

#include <cstdint>

#include "agent/EmbeddedAgent.h"
#include "platform/KilnTunnelNiLib.h"
#include "runtime/EmTypes.h"

namespace KilnAgent {

template <class Db>
void publish(MemoryStateStore& store, KilnEmServer::FeatureType feature,
             const KilnEmServer::EmComposerKey& key, const KilnEmServer::EmEntry& entry,
             std::uint32_t version) {
  KilnTunnelNiLib::SrvConfigEntry<typename Db::ClientData> request;
  request.clientData.*Db::kEntryOfClientData = entry;
  request.requestVersion = version;
  store.requestIs<Db>(feature, {Hardware::Kiln::FapId::allFap(), Hardware::Kiln::LocalCoreId::all(), key},
                      request);
}

/// The n-th request of a mix of the four directly translated key types.
inline void publishMixed(MemoryStateStore& store, std::uint32_t n, std::uint32_t version) {
  using namespace KilnTunnelNiLib;
  using KilnEmServer::FeatureType;
  switch (n % 4) {
    case 0:
      return publish<Isem>(store, FeatureType::mpls, IsemMplsComposerKey{n, 0}, IsemMplsEntry{n, 3}, version);
    case 1:
      return publish<Isem>(store, FeatureType::evpn,
                           IsemInnerEthComposerKey{static_cast<std::uint16_t>(n / 4 % 65536),
                                                   static_cast<std::uint8_t>(n / 4 / 65536)},
                           IsemInnerEthEntry{n, 3}, version);
    case 2:
      return publish<Esem>(store, FeatureType::vxlan, EsemFodoComposerKey{n / 4}, EsemFodoEntry{n, 1},
                           version);
    default:
      return publish<Lem>(store, FeatureType::vpws,
                          LemVpwsAcComposerKey{n / 4, static_cast<std::uint16_t>(n % 4096), 1, 0, 0},
                          LemVpwsAcEntry{n, 2, 3}, version);
  }
}

/// Publishes that many and runs until they are answered.
inline void publishAll(EmbeddedAgent& agent, std::uint32_t requests, std::uint32_t version) {
  for (std::uint32_t n = 0; n < requests; ++n) publishMixed(agent.store(), n, version);
  agent.settle();
}

}  // namespace KilnAgent
