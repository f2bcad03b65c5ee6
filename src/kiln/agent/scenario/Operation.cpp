#include "kiln/agent/scenario/Operation.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <limits>
#include <string>
#include <utility>

#include "kiln/agent/chip/ReadFap.h"
#include "kiln/agent/io/JsonValue.h"

namespace KilnAgent {
namespace {

/// The members of one line, read by name. A member that was not read is refused at the end.
class Line {
 public:
  explicit Line(const Json& json) : json_(json) {}

  [[nodiscard]] const Json* find(const char* name) const {
    const auto member = json_.find(name);
    return member == json_.end() ? nullptr : &*member;
  }
  [[nodiscard]] const Json& member(const char* name) const { return requireMember(json_, name, root_); }
  [[nodiscard]] JsonPath at(const char* name) const { return {&root_, name}; }

  template <class T>
  [[nodiscard]] T number(const char* name) const {
    return static_cast<T>(readWholeNumber(member(name), std::numeric_limits<T>::max(), at(name)));
  }
  template <class T>
  [[nodiscard]] std::optional<T> optionalNumber(const char* name) const {
    return find(name) == nullptr ? std::nullopt : std::optional<T>(number<T>(name));
  }
  template <class E>
  [[nodiscard]] E name(const char* member_) const {
    return readEnum<E>(member(member_), at(member_));
  }
  [[nodiscard]] bool flag(const char* name) const {
    const Json* found = find(name);
    return found != nullptr && readBool(*found, at(name));
  }
  /// One of several words, listed in the order of the enumeration's values.
  template <class E>
  [[nodiscard]] E word(const char* name, std::initializer_list<std::pair<std::string_view, E>> words) const {
    const std::string& text = readString(member(name), at(name));
    std::string known;
    for (const auto& [candidate, value] : words) {
      if (candidate == text) return value;
      known += known.empty() ? "" : ", ";
      known += candidate;
    }
    at(name).fail(fmt::format("unknown word \"{}\", known are {}", text, known));
  }
  [[nodiscard]] std::optional<bool> optionalFlag(const char* name) const {
    return find(name) == nullptr ? std::nullopt : std::optional<bool>(flag(name));
  }
  void onlyHas(std::initializer_list<std::string_view> names) const {
    refuseOtherMembers(json_, names, root_);
  }
  [[noreturn]] void fail(std::string_view wrong) const { root_.fail(wrong); }
  /// The line without the member that names the operation.
  [[nodiscard]] Json withoutOp() const {
    Json members = json_;
    members.erase("op");
    return members;
  }

 private:
  const Json& json_;
  JsonPath root_;
};

FeatureType featureOf(const Line& line) {
  return line.name<FeatureType>("feature");
}
EmType databaseOf(const Line& line) {
  return line.name<EmType>("database");
}
EmRequestKey requestKeyOf(const Line& line) {
  return readKey(line.member("key"), &EmRequestKey::emComposerKey, line.at("key"));
}

TableTag tableOf(const Line& line) {
  const std::string& stem = readString(line.member("table"), line.at("table"));
  const auto table = KilnEmServer::tableOfStem(stem);
  if (!table) line.at("table").fail(fmt::format("unknown table \"{}\"", stem));
  return *table;
}

IntfIdSystemTcamId interfaceOf(const Line& line) {
  return {line.number<std::uint64_t>("intfId"), line.number<std::uint16_t>("systemTcamId")};
}

/// The kind by its name, or by its number; the number may be of no named kind.
KilnTunnelNiLib::RequestKind requestKindOf(const Line& line) {
  using KilnTunnelNiLib::RequestKind;
  const Json* kind = line.find("requestKind");
  if (kind == nullptr) return RequestKind::add;
  return kind->is_number() ? static_cast<RequestKind>(line.number<std::uint8_t>("requestKind"))
                           : line.name<RequestKind>("requestKind");
}

Operation readPublish(const Line& line) {
  line.onlyHas({"op", "feature", "database", "key", "entry", "requestVersion", "requestKind", "unchecked"});
  return PublishOperation{featureOf(line),
                          databaseOf(line),
                          requestKeyOf(line),
                          readEntry(line.member("entry"), line.at("entry")),
                          line.number<std::uint32_t>("requestVersion"),
                          requestKindOf(line),
                          line.flag("unchecked")};
}

Operation readWithdraw(const Line& line) {
  line.onlyHas({"op", "feature", "database", "key"});
  return WithdrawOperation{featureOf(line), databaseOf(line), requestKeyOf(line)};
}

Operation readWithdrawAll(const Line& line) {
  line.onlyHas({"op", "feature", "database"});
  return WithdrawAllOperation{featureOf(line), databaseOf(line)};
}

Operation readRemoveFeature(const Line& line) {
  line.onlyHas({"op", "feature"});
  return RemoveFeatureOperation{featureOf(line)};
}

Operation readAddFeature(const Line& line) {
  line.onlyHas({"op", "feature"});
  return AddFeatureOperation{featureOf(line)};
}

Operation readVlanDomains(const Line& line) {
  using Mode = VlanDomainService::Mode;
  line.onlyHas({"op", "mode", "first", "last", "perTcam", "insideCall"});
  VlanDomainsOperation operation{
      line.word<Mode>("mode", {{"auto", Mode::automatic}, {"manual", Mode::manual}}), std::nullopt,
      line.optionalFlag("perTcam"), line.optionalFlag("insideCall")};
  if (line.find("first") == nullptr && line.find("last") == nullptr) return operation;
  operation.limits = {line.number<std::uint16_t>("first"), line.number<std::uint16_t>("last")};
  if (operation.limits->first > operation.limits->last) line.fail("the first domain is above the last");
  return operation;
}

Operation readAllot(const Line& line) {
  line.onlyHas({"op", "intfId", "systemTcamId", "vlanDomain"});
  return AllotOperation{interfaceOf(line), line.number<std::uint16_t>("vlanDomain")};
}

Operation readRevoke(const Line& line) {
  line.onlyHas({"op", "intfId", "systemTcamId"});
  return RevokeOperation{interfaceOf(line)};
}

Operation readShare(const Line& line) {
  line.onlyHas({"op", "intfId", "withIntfId", "systemTcamId"});
  return ShareOperation{line.number<std::uint64_t>("intfId"), line.number<std::uint64_t>("withIntfId"),
                        line.number<std::uint16_t>("systemTcamId")};
}

Operation readTable(const Line& line) {
  using Mode = SoftTable::AnswerMode;
  using Applies = SoftTable::Applies;
  line.onlyHas({"op", "table", "answer", "capacity", "insideCall", "applies"});
  TableOperation operation{tableOf(line), std::nullopt, line.optionalNumber<std::uint32_t>("capacity"),
                           line.optionalFlag("insideCall")};
  if (line.find("applies") != nullptr) {
    operation.applies =
        line.word<Applies>("applies", {{"issued", Applies::issued}, {"answered", Applies::answered}});
  }
  const bool saysAnything = operation.capacity || operation.insideCall || operation.applies;
  if (saysAnything && line.find("answer") == nullptr) return operation;
  operation.answer =
      line.word<Mode>("answer", {{"success", Mode::success}, {"refuse", Mode::refuse}, {"hold", Mode::hold}});
  return operation;
}

Operation readAnswer(const Line& line) {
  using Order = SoftTable::Order;
  line.onlyHas({"op", "table", "order", "count", "now", "skip"});
  const Order order = line.find("order") == nullptr
                          ? Order::fifo
                          : line.word<Order>("order", {{"fifo", Order::fifo}, {"lifo", Order::lifo}});
  return AnswerOperation{tableOf(line), order, line.number<std::size_t>("count"), line.flag("now"),
                         line.optionalNumber<std::size_t>("skip").value_or(0)};
}

Hardware::Kiln::FapId fapIdOf(const Line& line) {
  return Hardware::Kiln::FapId(line.number<std::uint16_t>("fapId"));
}

KilnTunnelNiLib::SemExternalUsage readUsage(const Json& json, const JsonPath& path) {
  requireObject(json, path);
  refuseOtherMembers(json, {"fapId", "localCoreId", "semType", "entries"}, path);
  const auto number = [&]<class T>(const char* name, T /*kind*/) {
    return static_cast<T>(readWholeNumber(requireMember(json, name, path), std::numeric_limits<T>::max(),
                                          JsonPath{&path, name}));
  };
  KilnTunnelNiLib::SemExternalUsage usage;
  usage.fapId = Hardware::Kiln::FapId(number("fapId", std::uint16_t{}));
  readValue(requireMember(json, "localCoreId", path), usage.localCoreId, JsonPath{&path, "localCoreId"});
  usage.semType = number("semType", KilnTunnelNiLib::SemType{});
  usage.entries = number("entries", std::uint32_t{});
  return usage;
}

Operation readExternalUser(const Line& line) {
  line.onlyHas({"op", "name", "usage"});
  ExternalUserOperation operation{readString(line.member("name"), line.at("name")), {}};
  const JsonPath path = line.at("usage");
  const Json& usages = line.member("usage");
  if (!usages.is_array()) path.fail("expected an array");
  for (const Json& usage : usages) operation.user.usage.push_back(readUsage(usage, path));
  return operation;
}

Operation readAddFap(const Line& line) {
  return AddFapOperation{readFap(line.withoutOp(), {})};
}

Operation readRemoveFap(const Line& line) {
  line.onlyHas({"op", "fapId"});
  return RemoveFapOperation{fapIdOf(line)};
}

Operation readProfile(const Line& line) {
  line.onlyHas({"op", "fapId", "profile"});
  return ProfileOperation{fapIdOf(line), line.optionalNumber<std::uint32_t>("profile")};
}

Operation readRun(const Line& line) {
  line.onlyHas({"op", "tasks"});
  return RunOperation{line.number<std::size_t>("tasks")};
}

Operation readSlice(const Line& line) {
  line.onlyHas({"op", "task", "instance", "items", "refused"});
  SliceOperation slice{readString(line.member("task"), line.at("task"))};
  if (const Json* instance = line.find("instance"))
    slice.instance = readString(*instance, line.at("instance"));
  slice.items = line.optionalNumber<std::uint32_t>("items").value_or(0);
  slice.refused = line.optionalNumber<std::uint32_t>("refused");
  return slice;
}

Operation readCrash(const Line& line) {
  line.onlyHas({"op", "lost"});
  return CrashOperation{line.flag("lost")};
}

template <class Empty>
Operation readEmpty(const Line& line) {
  line.onlyHas({"op"});
  return Empty{};
}

Operation readExpect(const Line& line) {
  line.onlyHas({"op", "feature", "database", "key", "status", "requestVersion", "result", "absent", "now",
                "untouched"});
  ExpectOperation expect{featureOf(line),     databaseOf(line), requestKeyOf(line),
                         std::nullopt,        std::nullopt,     std::nullopt,
                         line.flag("absent"), line.flag("now"), line.flag("untouched")};
  if (line.find("status") != nullptr) expect.status = line.name<EmStatus>("status");
  expect.requestVersion = line.optionalNumber<std::uint32_t>("requestVersion");
  expect.result = line.optionalNumber<std::uint8_t>("result");
  if ((expect.status || expect.requestVersion || expect.result) == expect.absent) {
    line.fail("either \"absent\":true or some of status, requestVersion and result is expected");
  }
  return expect;
}

Operation readExpectTable(const Line& line) {
  line.onlyHas({"op", "table", "key", "entry", "absent", "now", "untouched"});
  ExpectTableOperation expect{tableOf(line),
                              readKey(line.member("key"), &EmHwKey::emResolvedKey, line.at("key")),
                              std::nullopt, line.flag("now"), line.flag("untouched")};
  if (expect.key.emResolvedKey.tag() != expect.table) line.at("key").fail("not a key of the table");
  const Json* entry = line.find("entry");
  if ((entry != nullptr) == line.flag("absent")) {
    line.fail("either \"absent\":true or an entry is expected");
  }
  if (entry == nullptr) return expect;
  expect.entry = readEntry(*entry, line.at("entry"));
  if (static_cast<int>(expect.entry->tag()) != static_cast<int>(expect.table)) {
    line.at("entry").fail("not an entry of the table");
  }
  return expect;
}

struct Reader {
  std::string_view op;
  Operation (*read)(const Line&);
};
constexpr std::array kReaders = {
    Reader{"publish", readPublish},
    Reader{"withdraw", readWithdraw},
    Reader{"withdrawAll", readWithdrawAll},
    Reader{"removeFeature", readRemoveFeature},
    Reader{"addFeature", readAddFeature},
    Reader{"vlanDomains", readVlanDomains},
    Reader{"allot", readAllot},
    Reader{"revoke", readRevoke},
    Reader{"share", readShare},
    Reader{"table", readTable},
    Reader{"answer", readAnswer},
    Reader{"externalUser", readExternalUser},
    Reader{"addFap", readAddFap},
    Reader{"removeFap", readRemoveFap},
    Reader{"profile", readProfile},
    Reader{"settle", readEmpty<SettleOperation>},
    Reader{"run", readRun},
    Reader{"slice", readSlice},
    Reader{"restart", readEmpty<RestartOperation>},
    Reader{"commit", readEmpty<CommitOperation>},
    Reader{"crash", readCrash},
    Reader{"watch", readEmpty<WatchOperation>},
    Reader{"expect", readExpect},
    Reader{"expectTable", readExpectTable},
};

}  // namespace

Json parseLine(std::string_view line) {
  // The JSON library would treat it as the end of its input.
  if (line.find('\0') != std::string_view::npos) throw InputError("a NUL byte is not allowed in a line");
  try {
    Json json = Json::parse(line, ParseGuard());
    requireObject(json, {});
    return json;
  } catch (const Json::exception& error) {
    throw InputError(fmt::format("not a line of JSON: {}", parseErrorText(error)));
  }
}

Operation readOperation(const Json& line) {
  const Line members(line);
  const std::string& op = readString(members.member("op"), members.at("op"));
  for (const Reader& reader : kReaders) {
    if (reader.op == op) return reader.read(members);
  }
  members.at("op").fail(fmt::format("unknown operation \"{}\"", op));
}

Operation parseOperation(std::string_view line) {
  return readOperation(parseLine(line));
}

}  // namespace KilnAgent
