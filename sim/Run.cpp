#include "sim/Run.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <type_traits>

#include "kiln/agent/io/InputError.h"
#include "kiln/platform/DependencyStatus.h"
#include "kiln/server/KilnEmServer.h"
#include "sim/CapacityCount.h"
#include "sim/Recompute.h"

namespace KilnSim {
namespace {

using namespace KilnAgent;
using Mode = SoftTable::AnswerMode;

/// One in so many moments is also compared in the form of the dump.
constexpr std::uint64_t kDumpEvery = 64;
/// Runs of tasks in which the server must become quiet: a fixed number, and a number for each request and
/// each change since it was quiet. Measured need: about a sixth of it, with slices of a single item.
constexpr std::size_t kTasksToQuiet = 4000;
constexpr std::size_t kTasksPerInput = 400;

template <class T, class... Others>
constexpr bool kIsOneOf = (std::is_same_v<T, Others> || ...);

/// Operations that are not themselves changes.
template <class T>
constexpr bool kChangesNothing = kIsOneOf<T, SettleOperation, RunOperation, SliceOperation, AnswerOperation,
                                          RestartOperation, CommitOperation, CrashOperation, WatchOperation>;
/// Operations that make several changes, one after the other: in between, other requests may win than before
/// and after. A VLAN domain does so as well, since it moves several keys.
template <class T>
constexpr bool kChangesSeveral = kIsOneOf<T, VlanDomainsOperation, ShareOperation, AllotOperation,
                                          RevokeOperation, WithdrawAllOperation, RemoveFeatureOperation>;

AgentOptions optionsOf(const Plan& plan, const Ref<Marks>& marks, bool all) {
  AgentOptions options = agentOptions(plan);
  options.traces.sink = marks;
  options.traces.level = all ? 9 : 0;
  return options;
}

}  // namespace

Run::Run(const Plan& plan, Tally& tally, Marks* marks)
    : tally_(tally),
      marks_(marks != nullptr ? Ref<Marks>(Ref<Marks>(), marks) : std::make_shared<Marks>()),
      agent_(optionsOf(plan, marks_, marks != nullptr)),
      scenario_(agent_, false, plan.seed, {}),
      watch_(agent_) {
  for (const auto& node : agent_.server().graph().nodes) stageNames_.insert(node.stage);
  watch_.quiet({}, {}, {}, true);
}

/// False if the agent's state did not allow the operation.
bool Run::execute(const Operation& operation) {
  const bool done = std::visit([this](const auto& specific) { return executeOne(specific); }, operation);
  noteObserved();
  return done;
}

void Run::runSlice(KilnPlatform::Task& task, KilnPlatform::YieldPolicy& policy,
                   std::optional<std::uint32_t> refused) {
  agent_.chip().refusedIs(refused);
  agent_.scheduler().runSlice(task, &policy);
  agent_.chip().refusedIs(std::nullopt);
  noteObserved();
}

void Run::noteObserved() {
  note(watch_.takeWrong());
  note(marks_->takeUnexpected());
}

void Run::finish(Verdict& verdict) {
  tally_.tasks += agent_.scheduler().counters().slices;
  tally_.faults += watch_.refusals();
  verdict.wrong = wrong_;
  verdict.expected = std::move(expected_);
  for (Operation& untouched : watch_.takeExpected()) verdict.expected.push_back(std::move(untouched));
  verdict.digests = std::move(digests_);
  verdict.digests.push_back(watch_.digest());
}

template <class T>
bool Run::executeOne(const T& operation) {
  constexpr bool kServerGoes = kIsOneOf<T, RestartOperation, CrashOperation>;
  if constexpr (std::is_same_v<T, SettleOperation>) {
    settle();
    return true;
  }
  if constexpr (std::is_same_v<T, AnswerOperation>) {
    if (!operation.now) settle();
  }
  if (!kChangesNothing<T>) watch_.changes(kChangesSeveral<T> ? 2 : 1);
  if constexpr (std::is_same_v<T, TableOperation>) watch_.makesRoom(operation.table);
  if constexpr (kIsOneOf<T, VlanDomainsOperation, ShareOperation>) watch_.allotsByHand();
  if constexpr (std::is_same_v<T, RemoveFeatureOperation>) watch_.featureGoes(operation.feature);
  if constexpr (std::is_same_v<T, CrashOperation>) {
    watch_.serverEnds(operation.lost);
  } else if constexpr (kServerGoes) {
    watch_.serverEnds(false);
  }
  bool allowed = true;
  try {
    scenario_.execute(operation);
  } catch (const InputError&) {
    allowed = false;
  }
  if constexpr (kServerGoes) {
    ++tally_.restarts;
    watch_.serverBegins();
  }
  countFault(operation);
  return allowed;
}

template <class T>
void Run::countFault(const T& operation) {
  if constexpr (kIsOneOf<T, CrashOperation, RevokeOperation, RemoveFeatureOperation, RemoveFapOperation>) {
    ++tally_.faults;
  } else if constexpr (std::is_same_v<T, TableOperation>) {
    if (operation.answer && *operation.answer != Mode::success) ++tally_.faults;
  }
}

/// Runs until nothing is pending, and judges. The number of runs is limited in proportion to the work.
void Run::settle() {
  const std::size_t requests = wantedOf(agent_).requests.size();
  const std::size_t bound = kTasksToQuiet + kTasksPerInput * (requests + watch_.inputs());
  agent_.scheduler().run(bound);
  if (!agent_.scheduler().idle()) {
    note(fmt::format("not quiet after {} tasks, with {} requests\n", bound, requests));
    return;
  }
  judge();
}

void Run::judge() {
  ++tally_.quiet;
  digests_.push_back(watch_.digest());
  Wanted wanted = wantedOf(agent_);
  wanted.refused = [this](const EmResolvedKey& key, const EmEntry& entry) {
    return watch_.refused(key, entry);
  };
  Outcome found = outcomeOf(agent_);
  Outcome expected = recompute(wanted);
  const bool answered = allAnswered();
  watch_.quiet(wanted, expected, found, answered);
  setAsideUnanswered(wanted, expected, found);
  const std::string differs = difference(expected, found);
  if (!differs.empty()) expect(expected, found);
  note(differs);
  note(domainsWronglyAllotted(wanted, found));
  note(incomplete());
  note(capacityDifference(agent_, tally_.quiet % kDumpEvery == 0));
  if (!answered) return;
  if (wanted.requests.empty()) note(leftovers());
}

bool Run::allAnswered() const {
  bool answered = true;
  agent_.chip().forEachTable([&](const SoftTable& table) { answered = answered && table.held() == 0; });
  return answered;
}

/// A key for which a table owes an answer may show an earlier status, and keep a domain.
void Run::setAsideUnanswered(const Wanted& wanted, Outcome& expected, Outcome& found) {
  if (!agent_.server().isComplete("reconcileCompleteSmStage")) {
    expected.domainsAsked.insert(found.domainsAsked.begin(), found.domainsAsked.end());
  }
  for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
    const TableTag tag = type.tag;
    if (tableOf(tag).held() == 0) continue;
    ++tally_.faults;
    const auto ofType = [&](const auto& row) {
      return std::get<2>(row.first).emComposerKey.tag() == type.composerType;
    };
    for (const auto& row : found.statuses) {
      if (ofType(row) && !wanted.requests.contains(row.first)) note("a status without a request\n");
    }
    std::erase_if(expected.statuses, ofType);
    std::erase_if(found.statuses, ofType);
    const auto inTable = [&](const auto& row) { return row.first.tag() == tag; };
    if (tableOf(tag).hasUnapplied()) {
      std::erase_if(expected.tables, inTable);
      std::erase_if(found.tables, inTable);
    }
    expected.resources.erase(tag);
    found.resources.erase(tag);
    if (needsDomain(tag)) expected.domainsAsked.insert(found.domainsAsked.begin(), found.domainsAsked.end());
  }
}

/// Automatic allotment gives each request a domain while one is free, and allots no other domain.
std::string Run::domainsWronglyAllotted(const Wanted& wanted, const Outcome& found) const {
  if (agent_.vlanDomains().mode() == VlanDomainService::Mode::manual) return "";
  const VlanDomainLimits limits = agent_.vlanDomains().limits();
  std::string wrong;
  for (const auto& asked : found.domainsAsked) {
    if (wanted.domains.contains(asked)) continue;
    std::set<std::uint32_t> free;
    for (std::uint32_t domain = limits.first; domain <= limits.last; ++domain) free.insert(domain);
    for (const auto& [interface, domain] : wanted.domains) {
      if (!limits.perTcam || interface.systemTcamId == asked.systemTcamId) free.erase(domain);
    }
    if (!free.empty()) wrong += fmt::format("{} waits though {} is free\n", asked, *free.begin());
  }
  for (const auto& [interface, domain] : wanted.domains) {
    if (!found.domainsAsked.contains(interface)) {
      wrong += fmt::format("{} has {} unasked\n", interface, domain);
    }
  }
  return wrong;
}

/// The stages that wait for the completion of reconciliation, directly or indirectly, and that stage itself.
std::set<std::string> Run::afterReconciliation() const {
  std::set<std::string> names = {"reconcileCompleteSmStage"};
  const auto graph = agent_.server().graph();
  for (std::size_t before = 0; before != names.size();) {
    before = names.size();
    for (const auto& node : graph.nodes) {
      if (std::any_of(node.waitsForStages.begin(), node.waitsForStages.end(),
                      [&](const std::string& gate) { return names.contains(gate); })) {
        names.insert(node.stage);
      }
    }
  }
  return names;
}

/// Exactly the stages of the graph must be complete. The completion of reconciliation waits for every answer.
std::string Run::incomplete() const {
  std::set<std::string> missing = stageNames_;
  std::string wrong;
  KilnPlatform::forEachIn(agent_.server().dependencyStatus().completed(),
                          [&](const std::string& stage, const KilnPlatform::Unit&) {
                            if (missing.erase(stage) == 0) wrong += fmt::format("{} is complete\n", stage);
                          });
  if (agent_.chip().status()->pendingHwWrites() && missing.contains("reconcileCompleteSmStage")) {
    for (const std::string& stage : afterReconciliation()) missing.erase(stage);
  }
  for (const std::string& stage : missing) wrong += fmt::format("{} is not complete\n", stage);
  return wrong;
}

std::string Run::leftovers() const {
  std::string wrong;
  for (const auto& [name, size] : agent_.server().leftovers()) {
    if (size != 0) wrong += fmt::format("left over: {} of {}\n", size, name);
  }
  return wrong;
}

/// Records the required statuses and tables as expectations of a scenario.
void Run::expect(const Outcome& expected, const Outcome& found) {
  for (const auto& [place, seen] : expected.statuses) {
    const auto at = found.statuses.find(place);
    if (at != found.statuses.end() && at->second == seen) continue;
    const auto& [feature, database, key] = place;
    expected_.push_back(ExpectOperation{feature, database, key, seen.status, seen.requestVersion, seen.result,
                                        false, true, false});
  }
  for (const auto& [place, seen] : found.statuses) {
    if (expected.statuses.contains(place)) continue;
    const auto& [feature, database, key] = place;
    expected_.push_back(ExpectOperation{feature, database, key, {}, {}, {}, true, true, false});
  }
  const auto expectEntry = [&](const EmResolvedKey& key, const std::optional<EmEntry>& entry) {
    expected_.push_back(ExpectTableOperation{key.tag(), hwKeyOf(key), entry, true, false});
  };
  for (const auto& [key, entry] : expected.tables) {
    const auto at = found.tables.find(key);
    if (at == found.tables.end() || at->second != entry) expectEntry(key, entry);
  }
  for (const auto& [key, entry] : found.tables) {
    if (!expected.tables.contains(key)) expectEntry(key, std::nullopt);
  }
}

Verdict run(const Plan& plan, Tally& tally, Marks* marks,
            const std::function<void(std::size_t step)>& progress) {
  Run run(plan, tally, marks);
  Verdict verdict;
  for (std::size_t at = 0; at < plan.operations.size() && !run.failed(); ++at) {
    const Operation& operation = plan.operations[at];
    verdict.at = at;
    if (!std::holds_alternative<RunOperation>(operation)) {
      ++verdict.step;
      ++tally.steps;
    }
    if (progress) progress(at);
    if (!run.execute(operation)) verdict.idle.push_back(at);
  }
  run.finish(verdict);
  return verdict;
}

}  // namespace KilnSim
