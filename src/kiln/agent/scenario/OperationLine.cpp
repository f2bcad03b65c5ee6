// Formats an operation as a line of a scenario.
#include <string>
#include <string_view>
#include <utility>

#include "kiln/agent/io/JsonValue.h"
#include "kiln/agent/scenario/Operation.h"

namespace KilnAgent {
namespace {

/// Builds a line: the operation's name first, then its members in the order of the calls.
class Members {
 public:
  explicit Members(std::string_view op) { add("op", op); }
  Members& add(const char* name, const Json& value) {
    json_[name] = value;
    return *this;
  }
  template <class T>
  Members& add(const char* name, const std::optional<T>& value) {
    return value ? add(name, toJson(*value)) : *this;
  }
  // A flag is left out if it is false.
  Members& flag(const char* name, bool set) { return set ? add(name, true) : *this; }
  Members& count(const char* name, std::size_t number) { return number != 0 ? add(name, number) : *this; }
  Members& request(FeatureType feature, EmType database, const EmRequestKey& key) {
    return add("feature", toJson(feature))
        .add("database", toJson(database))
        .add("key", keyToJson(key, &EmRequestKey::emComposerKey));
  }
  Members& interface(const IntfIdSystemTcamId& interface) {
    return add("intfId", interface.intfId).add("systemTcamId", interface.systemTcamId);
  }
  Members& table(TableTag table) { return add("table", KilnEmServer::tableStem(table)); }
  [[nodiscard]] std::string text() const { return json_.dump(); }

 private:
  nlohmann::ordered_json json_;
};

std::string line(const PublishOperation& publish) {
  using KilnTunnelNiLib::RequestKind;
  Members members("publish");
  members.request(publish.feature, publish.database, publish.key)
      .add("entry", toJson(publish.entry))
      .add("requestVersion", publish.requestVersion);
  const auto kind = static_cast<std::uint8_t>(publish.requestKind);
  const bool named = kind <= static_cast<std::uint8_t>(RequestKind::hold);
  members.add("requestKind", named ? toJson(publish.requestKind) : Json(kind));
  return members.flag("unchecked", publish.unchecked).text();
}

std::string line(const WithdrawOperation& withdraw) {
  return Members("withdraw").request(withdraw.feature, withdraw.database, withdraw.key).text();
}

std::string line(const WithdrawAllOperation& withdraw) {
  return Members("withdrawAll")
      .add("feature", toJson(withdraw.feature))
      .add("database", toJson(withdraw.database))
      .text();
}

std::string line(const RemoveFeatureOperation& remove) {
  return Members("removeFeature").add("feature", toJson(remove.feature)).text();
}
std::string line(const AddFeatureOperation& add) {
  return Members("addFeature").add("feature", toJson(add.feature)).text();
}

std::string line(const VlanDomainsOperation& domains) {
  Members members("vlanDomains");
  members.add("mode", domains.mode == VlanDomainService::Mode::automatic ? "auto" : "manual");
  if (domains.limits) members.add("first", domains.limits->first).add("last", domains.limits->last);
  return members.add("perTcam", domains.perTcam).add("insideCall", domains.insideCall).text();
}

std::string line(const AllotOperation& allot) {
  return Members("allot").interface(allot.interface).add("vlanDomain", allot.vlanDomain).text();
}
std::string line(const RevokeOperation& revoke) {
  return Members("revoke").interface(revoke.interface).text();
}
std::string line(const ShareOperation& share) {
  return Members("share")
      .add("systemTcamId", share.systemTcamId)
      .add("intfId", share.intfId)
      .add("withIntfId", share.withIntfId)
      .text();
}

std::string line(const TableOperation& operation) {
  constexpr const char* kAnswers[] = {"success", "refuse", "hold"};
  Members members("table");
  members.table(operation.table);
  if (operation.answer) members.add("answer", kAnswers[static_cast<std::size_t>(*operation.answer)]);
  if (operation.applies) {
    members.add("applies", *operation.applies == SoftTable::Applies::issued ? "issued" : "answered");
  }
  return members.add("capacity", operation.capacity).add("insideCall", operation.insideCall).text();
}

std::string line(const AnswerOperation& answer) {
  return Members("answer")
      .table(answer.table)
      .add("order", answer.order == SoftTable::Order::fifo ? "fifo" : "lifo")
      .add("count", answer.count)
      .flag("now", answer.now)
      .count("skip", answer.skip)
      .text();
}

std::string line(const ExternalUserOperation& external) {
  Json usages = Json::array();
  for (const auto& usage : external.user.usage) {
    Json row = {{"fapId", usage.fapId.number()}, {"semType", usage.semType}, {"entries", usage.entries}};
    row["localCoreId"] = usage.localCoreId.number();
    usages.push_back(std::move(row));
  }
  return Members("externalUser").add("name", external.name).add("usage", usages).text();
}

std::string line(const AddFapOperation& add) {
  Json cores = Json::array();
  for (const auto core : add.fap.info.cores) cores.push_back(core.number());
  return Members("addFap")
      .add("id", add.fap.fapId.number())
      .add("name", add.fap.info.name)
      .add("type", add.fap.info.fapType)
      .add("cores", cores)
      .add("profile", add.fap.profile)
      .text();
}
std::string line(const RemoveFapOperation& remove) {
  return Members("removeFap").add("fapId", remove.fapId.number()).text();
}
std::string line(const ProfileOperation& profile) {
  return Members("profile").add("fapId", profile.fapId.number()).add("profile", profile.profile).text();
}

std::string line(const SettleOperation& /*settle*/) {
  return Members("settle").text();
}
std::string line(const RunOperation& run) {
  return Members("run").add("tasks", run.tasks).text();
}
std::string line(const SliceOperation& slice) {
  Members members("slice");
  members.add("task", slice.task);
  if (!slice.instance.empty()) members.add("instance", slice.instance);
  return members.count("items", slice.items).add("refused", slice.refused).text();
}
std::string line(const RestartOperation& /*restart*/) {
  return Members("restart").text();
}
std::string line(const CommitOperation& /*commit*/) {
  return Members("commit").text();
}
std::string line(const CrashOperation& crash) {
  return Members("crash").flag("lost", crash.lost).text();
}

std::string line(const WatchOperation& /*watch*/) {
  return Members("watch").text();
}

std::string line(const ExpectOperation& expect) {
  return Members("expect")
      .request(expect.feature, expect.database, expect.key)
      .add("status", expect.status)
      .add("requestVersion", expect.requestVersion)
      .add("result", expect.result)
      .flag("absent", expect.absent)
      .flag("now", expect.now)
      .flag("untouched", expect.untouched)
      .text();
}

std::string line(const ExpectTableOperation& expect) {
  return Members("expectTable")
      .table(expect.table)
      .add("key", keyToJson(expect.key, &EmHwKey::emResolvedKey))
      .add("entry", expect.entry)
      .flag("absent", !expect.entry)
      .flag("now", expect.now)
      .flag("untouched", expect.untouched)
      .text();
}

}  // namespace

std::string operationLine(const Operation& operation) {
  return std::visit([](const auto& specific) { return line(specific); }, operation);
}

}  // namespace KilnAgent
