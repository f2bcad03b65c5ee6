#include "sim/Plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <optional>
#include <random>
#include <utility>

#include "kiln/agent/io/InputError.h"
#include "kiln/agent/scenario/NumberedKey.h"
#include "sim/Recompute.h"

namespace KilnSim {
namespace {

using namespace KilnAgent;
using namespace KilnTunnelNiLib;
using KilnEmServer::EmComposerKey;

/// Draws operations over few keys, so that they collide.
class Draw {
 public:
  Draw(std::uint64_t seed, std::string_view profile) : random_(seed) {
    drawShape();
    drawWeights(profile.empty() ? kProfiles[below(kProfiles.size())] : profile);
  }

  Plan plan(std::uint64_t seed, std::size_t steps) {
    plan_.seed = seed;
    plan_.shuffled = !oneIn(5);
    plan_.yieldEvery = pick<std::uint32_t>({1, 1, 1, 2, 3, 8, 0, 0});
    domainsAutomatic_ = oneIn(5);
    plan_.operations.reserve(2 * steps + 50);
    add(RunOperation{0});  // from here on, the number of tasks between operations is explicit
    if (oneIn(8)) add(TableOperation{type(), std::nullopt, std::uint32_t{2}, std::nullopt});
    add(domainsAutomatic_ ? scarceDomains() : manualDomains());
    drawTables();
    for (std::size_t step = 0; step < steps; ++step) {
      add(operation());
      between();
    }
    withdrawEverything();
    return std::move(plan_);
  }

 private:
  std::size_t below(std::size_t bound) { return randomBelow(random_, bound); }
  bool oneIn(std::size_t n) { return below(n) == 0; }
  template <class T>
  T pick(std::initializer_list<T> values) {
    return values.begin()[below(values.size())];
  }

  void add(Operation operation) { plan_.operations.push_back(std::move(operation)); }

  /// Some runs use many keys, some use a few very often.
  void drawShape() {
    types_ = 1 + below(3);
    features_ = 2 + below(KilnPlatform::allEnumValues<FeatureType>().size() - 1);
    interfaces_ = 1 + below(3);
    systemTcams_ = 1 + below(2);
    otherTypes_ = pick<std::size_t>({8, 50});
    for (TableTag& type : pool_) type = anyType();
  }

  void drawWeights(std::string_view profile) {
    const auto weight = [&](std::size_t least, std::size_t most) { return least + below(most - least + 1); };
    weights_ = {weight(10, 40), weight(4, 20), weight(8, 20), weight(2, 30), weight(1, 10), weight(2, 20),
                weight(2, 10),  weight(1, 4),  weight(1, 4),  weight(1, 4),  weight(0, 2)};
    if (profile == "calm") calm_ = true;
    if (profile == "storm") storm_ = true;
    if (profile == "restart") weights_[kRestart] = 40;
    if (profile == "restart") weights_[kCommit] = 5;
    if (profile == "domains") weights_[kDomain] = 80;
    if (profile == "tables") weights_[kTable] = 60;
  }

  /// Some tables apply operations when they answer, or answer inside the call.
  void drawTables() {
    if (!oneIn(3)) return;
    for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
      if (oneIn(2)) add(appliesOperation(type.tag));
    }
  }
  TableOperation appliesOperation(TableTag tag) {
    using Applies = SoftTable::Applies;
    return {.table = tag,
            .answer = {},
            .capacity = {},
            .insideCall = {},
            .applies = oneIn(3) ? Applies::issued : Applies::answered};
  }

  /// Number of tasks before the next operation: usually too few to become quiet.
  void between() {
    if (calm_ && !oneIn(4)) return add(SettleOperation{});
    if (storm_ ? !oneIn(6) : oneIn(2)) return;
    const std::size_t most = plan_.yieldEvery == 0 ? 12 : oneIn(4) ? 300 : 40;
    add(RunOperation{1 + below(most)});
  }

  /// Afterwards nothing may be left.
  void withdrawEverything() {
    plan_.withdrawnFrom = plan_.operations.size();
    add(SettleOperation{});
    for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
      add(TableOperation{type.tag, SoftTable::AnswerMode::success, {}, {}});
    }
    KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
      KilnPlatform::forEachEnumValue<EmType>([&](EmType database) {
        add(WithdrawAllOperation{feature, database});
      });
    });
    add(SettleOperation{});
  }

  FeatureType feature() {
    return KilnPlatform::allEnumValues<FeatureType>()[below(oneIn(3) ? features_
                                                                     : std::min<std::size_t>(features_, 3))];
  }
  IntfIdSystemTcamId interface() {
    return {1 + below(interfaces_), static_cast<std::uint16_t>(below(systemTcams_))};
  }
  TableTag anyType() { return (KilnEmServer::kKeyTypeInfo.begin() + below(KilnEmServer::kKeyTypes))->tag; }
  TableTag type() { return oneIn(otherTypes_) ? anyType() : pool_[below(types_)]; }

  template <class T>
  T small(std::size_t bound, std::initializer_list<T> rare) {
    return oneIn(24) ? pick(rare) : static_cast<T>(below(bound));
  }

  EmComposerKey composerKey(TableTag type) {
    const IntfIdSystemTcamId at = interface();
    const auto vlan = [&] { return small<std::uint16_t>(2, {4095, 4096}); };
    switch (type) {
      case TableTag::isemUntaggedEntryKey:
        return IsemUntaggedComposerKey{at.intfId, at.systemTcamId};
      case TableTag::isem1TagEntryKey:
        return Isem1TagComposerKey{at.intfId, at.systemTcamId, vlan()};
      case TableTag::isem2TagEntryKey: {
        const auto outer = vlan();
        return Isem2TagComposerKey{at.intfId, at.systemTcamId, outer, vlan()};
      }
      case TableTag::isemInnerEthEntryKey:
        return IsemInnerEthComposerKey{static_cast<std::uint16_t>(below(3)),
                                       static_cast<std::uint8_t>(below(2))};
      case TableTag::isemMplsEntryKey:
        return IsemMplsComposerKey{static_cast<std::uint32_t>(below(3)), static_cast<std::uint8_t>(below(2))};
      case TableTag::esemFodoVdEntryKey:
        return EsemFodoVdComposerKey{at.intfId, at.systemTcamId, small<std::uint32_t>(2, {0x3ffff, 0x40000})};
      case TableTag::esemFodoEntryKey:
        return EsemFodoComposerKey{small<std::uint32_t>(4, {0x3ffff, 0x40000})};
      case TableTag::lemVpwsAcEntryKey: {
        const auto inLif = small<std::uint32_t>(3, {0xfffff, 0x100000});
        const auto outer = vlan();
        const auto inner = vlan();
        return LemVpwsAcComposerKey{inLif, outer, inner, small<std::uint8_t>(1, {7, 8}), 0};
      }
      default:
        return anyKey(type, at);
    }
  }

  /// A key of a type that has no draws of its own above: small fields, some at their limit or above it.
  EmComposerKey anyKey(TableTag type, const IntfIdSystemTcamId& at) {
    EmComposerKey drawn;
    KilnEmServer::visitKeyType(type, [&]<class Row>() {
      auto key = KilnAgent::numberedKey<Row>(0, at);
      KilnAgent::forEachKeyField<Row>(key, [&]<class Field>(Field& field, std::uint64_t greatest) {
        field = small<Field>(3, {static_cast<Field>(greatest), static_cast<Field>(greatest + 1)});
      });
      drawn = key;
    });
    return drawn;
  }

  EmEntry entry(TableTag type) {
    return EmEntry::make(KilnEmServer::entryTypeOf(type), [&](auto& entry) {
      if constexpr (requires { entry.lif; }) entry.lif = static_cast<std::uint32_t>(below(3));
      if constexpr (requires { entry.vsi; }) entry.vsi = static_cast<std::uint16_t>(below(2));
      if constexpr (requires { entry.outLif; }) entry.outLif = static_cast<std::uint32_t>(below(4));
    });
  }

  EmRequestKey requestKey(TableTag type) {
    EmRequestKey key{Hardware::Kiln::FapId::allFap(), Hardware::Kiln::LocalCoreId::all(), composerKey(type)};
    if (oneIn(8)) {
      key.fapId = Hardware::Kiln::FapId(below(2));
      key.localCoreId = Hardware::Kiln::LocalCoreId(below(2));
    }
    return key;
  }

  static EmType databaseOf(TableTag type) { return KilnEmServer::kKeyTypeInfo[type].database; }

  PublishOperation publish() {
    const TableTag tag = type();
    PublishOperation publish{feature(),
                             databaseOf(tag),
                             requestKey(tag),
                             entry(oneIn(40) ? anyType() : tag),
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
    VlanDomainsOperation domains{.mode = VlanDomainService::Mode::automatic,
                                 .limits = VlanDomainLimits{first, last}};
    if (oneIn(6)) domains.perTcam = oneIn(3);
    if (oneIn(3)) domains.insideCall = oneIn(2);
    return domains;
  }

  Operation domainOperation() {
    if (domainsAutomatic_ && oneIn(3)) {
      if (oneIn(8)) return manualDomains();
      if (oneIn(3)) return ShareOperation{1 + below(3), 1 + below(3), static_cast<std::uint16_t>(below(2))};
      return scarceDomains();
    }
    if (oneIn(3)) return RevokeOperation{interface()};
    // Few domains, so that interfaces share them; some do not fit the ingress keys, one not any.
    const auto domain = [&] { return pick<std::uint16_t>({1, 1, 1, 2, 2, 3, 511, 512, 2047, 2048}); };
    const AllotOperation allot{interface(), domain()};
    if (oneIn(6) && !published_.empty()) return thereAndBack(allot);
    // The domain changes and changes back, so that keys move while answers are outstanding.
    if (oneIn(2)) next_ = {allot, AllotOperation{allot.interface, domain()}};
    return allot;
  }

  /// Returns the first of these operations and queues the others.
  Operation sequence(std::vector<Operation> operations) {
    std::reverse(operations.begin(), operations.end());
    Operation first = std::move(operations.back());
    operations.pop_back();
    next_ = std::move(operations);
    return first;
  }

  /// A key moves and moves back while the table owes answers for both places. It may be refused at the new
  /// place.
  Operation thereAndBack(AllotOperation allot) {
    const PublishOperation& moved = published_[below(published_.size())];
    const auto interfaceOfMoved = KilnSim::interfaceOf(moved.key.emComposerKey);
    if (interfaceOfMoved) allot.interface = *interfaceOfMoved;
    const TableTag tag = interfaceOfMoved ? tagOf(moved) : type();
    const bool refused = oneIn(2);
    const auto capacity = [&](std::uint32_t entries) {
      return TableOperation{tag, {}, refused ? entries : 1000, {}};
    };
    const auto answer = [&] {
      const auto order = oneIn(3) ? SoftTable::Order::lifo : SoftTable::Order::fifo;
      return AnswerOperation{tag, order, oneIn(2) ? 1 : 1 + below(3), oneIn(4)};
    };
    std::vector<Operation> operations = {
        moved,
        allot,
        SettleOperation{},
        TableOperation{tag, SoftTable::AnswerMode::hold, {}, {}},
        capacity(0),
        AllotOperation{allot.interface, static_cast<std::uint16_t>(4 + below(3))},
        answer(),
        capacity(1000),
        allot};
    for (std::size_t i = below(4); i != 0; --i) operations.push_back(answer());
    operations.push_back(SettleOperation{});
    if (oneIn(2)) operations.push_back(TableOperation{tag, SoftTable::AnswerMode::success, {}, {}});
    return sequence(std::move(operations));
  }

  static TableTag tagOf(const PublishOperation& publish) {
    return KilnEmServer::tableTypeOf(publish.key.emComposerKey.tag());
  }

  EmType otherDatabase(EmType database) {
    std::vector<EmType> others;
    KilnPlatform::forEachEnumValue<EmType>([&](EmType each) {
      if (each != database) others.push_back(each);
    });
    return others[below(others.size())];
  }

  /// A request that the intake leaves out: in a database other than its key's, or for all chips but one core.
  /// Usually its key is also that of an admitted request.
  PublishOperation leftOut() {
    if (!published_.empty() && !oneIn(3)) {
      PublishOperation twin = published_[below(published_.size())];
      twin.feature = oneIn(2) ? twin.feature : feature();
      twin.database = otherDatabase(twin.database);
      twin.unchecked = true;
      published_.push_back(twin);
      return twin;
    }
    EmRequestKey key{Hardware::Kiln::FapId::allFap(), Hardware::Kiln::LocalCoreId::all(),
                     IsemMplsComposerKey{static_cast<std::uint32_t>(900 + below(2)), 0}};
    EmType database = oneIn(2) ? EmType::lem : EmType::esem;
    if (oneIn(2)) {
      key.localCoreId = Hardware::Kiln::LocalCoreId(below(2));
      database = EmType::isem;
    }
    PublishOperation publish{feature(), database,         key, entry(TableTag::isemMplsEntryKey),
                             1,         RequestKind::add, true};
    published_.push_back(publish);
    return publish;
  }

  /// An earlier request with one change.
  PublishOperation again() {
    PublishOperation publish = published_[below(published_.size())];
    switch (below(4)) {
      case 0:
        publish.entry = entry(KilnEmServer::tableTypeOf(publish.entry.tag()));
        break;
      case 1:
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
    if (!next_.empty() && !oneIn(4)) {
      Operation operation = std::move(next_.back());
      next_.pop_back();
      return operation;
    }
    std::size_t total = 0;
    for (const std::size_t weight : weights_) total += weight;
    std::size_t draw = below(total);
    std::size_t kind = 0;
    while (draw >= weights_[kind]) draw -= weights_[kind++];
    if (kind == kPublish || published_.empty()) return oneIn(40) ? leftOut() : publish();
    switch (kind) {
      case kAgain:
        return again();
      case kWithdraw: {
        const PublishOperation& withdrawn = published_[below(published_.size())];
        return WithdrawOperation{withdrawn.feature, withdrawn.database, withdrawn.key};
      }
      case kDomain:
        return domainOperation();
      case kRevoke:
        return RevokeOperation{interface()};
      case kTable:
        return tableOperation();
      case kSettle:
        return SettleOperation{};
      case kFeature:
        return featureOperation();
      case kRestart:
        return restartOperation();
      case kHardware:
        return hardwareOperation();
      default:
        return CommitOperation{};
    }
  }

  Operation restartOperation() {
    Operation restart = oneIn(2) ? Operation(RestartOperation{}) : Operation(CrashOperation{oneIn(4)});
    if (oneIn(3)) {
      // Only restarts between two quiet moments.
      next_ = {SettleOperation{}, restart};
      if (oneIn(3)) next_.insert(next_.begin() + 1, CrashOperation{false});
      return SettleOperation{};
    }
    // Removes it, and possibly adds it again, while the server restarts.
    next_.clear();
    if (oneIn(3)) {
      // Many changes without a task in between, at some moment of the restart.
      for (std::size_t i = 2 + below(8); i != 0; --i) {
        const PublishOperation& back = published_[below(published_.size())];
        next_.push_back(back);
        next_.push_back(WithdrawOperation{back.feature, back.database, back.key});
      }
      next_.push_back(RunOperation{below(plan_.yieldEvery == 0 ? 60 : 600)});
      return restart;
    }
    for (std::size_t i = below(4); i != 0; --i) {
      const PublishOperation& back = published_[below(published_.size())];
      if (oneIn(2)) next_.push_back(back);
      next_.push_back(WithdrawOperation{back.feature, back.database, back.key});
    }
    if (oneIn(4)) next_.push_back(WithdrawAllOperation{feature(), databaseOf(type())});
    if (oneIn(2)) next_.push_back(RunOperation{1 + below(plan_.yieldEvery == 0 ? 30 : 400)});
    return restart;
  }

  /// A table that has answered everything, and then holds its answers while things change.
  Operation silence(TableTag tag) {
    next_ = {AnswerOperation{tag, SoftTable::Order::lifo, 1, oneIn(2)}, SettleOperation{}};
    if (oneIn(3)) {
      // Withdraws everything; the last requests before any table could answer them.
      for (std::size_t each = features_; each != 0; --each) {
        next_.push_back(
            WithdrawAllOperation{KilnPlatform::allEnumValues<FeatureType>()[each - 1], databaseOf(tag)});
      }
      next_.push_back(RunOperation{1 + below(100)});
      for (std::size_t fresh = 1 + below(3); fresh != 0; --fresh) next_.push_back(publish());
    }
    for (std::size_t changes = 1 + below(3); changes != 0; --changes) next_.push_back(change());
    next_.push_back(SettleOperation{});
    next_.push_back(TableOperation{tag, SoftTable::AnswerMode::hold, {}, {}});
    next_.push_back(SettleOperation{});
    return TableOperation{tag, SoftTable::AnswerMode::success, {}, {}};
  }

  Operation change() {
    if (oneIn(3)) return again();
    if (oneIn(3) && !domainsAutomatic_) {
      return AllotOperation{interface(), static_cast<std::uint16_t>(1 + below(3))};
    }
    if (oneIn(3) && !domainsAutomatic_) return RevokeOperation{interface()};
    const PublishOperation& withdrawn = published_[below(published_.size())];
    return WithdrawOperation{withdrawn.feature, withdrawn.database, withdrawn.key};
  }

  Operation tableOperation() {
    using Mode = SoftTable::AnswerMode;
    const TableTag tag = type();
    switch (below(10)) {
      case 0:
      case 1:
        return AnswerOperation{tag, oneIn(2) ? SoftTable::Order::fifo : SoftTable::Order::lifo, 1 + below(4),
                               oneIn(2)};
      case 2:
        if (oneIn(2)) return silence(tag);
        return TableOperation{tag, Mode::hold, {}, {}};
      case 3:
        return TableOperation{tag, Mode::refuse, {}, {}};
      case 4:
        if (oneIn(2)) return appliesOperation(tag);
        return TableOperation{tag, {}, {}, oneIn(2)};
      case 5:
        return TableOperation{tag, {}, static_cast<std::uint32_t>(oneIn(3) ? below(4) : 1000), {}};
      default:
        return TableOperation{tag, Mode::success, {}, {}};
    }
  }

  Operation featureOperation() {
    switch (below(4)) {
      case 0:
        return WithdrawAllOperation{feature(), static_cast<EmType>(below(3))};
      case 1: {
        const PublishOperation& back = published_[below(published_.size())];
        if (oneIn(2)) next_ = {back, AddFeatureOperation{back.feature}};
        return RemoveFeatureOperation{back.feature};
      }
      default:
        return AddFeatureOperation{feature()};
    }
  }

  Operation hardwareOperation() {
    using Hardware::Kiln::FapId;
    using Hardware::Kiln::LocalCoreId;
    const FapId fap(below(4));
    switch (below(5)) {
      case 0:
        return RemoveFapOperation{fap};
      case 1:
        return AddFapOperation{{fap,
                                {fmt::format("Fap{}", fap.number()),
                                 static_cast<Hardware::Kiln::FapType>(3 + below(3)),
                                 {LocalCoreId(0), LocalCoreId(below(2) + 1)}},
                                1}};
      case 2:
        return ProfileOperation{fap, oneIn(3) ? std::nullopt : std::optional<std::uint32_t>(1 + below(2))};
      default: {
        ExternalUserOperation external{fmt::format("user{}", below(2)), {}};
        for (std::size_t i = below(4); i != 0; --i) {
          external.user.usage.push_back({FapId(below(4)), LocalCoreId(below(3)),
                                         static_cast<std::uint8_t>(below(4)),
                                         static_cast<std::uint32_t>(below(30))});
        }
        return external;
      }
    }
  }

  enum Kind : std::size_t {
    kPublish,
    kAgain,
    kWithdraw,
    kDomain,
    kRevoke,
    kTable,
    kSettle,
    kFeature,
    kRestart,
    kHardware,
    kCommit,
    kKinds
  };

  Plan plan_;
  std::mt19937_64 random_;
  std::array<TableTag, 3> pool_{};
  std::size_t types_;
  std::size_t features_;
  std::size_t interfaces_;
  std::size_t systemTcams_;
  std::size_t otherTypes_;
  std::array<std::size_t, kKinds> weights_{};
  bool calm_ = false;
  bool storm_ = false;
  bool domainsAutomatic_ = false;
  std::vector<PublishOperation> published_;
  std::vector<Operation> next_;  ///< in reverse order
};

}  // namespace

Plan drawPlan(std::uint64_t seed, std::size_t steps, std::string_view profile) {
  return Draw(seed, profile).plan(seed, steps);
}

Plan readPlan(const std::string& path) {
  std::ifstream file(path);
  Plan plan;
  std::string line;
  int shuffled = 0;
  unsigned long long seed = 0;
  if (!std::getline(file, line) || std::sscanf(line.c_str(), "// plan: seed %llu shuffled %d yield-every %u",
                                               &seed, &shuffled, &plan.yieldEvery) != 3) {
    throw InputError(fmt::format("{}: not a scenario that kiln-sim wrote", path));
  }
  plan.seed = seed;
  plan.shuffled = shuffled != 0;
  while (std::getline(file, line)) {
    if (line.empty() || line.starts_with("//")) continue;
    Operation operation = parseOperation(line);
    // Here the judge decides what is expected.
    if (std::holds_alternative<WatchOperation>(operation)) continue;
    if (std::holds_alternative<ExpectOperation>(operation)) continue;
    if (std::holds_alternative<ExpectTableOperation>(operation)) continue;
    plan.operations.push_back(std::move(operation));
  }
  return plan;
}

AgentOptions agentOptions(const Plan& plan) {
  static const ChipConfig chip = readChipFile(KILN_SOURCE_DIR "/sim/chip.json");
  AgentOptions options;
  options.chip = chip;
  if (plan.shuffled) options.seed = plan.seed;
  options.yieldEvery = plan.yieldEvery;
  return options;
}

}  // namespace KilnSim
