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
  KILN_VALUE(KilnSim, StatusSeen, requestVersion, status, result)
};

/// What the features and the VLAN-domain service want.
struct Wanted {
  std::map<RequestPlace, Request> requests;
  std::map<IntfIdSystemTcamId, std::uint16_t> domains;
  /// Whether the chip refused that write; that is the chip's affair, not to be computed.
  std::function<bool(const EmResolvedKey&, const EmEntry&)> refused = [](const EmResolvedKey&,
                                                                         const EmEntry&) { return false; };
};

using KilnEmServer::ResourceCounts;

/// For which request an entry is written, in which version.
struct Subject {
  RequestPlace place;
  std::uint32_t requestVersion = 0;
  EmEntry entry;
  KILN_VALUE(KilnSim, Subject, place, requestVersion, entry)
};

/// What everybody outside the server can see of it.
struct Outcome {
  std::map<RequestPlace, StatusSeen> statuses;
  std::map<EmResolvedKey, EmEntry> tables;
  std::set<IntfIdSystemTcamId> domainsAsked;
  std::map<TableTag, ResourceCounts> resources;
  std::map<EmResolvedKey, Subject> winners;  ///< whose each key of a table is; only computed
};

/// Whether keys of the type need a VLAN domain.
bool needsDomain(TableTag type);

/// What the key becomes in its table; nothing where it fits no table or needs a domain and has none.
std::optional<EmResolvedKey> composed(const KilnEmServer::EmComposerKey& key,
                                      std::optional<std::uint16_t> domain);
/// The interface whose VLAN domain the key needs, if it needs one.
std::optional<IntfIdSystemTcamId> interfaceOf(const KilnEmServer::EmComposerKey& key);
/// The same as a hardware key, which holds on every FAP and core.
KilnEmServer::EmHwKey hwKeyOf(const EmResolvedKey& key);
/// Whether the server has a part in the request at all: its kind is to be programmed, it is in the database
/// of its key type, and its chip and core are both all or both specific.
bool takenUp(const RequestPlace& place, const Request& request);
/// Whether a table may get an entry for the request.
bool programmable(const RequestPlace& place, const Request& request);

Wanted wantedOf(const KilnAgent::EmbeddedAgent& agent);
Outcome recompute(const Wanted& wanted);
Outcome outcomeOf(KilnAgent::EmbeddedAgent& agent);
/// The first few differences in words; empty where there is none.
std::string difference(const Outcome& expected, const Outcome& found);

}  // namespace KilnSim
