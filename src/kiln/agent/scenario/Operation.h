// The operations of a scenario, and how a line of one is read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "kiln/agent/chip/ChipConfig.h"
#include "kiln/agent/chip/SoftTable.h"
#include "kiln/agent/platform/VlanDomainService.h"
#include "kiln/platform/KilnTunnelNiLib.h"
#include "kiln/runtime/model/EmTypes.h"

namespace KilnAgent {

using Json = nlohmann::json;
using KilnEmServer::EmEntry;
using KilnEmServer::EmHwKey;
using KilnEmServer::EmRequestKey;
using KilnEmServer::EmStatus;
using KilnEmServer::EmType;
using KilnEmServer::FeatureType;
using KilnTunnelNiLib::IntfIdSystemTcamId;
using TableTag = KilnEmServer::EmResolvedKeyUnionTag;

/// A feature inserts or replaces a request.
struct PublishOperation {
  FeatureType feature;
  EmType database;
  EmRequestKey key;
  EmEntry entry;
  std::uint32_t requestVersion;
  KilnTunnelNiLib::RequestKind requestKind;
  bool unchecked;  ///< enters the store without being checked
};
struct WithdrawOperation {
  FeatureType feature;
  EmType database;
  EmRequestKey key;
};
struct WithdrawAllOperation {
  FeatureType feature;
  EmType database;
};
/// A feature's collections vanish.
struct RemoveFeatureOperation {
  FeatureType feature;
};
/// A feature's collections return, empty.
struct AddFeatureOperation {
  FeatureType feature;
};
struct VlanDomainsOperation {
  VlanDomainService::Mode mode;
  std::optional<VlanDomainLimits> limits;
  std::optional<bool> perTcam = std::nullopt;     ///< whether each system TCAM has domains of its own
  std::optional<bool> insideCall = std::nullopt;  ///< whether domains are allotted within the call that asks
};
struct AllotOperation {
  IntfIdSystemTcamId interface;
  std::uint16_t vlanDomain;
};
struct RevokeOperation {
  IntfIdSystemTcamId interface;
};
/// In automatic mode, the two interfaces have one domain from now on.
struct ShareOperation {
  std::uint64_t intfId;
  std::uint64_t withIntfId;
  std::uint16_t systemTcamId;
};
struct TableOperation {
  TableTag table;
  std::optional<SoftTable::AnswerMode> answer;
  std::optional<std::uint32_t> capacity;
  std::optional<bool> insideCall;  ///< whether operations are answered within the call that issues them
  std::optional<SoftTable::Applies> applies = std::nullopt;
};
/// Held answers go.
struct AnswerOperation {
  TableTag table;
  SoftTable::Order order;
  std::size_t count;
  bool now;              ///< goes without settling first
  std::size_t skip = 0;  ///< so many of them, in that order, stay
};
/// An external user of the tables holds this much from now on; one that holds nothing is removed.
struct ExternalUserOperation {
  std::string name;
  KilnTunnelNiLib::SemCapacityExternal user;
};
struct AddFapOperation {
  ChipConfig::Fap fap;
};
struct RemoveFapOperation {
  Hardware::Kiln::FapId fapId;
};
/// A FAP uses another MDB profile from now on, or none.
struct ProfileOperation {
  Hardware::Kiln::FapId fapId;
  std::optional<std::uint32_t> profile;
};
struct SettleOperation {};
/// Runs tasks, so many of them or until none is ready.
struct RunOperation {
  std::size_t tasks;
};
/// Runs one slice of a ready task.
struct SliceOperation {
  std::string task;           ///< its name
  std::string instance = {};  ///< if several tasks have the name
  std::uint32_t items = 0;    ///< after which it yields; 0 does not ask it to
  std::optional<std::uint32_t> refused =
      std::nullopt;  ///< of the writes in it, from 0, the chip refuses this
};
struct RestartOperation {};
/// What the store holds now outlives every crash.
struct CommitOperation {};
struct CrashOperation {
  bool lost;  ///< the store's changes since the last commit are lost
};
/// From here on it is noted which statuses and table entries are touched.
struct WatchOperation {};
/// What a request's status record is to say; what is not given may be anything.
struct ExpectOperation {
  FeatureType feature;
  EmType database;
  EmRequestKey key;
  std::optional<EmStatus> status;
  std::optional<std::uint32_t> requestVersion;
  std::optional<std::uint8_t> result;
  bool absent;
  bool now;        ///< looks without settling first
  bool untouched;  ///< nor did the record change since the last WatchOperation, there and back included
};
/// What a table is to hold under a key; no entry where it is to hold none.
struct ExpectTableOperation {
  TableTag table;
  EmHwKey key;
  std::optional<EmEntry> entry;
  bool now;
  bool untouched;
};

using Operation =
    std::variant<PublishOperation, WithdrawOperation, WithdrawAllOperation, RemoveFeatureOperation,
                 AddFeatureOperation, VlanDomainsOperation, AllotOperation, RevokeOperation, ShareOperation,
                 TableOperation, AnswerOperation, ExternalUserOperation, AddFapOperation, RemoveFapOperation,
                 ProfileOperation, SettleOperation, RunOperation, SliceOperation, RestartOperation,
                 CommitOperation, CrashOperation, WatchOperation, ExpectOperation, ExpectTableOperation>;

/// The operation that a line of JSON describes. Throws InputError with what is wrong: no JSON, an unknown
/// operation, feature, database, table or field, a missing field, a value of the wrong type or out of its
/// field's range.
Operation parseOperation(std::string_view line);

// The same in two steps.

/// The JSON of a line, which is an object. Throws InputError where it is none.
Json parseLine(std::string_view line);
Operation readOperation(const Json& line);

/// The line, without its end, from which parseOperation reads the same operation.
std::string operationLine(const Operation& operation);

}  // namespace KilnAgent
