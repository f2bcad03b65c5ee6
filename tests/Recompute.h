// An independent judge of the whole server: what must stand in statuses and tables, computed at once from the
// requests and the VLAN domains alone.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "agent/EmbeddedAgent.h"
#include "platform/KilnTunnelNiLib.h"
#include "runtime/EmTypes.h"

namespace KilnTests {

using KilnEmServer::EmEntry;
using KilnEmServer::EmRequestKey;
using KilnEmServer::EmResolvedKey;
using KilnEmServer::EmStatus;
using KilnEmServer::EmType;
using KilnEmServer::FeatureType;
using KilnTunnelNiLib::IntfIdSystemTcamId;
using TableTag = KilnEmServer::EmResolvedKeyUnionTag;

/// Where a request stands: whose, in which database, under which key.
using RequestPlace = std::tuple<FeatureType, EmType, EmRequestKey>;

struct Request {
  EmEntry entry;
  std::uint32_t requestVersion = 0;
  KilnTunnelNiLib::RequestKind requestKind = KilnTunnelNiLib::RequestKind::add;
};

struct StatusSeen {
  std::uint32_t requestVersion = 0;
  EmStatus status = EmStatus::hwPending;
  std::uint8_t result = 0;
  friend bool operator==(const StatusSeen&, const StatusSeen&) = default;
};

/// What the features and the VLAN-domain service want.
struct Wanted {
  std::map<RequestPlace, Request> requests;
  std::map<IntfIdSystemTcamId, std::uint16_t> domains;
  /// Whether the chip refused the write of that key; that is the chip's affair, not to be computed.
  std::function<bool(const EmResolvedKey&)> refused = [](const EmResolvedKey&) { return false; };
};

/// What everybody outside the server can see of it.
struct Outcome {
  std::map<RequestPlace, StatusSeen> statuses;
  std::map<EmResolvedKey, EmEntry> tables;
  std::set<IntfIdSystemTcamId> domainsAsked;
};

/// Whether keys of the type need a VLAN domain.
bool needsDomain(TableTag type);

Wanted wantedOf(const KilnAgent::EmbeddedAgent& agent);
Outcome recompute(const Wanted& wanted);
Outcome outcomeOf(KilnAgent::EmbeddedAgent& agent);
/// The first few differences in words; empty where there is none.
std::string difference(const Outcome& expected, const Outcome& found);

}  // namespace KilnTests
