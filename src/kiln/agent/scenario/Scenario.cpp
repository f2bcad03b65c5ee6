#include "kiln/agent/scenario/Scenario.h"

#include <optional>
#include <type_traits>
#include <utility>

#include "kiln/agent/io/JsonValue.h"
#include "kiln/agent/io/LineSocket.h"
#include "kiln/agent/platform/YieldPolicies.h"
#include "kiln/server/CheckRequest.h"

namespace KilnAgent {
namespace {

constexpr std::size_t kSlicesPerProgress = 4096;
constexpr std::uint64_t kLinesPerProgress = 1024;
constexpr std::size_t kMostInterleavedTasks = 7;

/// Operations after which the next one is not applied back to back.
template <class T>
constexpr bool kEndsBatch = std::is_same_v<T, SettleOperation> || std::is_same_v<T, RestartOperation> ||
                            std::is_same_v<T, CrashOperation> || std::is_same_v<T, AnswerOperation> ||
                            std::is_same_v<T, CommitOperation> || std::is_same_v<T, WatchOperation> ||
                            std::is_same_v<T, ExpectOperation> || std::is_same_v<T, ExpectTableOperation>;

std::string requestName(FeatureType feature, EmType database, const EmRequestKey& key) {
  return fmt::format("{} {} {}", feature, database, keyToJson(key, &EmRequestKey::emComposerKey).dump());
}

/// The text of a status record, or of the named parts of an expectation.
std::string statusText(std::optional<EmStatus> status, std::optional<std::uint32_t> requestVersion,
                       std::optional<std::uint8_t> result) {
  Json json = Json::object();
  if (status) json["status"] = toJson(*status);
  if (requestVersion) json["requestVersion"] = *requestVersion;
  if (result) json["result"] = *result;
  return json.dump();
}

/// Reads a line of bounded length; false at the end. Throws InputError if it is too long or cannot be read.
bool readLine(std::istream& lines, std::string& line) {
  line.clear();
  auto& bytes = *lines.rdbuf();
  while (line.size() <= LineConnection::kMaxLine) {
    int byte = 0;
    try {
      byte = bytes.sbumpc();
    } catch (const std::ios_base::failure&) {
      throw InputError("cannot be read");
    }
    if (byte == std::istream::traits_type::eof()) return !line.empty();
    if (byte == '\n') return true;
    line += static_cast<char>(byte);
  }
  throw InputError(fmt::format("the line has more than {} bytes", LineConnection::kMaxLine));
}

std::optional<StatusRecord> findStatus(const MemoryStateStore& store, const ExpectOperation& expect) {
  return withDatabase(expect.database, [&]<class Db>() -> std::optional<StatusRecord> {
    const auto statuses = store.statuses<Db>(expect.feature);
    if (statuses == nullptr) return std::nullopt;
    const auto* found =
        statuses->status().find(KilnEmServer::requestKeyAs<typename Db::EntryKey>(expect.key));
    if (found == nullptr) return std::nullopt;
    return StatusRecord{found->status, found->requestVersion, found->result};
  });
}

bool holds(const ExpectOperation& expect, const std::optional<StatusRecord>& found) {
  if (!found || expect.absent) return !found && expect.absent;
  return (!expect.status || *expect.status == found->status) &&
         (!expect.requestVersion || *expect.requestVersion == found->requestVersion) &&
         (!expect.result || *expect.result == found->result);
}

std::optional<EmEntry> findEntry(const SoftChip& chip, const ExpectTableOperation& expect) {
  const bool convergent = expect.key.fapId == Hardware::Kiln::FapId::allFap() &&
                          expect.key.localCoreId == Hardware::Kiln::LocalCoreId::all();
  return convergent ? chip.table(expect.table).find(expect.key.emResolvedKey) : std::nullopt;
}

}  // namespace

Scenario::Scenario(EmbeddedAgent& agent, bool interleave, std::uint64_t seed, Say say, Progress progress)
    : agent_(agent),
      interleave_(interleave),
      random_(seed),
      say_(std::move(say)),
      progress_(std::move(progress)) {}

void Scenario::run(std::istream& lines, const std::string& name) {
  name_ = name;
  lineNumber_ = 0;
  std::string line;
  for (bool more = true; more;) {
    ++lineNumber_;
    try {
      more = readLine(lines, line);
      if (more) runLine(line);
    } catch (const InputError& error) {
      throw InputError(fmt::format("{}:{}: {}", name_, lineNumber_, error.what()));
    }
  }
}

void Scenario::runLine(std::string_view line) {
  if (++counters_.lines % kLinesPerProgress == 0 && progress_) progress_(counters_);
  if (!isBlank(line)) execute(parseOperation(line));
}

bool Scenario::isBlank(std::string_view line) {
  const std::size_t begin = line.find_first_not_of(" \t\r");
  return begin == std::string_view::npos || line.substr(begin).starts_with("//");
}

void Scenario::execute(const Operation& operation) {
  std::visit(
      [this]<class T>(const T& specific) {
        apply(specific);
        if (interleave_ && !kEndsBatch<T>) {
          agent_.scheduler().run(randomBelow(random_, kMostInterleavedTasks + 1));
        }
      },
      operation);
  ++counters_.operations;
  tellReconciled();
}

void Scenario::tellReconciled() {
  const ReconcileMonitor& monitor = agent_.reconcileMonitor();
  if (monitor.endedCount() == reconciledReported_) return;
  reconciledReported_ = monitor.endedCount();
  if (reconciled_) reconciled_(*monitor.ended());
}

void Scenario::settle() {
  while (!agent_.scheduler().idle()) {
    agent_.scheduler().run(kSlicesPerProgress);
    if (progress_) progress_(counters_);
  }
  agent_.noteQuiet();
  tellReconciled();
}

void Scenario::apply(const PublishOperation& publish) {
  ++counters_.publishes;
  if (!agent_.store().features().has(publish.feature)) {
    ++counters_.refusals;
    return sayHere(fmt::format("{} refused: the feature was removed",
                               requestName(publish.feature, publish.database, publish.key)));
  }
  withDatabase(publish.database, [&]<class Db>() {
    const auto key = KilnEmServer::requestKeyAs<typename Db::EntryKey>(publish.key);
    const MemoryStateStore::Request<Db> request{
        .clientData = {publish.entry},
        .requestVersion = publish.requestVersion,
        .requestKind = publish.requestKind,
    };
    if (!publish.unchecked) {
      if (const std::optional<std::string> wrong = KilnEmServer::checkRequest<Db>(key, request)) {
        ++counters_.refusals;
        return sayHere(fmt::format("{} refused: {}",
                                   requestName(publish.feature, publish.database, publish.key), *wrong));
      }
    }
    agent_.store().requestIs<Db>(publish.feature, key, request);
  });
}

void Scenario::apply(const WithdrawOperation& withdraw) {
  withDatabase(withdraw.database, [&]<class Db>() {
    agent_.store().requestDel<Db>(withdraw.feature,
                                  KilnEmServer::requestKeyAs<typename Db::EntryKey>(withdraw.key));
  });
}

void Scenario::apply(const WithdrawAllOperation& withdraw) {
  withDatabase(withdraw.database, [&]<class Db>() { agent_.store().requestDelAll<Db>(withdraw.feature); });
}

void Scenario::apply(const RemoveFeatureOperation& remove) {
  agent_.store().removeFeature(remove.feature);
}
void Scenario::apply(const AddFeatureOperation& add) {
  agent_.store().addFeature(add.feature);
}
void Scenario::apply(const VlanDomainsOperation& vlanDomains) {
  VlanDomainService& service = agent_.vlanDomains();
  if (vlanDomains.insideCall) service.insideCallIs(*vlanDomains.insideCall);
  VlanDomainLimits limits = vlanDomains.limits.value_or(service.limits());
  limits.perTcam = vlanDomains.perTcam.value_or(service.limits().perTcam);
  if (vlanDomains.limits || vlanDomains.perTcam) service.limitsAre(limits);
  service.modeIs(vlanDomains.mode);
}

void Scenario::requireManualDomains() const {
  if (agent_.vlanDomains().mode() == VlanDomainService::Mode::manual) return;
  throw InputError(
      R"(VLAN domains are allotted automatically; {"op":"vlanDomains","mode":"manual"} must come first)");
}

void Scenario::apply(const AllotOperation& allot) {
  requireManualDomains();
  agent_.vlanDomains().allot(allot.interface, allot.vlanDomain);
}

void Scenario::apply(const RevokeOperation& revoke) {
  requireManualDomains();
  agent_.vlanDomains().revoke(revoke.interface);
}

void Scenario::apply(const ShareOperation& share) {
  agent_.vlanDomains().share(share.intfId, share.withIntfId, share.systemTcamId);
}

void Scenario::apply(const TableOperation& operation) {
  SoftTable& table = agent_.chip().table(operation.table);
  if (operation.capacity) table.capacityIs(*operation.capacity);
  if (operation.insideCall) table.answerInsideCallIs(*operation.insideCall);
  if (operation.applies) table.appliesIs(*operation.applies);
  if (operation.answer) table.answerModeIs(*operation.answer);
}

void Scenario::apply(const AnswerOperation& answer) {
  if (!answer.now) settle();  // published requests must have reached the table
  agent_.chip().table(answer.table).answer(answer.order, answer.count, answer.skip);
}

void Scenario::apply(const ExternalUserOperation& external) {
  auto& users = agent_.externalUsers().user();
  if (external.user.usage.empty()) {
    users.del(external.name);
  } else {
    users.is(external.name, external.user);
  }
}

void Scenario::requireProfile(std::optional<std::uint32_t> profile) const {
  if (!profile || agent_.chip().mdbStatus()->profile().has(*profile)) return;
  throw InputError(fmt::format("the chip has no profile {}", *profile));
}

void Scenario::apply(const AddFapOperation& add) {
  requireProfile(add.fap.profile);
  KilnPlatform::forEachIn(agent_.chip().chipStatus()->fap(), [&](const auto& fapId, const auto& info) {
    if (fapId == add.fap.fapId) throw InputError(fmt::format("there is a FAP {} already", fapId.number()));
    if (info.name == add.fap.info.name) {
      throw InputError(fmt::format("there is a FAP named {} already", info.name));
    }
  });
  agent_.chip().addFap(add.fap);
}

void Scenario::apply(const RemoveFapOperation& remove) {
  agent_.chip().removeFap(remove.fapId);
}

void Scenario::apply(const ProfileOperation& profile) {
  requireProfile(profile.profile);
  if (!agent_.chip().chipStatus()->fap().has(profile.fapId)) {
    throw InputError(fmt::format("there is no FAP {}", profile.fapId.number()));
  }
  agent_.chip().profileIs(profile.fapId, profile.profile);
}

void Scenario::apply(const SettleOperation& /*settle*/) {
  settle();
}
void Scenario::apply(const RunOperation& run) {
  interleave_ = false;
  agent_.scheduler().run(run.tasks);
}
void Scenario::apply(const SliceOperation& slice) {
  interleave_ = false;
  KilnPlatform::Task* found = nullptr;
  agent_.scheduler().forEachReady([&](KilnPlatform::Task& task) {
    if (task.name() == slice.task && task.instance() == slice.instance) found = &task;
  });
  if (found == nullptr) throw InputError(fmt::format("no task \"{}\" is ready", slice.task));
  EveryItems policy(slice.items);
  agent_.chip().refusedIs(slice.refused);
  agent_.scheduler().runSlice(*found, &policy);
  agent_.chip().refusedIs(std::nullopt);
}
void Scenario::apply(const RestartOperation& /*restart*/) {
  agent_.restart();
}
void Scenario::apply(const CommitOperation& /*commit*/) {
  agent_.store().commit();
}
void Scenario::apply(const CrashOperation& crash) {
  agent_.crash(crash.lost);
}

void Scenario::apply(const WatchOperation& /*watch*/) {
  touched_.emplace(agent_.store(), agent_.chip());
}

const TouchRecord& Scenario::requireTouched() const {
  if (!touched_) throw InputError(R"(nothing is watched; {"op":"watch"} must come first)");
  if (touched_->overflowed()) {
    throw InputError(
        fmt::format("more than {} statuses and entries were touched since the last watch; what "
                    "was touched is not known any more",
                    TouchRecord::kMost));
  }
  return *touched_;
}

void Scenario::apply(const ExpectOperation& expect) {
  if (!expect.now) settle();
  const bool touched =
      expect.untouched && requireTouched().status(expect.feature, expect.database, expect.key);
  ++counters_.expects;
  const std::optional<StatusRecord> found = findStatus(agent_.store(), expect);
  if (holds(expect, found) && !touched) return;
  expectationFailed(
      fmt::format("{} {}", requestName(expect.feature, expect.database, expect.key),
                  expect.absent ? "absent" : statusText(expect.status, expect.requestVersion, expect.result)),
      found ? statusText(found->status, found->requestVersion, found->result) : "absent", touched);
}

void Scenario::apply(const ExpectTableOperation& expect) {
  if (!expect.now) settle();
  const bool touched = expect.untouched && requireTouched().entry(expect.key.emResolvedKey);
  ++counters_.expects;
  const std::optional<EmEntry> found = findEntry(agent_.chip(), expect);
  if (found == expect.entry && !touched) return;
  const auto text = [](const std::optional<EmEntry>& entry) {
    return entry ? toJson(*entry).dump() : std::string("absent");
  };
  expectationFailed(fmt::format("{} {} {}", agent_.chip().table(expect.table).stem(),
                                keyToJson(expect.key, &EmHwKey::emResolvedKey).dump(), text(expect.entry)),
                    text(found), touched);
}

void Scenario::expectationFailed(const std::string& expected, const std::string& found, bool touched) {
  ++counters_.failedExpects;
  sayHere(fmt::format("expected {}{}, found {}{}", expected, touched ? " untouched" : "", found,
                      touched ? ", touched" : ""));
}

void Scenario::sayHere(std::string_view text) const {
  if (say_) say_(name_.empty() ? std::string(text) : fmt::format("{}:{}: {}", name_, lineNumber_, text));
}

}  // namespace KilnAgent
