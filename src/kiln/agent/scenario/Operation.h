// The operations of a scenario, and the parser of a line.
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
  bool unchecked;  ///< enters the store without a check
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
/// A feature's collections are removed.
struct RemoveFeatureOperation {
  FeatureType feature;
};
/// A feature's collections are added again, empty.
struct AddFeatureOperation {
  FeatureType feature;
};
struct VlanDomainsOperation {
  VlanDomainService::Mode mode;
  std::optional<VlanDomainLimits> limits;
  std::optional<bool> perTcam = std::nullopt;     ///< whether each system TCAM has its own domains
  std::optional<bool> insideCall = std::nullopt;  ///< whether domains are allotted inside the requesting call
};
struct AllotOperation {
  IntfIdSystemTcamId interface;
  std::uint16_t vlanDomain;
};
struct RevokeOperation {
  IntfIdSystemTcamId interface;
};
/// In automatic mode, the two interfaces have one domain from then on.
struct ShareOperation {
  std::uint64_t intfId;
  std::uint64_t withIntfId;
  std::uint16_t systemTcamId;
};
struct TableOperation {
  TableTag table;
  std::optional<SoftTable::AnswerMode> answer;
  std::optional<std::uint32_t> capacity;
  std::optional<bool> insideCall;  ///< whether operations are answered inside the call that issues them
  std::optional<SoftTable::Applies> applies = std::nullopt;
};
/// Held answers are released.
struct AnswerOperation {
  TableTag table;
  SoftTable::Order order;
  std::size_t count;
  bool now;              ///< released without settling first
  std::size_t skip = 0;  ///< skips so many of them, in that order
};
/// Sets the usage of an external user of the tables; a user without usage is removed.
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
/// A FAP uses another MDB profile, or none, from then on.
struct ProfileOperation {
  Hardware::Kiln::FapId fapId;
  std::optional<std::uint32_t> profile;
};
struct SettleOperation {};
/// Runs the given number of tasks, or until none is ready.
struct RunOperation {
  std::size_t tasks;
};
/// Runs one slice of a ready task.
struct SliceOperation {
  std::string task;           ///< its name
  std::string instance = {};  ///< if several tasks have the name
  std::uint32_t items = 0;    ///< after which it yields; 0 for no limit
  std::optional<std::uint32_t> refused =
      std::nullopt;  ///< the write in this slice, from 0, that the chip refuses
};
struct RestartOperation {};
/// The present content of the store survives every later crash.
struct CommitOperation {};
struct CrashOperation {
  bool lost;  ///< whether the store's changes since the last commit are lost
};
/// Starts the record of touched statuses and table entries.
struct WatchOperation {};
/// The expected status record of a request; members without a value match anything.
struct ExpectOperation {
  FeatureType feature;
  EmType database;
  EmRequestKey key;
  std::optional<EmStatus> status;
  std::optional<std::uint32_t> requestVersion;
  std::optional<std::uint8_t> result;
  bool absent;
  bool now;        ///< without settling first
  bool untouched;  ///< the record must not have changed since the last WatchOperation, not even temporarily
};
/// The expected entry of a table under a key; none if the table must hold none.
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

/// The operation that a line of JSON describes. Throws InputError with the reason: no JSON, an unknown
/// operation, feature, database, table or field, a missing field, a value of the wrong type or out of its
/// field's range.
Operation parseOperation(std::string_view line);

// The same in two steps.

/// The JSON of a line, which must be an object. Throws InputError if it is not.
Json parseLine(std::string_view line);
Operation readOperation(const Json& line);

/// The line, without its end, that parseOperation reads as the same operation.
std::string operationLine(const Operation& operation);

}  // namespace KilnAgent
