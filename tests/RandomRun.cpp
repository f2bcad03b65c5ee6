#include "tests/RandomRun.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <random>
#include <set>
#include <sstream>
#include <string_view>
#include <type_traits>
#include <utility>

#include "agent/Dump.h"
#include "agent/Scenario.h"
#include "server/KilnEmServerSm.h"
#include "tests/CapacityCount.h"
#include "tests/Recompute.h"

namespace KilnTests {
namespace {

using namespace KilnAgent;
using namespace KilnTunnelNiLib;
using KilnEmServer::EmComposerKey;

constexpr int kTableTypes = 8;

/// Counts messages by their text, and keeps those that must never come.
class TallySink final : public KilnPlatform::TraceSink {
 public:
  TallySink(Tally& tally, std::string* trace) : tally_(tally), trace_(trace) {}
  void write(const KilnPlatform::TraceRecord& record) override {
    const std::string_view text = record.descriptor.text;
    if (text == "another write in-flight") ++tally_.staleAnswers;
    if (text.find("yielding after {} iterations") != std::string_view::npos) ++tally_.scanPauses;
    if (text == "{}: key {} left out: {}") unexpected_ += fmt::format("{}\n", record.message);
    if (trace_ != nullptr) {
      *trace_ += fmt::format("{} {} {}\n", record.descriptor.level, record.stage, record.message);
    }
  }
  [[nodiscard]] const std::string& unexpected() const { return unexpected_; }

 private:
  Tally& tally_;
  std::string* trace_;
  std::string unexpected_;
};

/// Draws operations over few keys, so that they meet.
class Draw {
 public:
  explicit Draw(const RunSetting& setting) : setting_(setting), random_(setting.seed) {
    // Some runs spread over many keys, some press a few very hard.
    types_ = 1 + below(3);
    features_ = 2 + below(7);
    interfaces_ = 1 + below(3);
    systemTcams_ = 1 + below(2);
    otherTypes_ = pick<std::size_t>({8, 50});
    for (auto& type : pool_) type = static_cast<int>(1 + below(kTableTypes));
    const auto weight = [&](std::size_t least, std::size_t most) { return least + below(most - least + 1); };
    weights_ = {weight(10, 40), weight(4, 20), weight(8, 20), weight(2, 30),
                weight(1, 10),  weight(2, 20), weight(2, 10), weight(1, 8)};
  }

  std::vector<Step> steps() {
    std::vector<Step> steps;
    add(steps, setting_.domainsAutomatic ? scarceDomains() : manualDomains());
    while (steps.size() < setting_.steps) add(steps, operation());
    add(steps, SettleOperation{});
    return steps;
  }

 private:
  std::size_t below(std::size_t bound) { return randomBelow(random_, bound); }
  bool oneIn(std::size_t n) { return below(n) == 0; }
  template <class T>
  T pick(std::initializer_list<T> values) {
    return values.begin()[below(values.size())];
  }

  void add(std::vector<Step>& steps, Operation operation) {
    steps.push_back({std::move(operation), oneIn(2) ? 0 : below(setting_.yieldEvery == 0 ? 12 : 60)});
  }

  FeatureType feature() {
    return static_cast<FeatureType>(1 + below(oneIn(3) ? features_ : std::min<std::size_t>(features_, 3)));
  }
  IntfIdSystemTcamId interface() {
    return {1 + below(interfaces_), static_cast<std::uint16_t>(below(systemTcams_))};
  }
  int type() { return oneIn(otherTypes_) ? static_cast<int>(1 + below(kTableTypes)) : pool_[below(types_)]; }
  TableTag table() { return static_cast<TableTag>(type()); }

  template <class T>
  T small(std::size_t bound, std::initializer_list<T> rare) {
    return oneIn(24) ? pick(rare) : static_cast<T>(below(bound));
  }

  EmComposerKey composerKey(int type) {
    const IntfIdSystemTcamId at = interface();
    const auto vlan = [&] { return small<std::uint16_t>(2, {4095, 4096}); };
    switch (type) {
      case 1:
        return IsemUntaggedComposerKey{at.intfId, at.systemTcamId};
      case 2:
        return Isem1TagComposerKey{at.intfId, at.systemTcamId, vlan()};
      case 3: {
        const auto outer = vlan();
        return Isem2TagComposerKey{at.intfId, at.systemTcamId, outer, vlan()};
      }
      case 4:
        return IsemInnerEthComposerKey{static_cast<std::uint16_t>(below(3)),
                                       static_cast<std::uint8_t>(below(2))};
      case 5:
        return IsemMplsComposerKey{static_cast<std::uint32_t>(below(3)), static_cast<std::uint8_t>(below(2))};
      case 6:
        return EsemFodoVdComposerKey{at.intfId, at.systemTcamId, small<std::uint32_t>(2, {0x3ffff, 0x40000})};
      case 7:
        return EsemFodoComposerKey{small<std::uint32_t>(4, {0x3ffff, 0x40000})};
      default: {
        const auto inLif = small<std::uint32_t>(3, {0xfffff, 0x100000});
        const auto outer = vlan();
        const auto inner = vlan();
        return LemVpwsAcComposerKey{inLif, outer, inner, small<std::uint8_t>(1, {7, 8}), 0};
      }
    }
  }

  EmEntry entry(int type) {
    return EmEntry::make(static_cast<KilnEmServer::EmEntryUnionTag>(type), [&](auto& entry) {
      if constexpr (requires { entry.lif; }) entry.lif = static_cast<std::uint32_t>(below(3));
      if constexpr (requires { entry.vsi; }) entry.vsi = static_cast<std::uint16_t>(below(2));
      if constexpr (requires { entry.outLif; }) entry.outLif = static_cast<std::uint32_t>(below(4));
    });
  }

  EmRequestKey requestKey(int type) {
    EmRequestKey key{Hardware::Kiln::FapId::allFap(), Hardware::Kiln::LocalCoreId::all(), composerKey(type)};
    if (oneIn(8)) {
      key.fapId = Hardware::Kiln::FapId(below(2));
      key.localCoreId = Hardware::Kiln::LocalCoreId(below(2));
    }
    return key;
  }

  static EmType databaseOf(int type) {
    return type == 8 ? EmType::lem : type == 6 || type == 7 ? EmType::esem : EmType::isem;
  }

  PublishOperation publish() {
    const int number = type();
    PublishOperation publish{feature(),
                             databaseOf(number),
                             requestKey(number),
                             entry(oneIn(40) ? 1 + static_cast<int>(below(8)) : number),
                             static_cast<std::uint32_t>(below(4)),
                             RequestKind::add,
                             oneIn(3)};
    if (oneIn(6)) publish.requestKind = oneIn(2) ? RequestKind::hold : RequestKind::modify;
    published_.push_back(publish);
    return publish;
  }

  static VlanDomainsOperation manualDomains() {
    return {.mode = VlanDomainService::Mode::manual, .limits = {}};
  }

  VlanDomainsOperation scarceDomains() {
    const auto first = static_cast<std::uint16_t>(below(3));
    const auto last = static_cast<std::uint16_t>(first + below(2));
    return {.mode = VlanDomainService::Mode::automatic, .limits = VlanDomainLimits{first, last}};
  }

  Operation domainOperation() {
    if (setting_.domainsAutomatic && oneIn(2)) {
      if (oneIn(8)) return manualDomains();
      if (oneIn(3)) return ShareOperation{1 + below(3), 1 + below(3), static_cast<std::uint16_t>(below(2))};
      return scarceDomains();
    }
    // Few domains, so that interfaces share them; some do not fit the ingress keys, one not any.
    if (!oneIn(3))
      return AllotOperation{interface(), pick<std::uint16_t>({1, 1, 1, 2, 2, 3, 511, 512, 2047, 2048})};
    return RevokeOperation{interface()};
  }

  /// A key that is published in a database other than its own, and never in its own. The server takes no
  /// notice of it, so that a status which it once had, being held, would stay: it is never held.
  PublishOperation misplaced() {
    const EmRequestKey key{Hardware::Kiln::FapId::allFap(), Hardware::Kiln::LocalCoreId::all(),
                           IsemMplsComposerKey{static_cast<std::uint32_t>(900 + below(2)), 0}};
    PublishOperation publish{
        feature(), oneIn(2) ? EmType::lem : EmType::esem, key, entry(5), 1, RequestKind::add, true};
    published_.push_back(publish);
    return publish;
  }

  /// What was published before, changed in one respect.
  PublishOperation again() {
    PublishOperation publish = published_[below(published_.size())];
    switch (below(4)) {
      case 0:
        publish.entry = entry(static_cast<int>(publish.entry.tag()));
        break;
      case 1:
        if (databaseOf(static_cast<int>(publish.key.emComposerKey.tag())) != publish.database) break;
        publish.requestKind = oneIn(2) ? RequestKind::hold : RequestKind::add;
        break;
      case 2:
        publish.feature = feature();
        break;
      default:
        ++publish.requestVersion;
        break;
    }
    published_.push_back(publish);
    return publish;
  }

  Operation operation() {
    std::size_t total = 0;
    for (const std::size_t weight : weights_) total += weight;
    std::size_t draw = below(total);
    std::size_t kind = 0;
    while (draw >= weights_[kind]) draw -= weights_[kind++];
    if (kind == 0 || published_.empty()) return oneIn(40) ? misplaced() : publish();
    switch (kind) {
      case 1:
        return again();
      case 2: {
        const PublishOperation& gone = published_[below(published_.size())];
        return WithdrawOperation{gone.feature, gone.database, gone.key};
      }
      case 3:
        return domainOperation();
      case 4:
        return RevokeOperation{interface()};
      case 5:
        return tableOperation();
      case 6:
        return SettleOperation{};
      default:
        return rareOperation();
    }
  }

  Operation tableOperation() {
    using Mode = SoftTable::AnswerMode;
    const TableTag tag = table();
    if (setting_.tablesHold && oneIn(2)) {
      return AnswerOperation{tag, oneIn(2) ? SoftTable::Order::fifo : SoftTable::Order::lifo, 1 + below(4)};
    }
    if (setting_.tablesHold && oneIn(2)) return TableOperation{tag, Mode::hold, {}};
    if (setting_.tablesRefuse && oneIn(2)) return TableOperation{tag, Mode::refuse, {}};
    return TableOperation{tag, Mode::success, {}};
  }

  Operation rareOperation() {
    switch (below(6)) {
      case 0:
        return WithdrawAllOperation{feature(), static_cast<EmType>(below(3))};
      case 1:
        return RemoveFeatureOperation{feature()};
      case 2:
      case 3:
        return AddFeatureOperation{feature()};
      case 4:
        return RestartOperation{};
      default:
        return CrashOperation{};
    }
  }

  RunSetting setting_;
  std::mt19937_64 random_;
  std::array<int, 3> pool_{};
  std::size_t types_;
  std::size_t features_;
  std::size_t interfaces_;
  std::size_t systemTcams_;
  std::size_t otherTypes_;
  std::array<std::size_t, 8> weights_{};
  std::vector<PublishOperation> published_;
};

/// Operations that are for domains allotted by hand.
template <class T>
constexpr bool kByHand = std::is_same_v<T, AllotOperation> || std::is_same_v<T, RevokeOperation>;

/// Keeps which statuses changed.
class StatusChanges final : public StoreObserver {
 public:
  void handleStoreChange(const StoreChange& change) override {
    if (change.record != StoreChange::Record::status) return;
    text_ += fmt::format("status changed: {} {} {}\n", change.feature, change.database, change.key);
  }
  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  std::string text_;
};

/// One agent and what the runner knows of it.
class Run {
 public:
  Run(const RunSetting& setting, Tally& tally)
      : setting_(setting),
        tally_(tally),
        sink_(std::make_shared<TallySink>(tally, setting.trace)),
        agent_(optionsOf(setting, sink_)),
        scenario_(agent_, false, setting.seed, {}) {
    if (setting.answersInsideCall) {
      for (int type = 1; type <= kTableTypes; type += 2) tableOf(type).answerInsideCallIs(true);
    }
  }

  std::string execute(const Step& step) {
    return std::visit(
        [&]<class T>(const T& operation) {
          if constexpr (std::is_same_v<T, AnswerOperation>) {
            agent_.chip().table(operation.table).answer(operation.order, operation.count);
          } else if (!kByHand<T> || agent_.vlanDomains().mode() == VlanDomainService::Mode::manual) {
            if (std::is_same_v<T, RestartOperation> || std::is_same_v<T, CrashOperation>) serverGoes();
            scenario_.execute(operation);
            if constexpr (std::is_same_v<T, VlanDomainsOperation>)
              limits_ = operation.limits.value_or(limits_);
          }
          noteRefusals();
          if (std::is_same_v<T, SettleOperation>) return quiet();
          agent_.scheduler().run(step.slicesAfter);
          return std::string();
        },
        step.operation);
  }

  /// Withdraws everything and lets every answer go: then nothing may be left.
  std::string finish() {
    for (int type = 1; type <= kTableTypes; ++type)
      tableOf(type).answerModeIs(SoftTable::AnswerMode::success);
    KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
      KilnPlatform::forEachEnumValue<EmType>([&](EmType database) {
        scenario_.execute(WithdrawAllOperation{feature, database});
      });
    });
    agent_.settle();
    std::string wrong = quiet();
    for (const auto& [name, size] : agent_.server().leftovers()) {
      if (size != 0) wrong += fmt::format("left over: {} of {}\n", size, name);
    }
    serverGoes();
    return wrong;
  }

  /// What a restart of the quiet server changes.
  std::string restart(bool crash) {
    const std::string before = dumpWithoutHardware(agent_);
    const HardwareCounters countersBefore = agent_.chip().counters();
    StatusChanges changes;
    agent_.store().observerIs(changes);
    crash ? agent_.crash() : agent_.restart();
    agent_.settle();
    agent_.store().observerDel(changes);
    std::string wrong = changes.text();
    const HardwareCounters counters = agent_.chip().counters();
    if (counters.written != countersBefore.written || counters.removed != countersBefore.removed) {
      wrong += fmt::format("{} entries written, {} removed\n", counters.written - countersBefore.written,
                           counters.removed - countersBefore.removed);
    }
    if (dumpWithoutHardware(agent_) != before) wrong += "another dump\n";
    return wrong + quiet();
  }

  FinalState finalState() {
    FinalState state;
    const Outcome outcome = outcomeOf(agent_);
    for (const auto& [place, seen] : outcome.statuses) {
      const auto& [feature, database, key] = place;
      state.outcome += fmt::format("{} {} {} {} {} {}\n", feature, database, key, seen.status,
                                   seen.requestVersion, seen.result);
    }
    for (const auto& [key, entry] : outcome.tables) state.outcome += fmt::format("{} {}\n", key, entry);
    for (const auto& interface : outcome.domainsAsked) state.outcome += fmt::format("{}\n", interface);
    state.dump = dumpWithoutHardware(agent_);
    return state;
  }

 private:
  static AgentOptions optionsOf(const RunSetting& setting, const Ref<TallySink>& sink) {
    AgentOptions options;
    if (setting.shuffled) options.seed = setting.seed;
    options.yieldEvery = setting.yieldEvery;
    options.chip.faps[1].info.fapType = 3;
    if (setting.tablesRefuse) options.chip.tableSizes[1 + setting.seed % kTableTypes] = 2;
    options.traces.sink = sink;
    if (setting.trace != nullptr) {
      options.traces.level = 9;
      return options;
    }
    options.traces.stages = {{"swTableWriterSmStage", 8}, {"emStatusSmStage", 7}, {"SrvConfigSmStage", 7}};
    return options;
  }

  SoftTable& tableOf(int type) { return agent_.chip().table(static_cast<TableTag>(type)); }

  void serverGoes() {
    ++tally_.restarts;
    for (const KilnEmServer::Stage* stage : agent_.server().stages()) {
      tally_.coalesced += stage->coalescedChanges();
    }
    // The next server writes everything again.
    for (auto& refused : mayHaveRefused_) refused = false;
  }

  void noteRefusals() {
    for (int type = 1; type <= kTableTypes; ++type) {
      const SoftTable& table = tableOf(type);
      if (table.answerMode() == SoftTable::AnswerMode::refuse || table.capacity() < 100) {
        mayHaveRefused_[static_cast<std::size_t>(type)] = true;
      }
    }
  }

  /// Compares; what a table still owes an answer for may show an earlier status.
  std::string quiet() {
    ++tally_.quiet;
    Wanted wanted = wantedOf(agent_);
    Outcome found = outcomeOf(agent_);
    wanted.refused = [&](const EmResolvedKey& key) {
      return mayHaveRefused_[static_cast<std::size_t>(key.tag())] && !found.tables.contains(key);
    };
    Outcome expected = recompute(wanted);
    std::string wrong = sink_->unexpected();
    bool domainsOwed = false;
    for (int type = 1; type <= kTableTypes; ++type) {
      if (tableOf(type).held() == 0) continue;
      domainsOwed = domainsOwed || needsDomain(static_cast<TableTag>(type));
      wrong += setAsideStatuses(type, wanted, expected, found);
    }
    if (domainsOwed) {
      for (const auto& interface : expected.domainsAsked) {
        if (!found.domainsAsked.contains(interface)) wrong += fmt::format("not asked for: {}\n", interface);
      }
      expected.domainsAsked = found.domainsAsked;
    }
    wrong += difference(expected, found);
    wrong += domainsWronglyAllotted(wanted, found);
    wrong += capacityDifference(agent_);
    if (!agent_.server().dependencyStatus().completedHas("finalizeStartupStage")) {
      wrong += "quiet, but start-up is not finalized\n";
    }
    return wrong;
  }

  /// Automatic allotment serves whoever asks, as long as there is a free domain, and nobody else.
  std::string domainsWronglyAllotted(const Wanted& wanted, const Outcome& found) const {
    if (agent_.vlanDomains().mode() == VlanDomainService::Mode::manual) return "";
    std::string wrong;
    for (const auto& asked : found.domainsAsked) {
      if (wanted.domains.contains(asked)) continue;
      std::set<std::uint16_t> free;
      for (std::uint32_t domain = limits_.first; domain <= limits_.last; ++domain) {
        free.insert(static_cast<std::uint16_t>(domain));
      }
      for (const auto& [interface, domain] : wanted.domains) {
        if (interface.systemTcamId == asked.systemTcamId) free.erase(domain);
      }
      if (!free.empty()) wrong += fmt::format("{} waits though {} is free\n", asked, *free.begin());
    }
    for (const auto& [interface, domain] : wanted.domains) {
      if (!found.domainsAsked.contains(interface))
        wrong += fmt::format("{} has {} unasked\n", interface, domain);
    }
    return wrong;
  }

  static std::string setAsideStatuses(int type, const Wanted& wanted, Outcome& expected, Outcome& found) {
    std::string wrong;
    const auto ofType = [&](const auto& row) {
      return static_cast<int>(std::get<2>(row.first).emComposerKey.tag()) == type;
    };
    for (const auto& row : found.statuses) {
      if (ofType(row) && !wanted.requests.contains(row.first)) wrong += "a status without a request\n";
    }
    std::erase_if(expected.statuses, ofType);
    std::erase_if(found.statuses, ofType);
    return wrong;
  }

  RunSetting setting_;
  Tally& tally_;
  Ref<TallySink> sink_;
  EmbeddedAgent agent_;
  Scenario scenario_;
  VlanDomainLimits limits_;
  std::array<bool, kTableTypes + 1> mayHaveRefused_{};
};

}  // namespace

std::string dumpWithoutHardware(const EmbeddedAgent& agent) {
  std::istringstream lines(dumpText(agent));
  std::string dump;
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with("\"hardware\":")) dump += line + "\n";
  }
  return dump;
}

RunSetting settingOf(std::uint64_t seed) {
  constexpr std::uint32_t kYields[] = {1, 3, 0};
  RunSetting setting;
  setting.seed = seed;
  setting.yieldEvery = kYields[seed % 3];
  setting.shuffled = seed / 3 % 4 != 0;
  setting.answersInsideCall = seed % 5 == 0;
  setting.tablesRefuse = seed % 4 == 1;
  setting.tablesHold = seed % 2 == 1;
  setting.domainsAutomatic = seed % 7 == 0;
  return setting;
}

std::vector<Step> drawSteps(const RunSetting& setting) {
  return Draw(setting).steps();
}

std::string runSteps(const RunSetting& setting, const std::vector<Step>& steps, Tally& tally,
                     FinalState* finalState) {
  Run run(setting, tally);
  for (std::size_t i = 0; i < steps.size(); ++i) {
    if (const std::string wrong = run.execute(steps[i]); !wrong.empty()) {
      return fmt::format("seed {}, step {}:\n{}", setting.seed, i, wrong);
    }
  }
  if (finalState != nullptr) *finalState = run.finalState();
  const std::string wrong = run.finish();
  return wrong.empty() ? wrong : fmt::format("seed {}, after all was withdrawn:\n{}", setting.seed, wrong);
}

std::string restartAfter(const RunSetting& setting, const std::vector<Step>& steps, bool crash) {
  Tally tally;
  Run run(setting, tally);
  for (const Step& step : steps) {
    if (const std::string wrong = run.execute(step); !wrong.empty()) return wrong;
  }
  return run.restart(crash);
}

}  // namespace KilnTests
