// An independent judge of the whole server: the required content of statuses and tables, computed in one step
// from the requests and the VLAN domains alone.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/platform/KilnTunnelNiLib.h"
#include "kiln/runtime/model/EmTypes.h"
#include "kiln/status/ResourceTableSm.h"

namespace KilnSim {

using KilnEmServer::EmEntry;
using KilnEmServer::EmRequestKey;
using KilnEmServer::EmResolvedKey;
using KilnEmServer::EmStatus;
using KilnEmServer::EmType;
using KilnEmServer::FeatureType;
using KilnTunnelNiLib::IntfIdSystemTcamId;
using TableTag = KilnEmServer::EmResolvedKeyUnionTag;

/// The place of a request: its feature, database and key.
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
  KILN_VALUE(KilnSim, StatusSeen, requestVersion, status, result)
};

/// The desired state of the features and the VLAN-domain service.
struct Wanted {
  std::map<RequestPlace, Request> requests;
  std::map<IntfIdSystemTcamId, std::uint16_t> domains;
  /// Whether the chip refused that write; the chip decides, it is not computed.
  std::function<bool(const EmResolvedKey&, const EmEntry&)> refused = [](const EmResolvedKey&,
                                                                         const EmEntry&) { return false; };
};

using KilnEmServer::ResourceCounts;

/// The request, and its version, for which an entry is written.
struct Subject {
  RequestPlace place;
  std::uint32_t requestVersion = 0;
  EmEntry entry;
  KILN_VALUE(KilnSim, Subject, place, requestVersion, entry)
};

/// The part of it that is visible outside the server.
struct Outcome {
  std::map<RequestPlace, StatusSeen> statuses;
  std::map<EmResolvedKey, EmEntry> tables;
  std::set<IntfIdSystemTcamId> domainsAsked;
  std::map<TableTag, ResourceCounts> resources;
  std::map<EmResolvedKey, Subject> winners;  ///< the winner of each key of a table; computed only
};

/// Whether keys of the type need a VLAN domain.
bool needsDomain(TableTag type);

/// The key in its table; nothing if it fits no table, or needs a domain and has none.
std::optional<EmResolvedKey> composed(const KilnEmServer::EmComposerKey& key,
                                      std::optional<std::uint16_t> domain);
/// The interface whose VLAN domain the key needs, if it needs one.
std::optional<IntfIdSystemTcamId> interfaceOf(const KilnEmServer::EmComposerKey& key);
/// The same as a hardware key, which holds on every FAP and core.
KilnEmServer::EmHwKey hwKeyOf(const EmResolvedKey& key);
/// Whether the server accepts the request: its kind is to be programmed, it is in the database of its key
/// type, and its chip and core are both all or both specific.
bool takenUp(const RequestPlace& place, const Request& request);
/// Whether a table may get an entry for the request.
bool programmable(const RequestPlace& place, const Request& request);

Wanted wantedOf(const KilnAgent::EmbeddedAgent& agent);
Outcome recompute(const Wanted& wanted);
Outcome outcomeOf(KilnAgent::EmbeddedAgent& agent);
/// The first few differences as text; empty if there are none.
std::string difference(const Outcome& expected, const Outcome& found);

}  // namespace KilnSim
