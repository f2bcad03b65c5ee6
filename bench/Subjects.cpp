#include "bench/Subjects.h"

#include <filesystem>
#include <stdexcept>
#include <type_traits>

#include "kiln/agent/platform/YieldPolicies.h"
#include "kiln/compose/KeyFields.h"
#include "kiln/platform/Asic.h"
#include "kiln/platform/TableCapacity.h"
#include "kiln/server/ServerArguments.h"

namespace KilnBench {
namespace {

using namespace KilnTunnelNiLib;
using KilnAgent::CooperativeScheduler;
using KilnAgent::MemoryStateStore;
using KilnEmServer::EmEntry;

std::unique_ptr<KilnPlatform::YieldPolicy> budget(std::optional<std::chrono::nanoseconds> sliceBudget) {
  if (!sliceBudget) return nullptr;
  return std::make_unique<KilnAgent::TimeBudget>(*sliceBudget);
}

std::uint32_t countSettled(const MemoryStateStore& store, std::uint32_t version) {
  std::uint32_t count = 0;
  KilnPlatform::forEachEnumValue<KilnEmServer::FeatureType>([&](KilnEmServer::FeatureType feature) {
    KilnAgent::forEachDatabase([&]<class Db>() {
      KilnPlatform::forEachIn(store.statuses<Db>(feature)->status(), [&](const auto&, const auto& status) {
        if (status.status == KilnEmServer::EmStatus::hwSuccess && status.requestVersion == version) ++count;
      });
    });
  });
  return count;
}

/// A feature's statuses in the server's types.
template <class Db>
Ref<SrvStatus<Db>> statusesOf(MemoryStateStore& store, KilnEmServer::FeatureType feature) {
  if constexpr (std::is_same_v<Db, Lem>) {
    return store.lemSrvStatus(feature);
  } else if constexpr (std::is_same_v<Db, Isem>) {
    return store.isemSrvStatus(feature);
  } else {
    return store.esemSrvStatus(feature);
  }
}

void apply(MemoryStateStore& store, const MadeRequest& made) {
  if (made.version != 0) {
    publish(store, made.request, made.entry, made.version);
  } else {
    withdraw(store, made.request);
  }
}

/// Calls the visitor with a composer key's table, given as the interface to it, and the hardware key. The
/// VLAN domain of an interface is derived from its number.
template <class Visitor>
void withTableKey(const KilnEmServer::EmComposerKey& key, Visitor&& visitor) {
  KilnEmServer::visitKeyType(key.tag(), [&]<class Row>() {
    using Classes = Asic::TableClasses<Row>;
    const auto& own = key.template get<typename Row::ComposerKey>();
    std::uint64_t domain = 0;
    if constexpr (requires { own.intfId; }) domain = own.intfId - 999;
    visitor.template operator()<typename Classes::Interface, typename Classes::SwTable>(
        KilnEmServer::entryKeyOf<Row>(own, domain));
  });
}

template <class SwTable>
SwTable& tableOf(const Asic::KilnInterface& interface) {
  return dynamic_cast<SwTable&>(*interface.orderedSwTable(Asic::UnitId::allFap()));
}

}  // namespace

KilnAgent::ChipConfig roomyChip() {
  KilnAgent::ChipConfig chip = KilnAgent::defaultChip();
  chip.tableSizes.fill(8'000'000);
  for (auto& [id, profile] : chip.profiles) {
    for (auto& table : profile.tables) {
      for (auto& [width, entries] : table.entriesByWidth) entries = 32'000'000;
    }
  }
  return chip;
}

// --- The whole server --------------------------------------------------------------------------------------

WholeServer::WholeServer(RequestMix mix, std::optional<std::chrono::nanoseconds> sliceBudget)
    : mix_(mix),
      scheduler_(std::make_shared<CooperativeScheduler>(budget(sliceBudget))),
      store_(std::make_shared<MemoryStateStore>(scheduler_)),
      vlanDomains_(scheduler_, KilnAgent::VlanDomainLimits{}),
      chip_(std::make_shared<KilnAgent::SoftChip>(roomyChip(), scheduler_, std::nullopt)) {
  start();
  settle();
}

WholeServer::~WholeServer() {
  server_.reset();
  chip_->serverDied();
}

void WholeServer::start() {
  using KilnAgent::makeCollection;
  server_ = KilnEmServer::kilnEmServerSmFactory(
      {store_, chip_, chip_->chipStatus(), chip_->mdbStatus(),
       std::make_shared<KilnPlatform::TableCapacity>(
           makeCollection<KilnPlatform::TableCapacityKey, KilnPlatform::TableCapacityEntry>()),
       std::make_shared<SemCapacityExternalDir>(makeCollection<std::string, SemCapacityExternal>()),
       vlanDomains_.config(), vlanDomains_.status(), chip_->interfaces()});
}

void WholeServer::stop() {
  server_.reset();
  chip_->serverEnded();
}

void WholeServer::publish(std::uint32_t n, std::uint32_t version) {
  apply(*store_, publicationOf(mix_, n, version));
}
void WholeServer::withdraw(std::uint32_t n) {
  apply(*store_, withdrawalOf(mix_, n));
}
std::uint32_t WholeServer::settled(std::uint32_t version) const {
  return countSettled(*store_, version);
}

void ServerOneByOne::handIn() {
  for (const MadeRequest& made : made_) apply(server_.store(), made);
  made_.clear();
}

// --- The store alone ---------------------------------------------------------------------------------------

StoreAlone::StoreAlone() : store_(std::make_shared<CooperativeScheduler>()) {}

void StoreAlone::make(const MadeRequest& made) {
  lists_.add(made);
  made_.push_back(made);
}

void StoreAlone::handIn() {
  lists_.handIn(store_);
  for (const MadeRequest& made : made_) {
    KilnAgent::withDatabase(made.request.database, [&]<class Db>() {
      const typename Db::EntryKey key{Hardware::Kiln::FapId::allFap(), Hardware::Kiln::LocalCoreId::all(),
                                      made.request.key};
      if (made.version != 0) {
        store_.restoreStatus<Db>(made.request.feature, {.key = key,
                                                        .requestVersion = made.version,
                                                        .status = KilnEmServer::EmStatus::hwSuccess,
                                                        .result = kResultFromServer});
      } else {
        statusesOf<Db>(store_, made.request.feature)->statusDel(key);
      }
    });
  }
  made_.clear();
}
std::uint32_t StoreAlone::settled(std::uint32_t version) const {
  return countSettled(store_, version);
}

// --- The chip alone ----------------------------------------------------------------------------------------

ChipAlone::ChipAlone()
    : scheduler_(std::make_shared<CooperativeScheduler>()),
      chip_(std::make_shared<KilnAgent::SoftChip>(roomyChip(), scheduler_, std::nullopt)) {}
ChipAlone::~ChipAlone() {
  chip_->serverDied();
}

void ChipAlone::handIn() {
  for (const MadeRequest& made : made_) {
    withTableKey(made.request.key, [&]<class Interface, class SwTable>(const typename SwTable::Key& key) {
      auto& table = tableOf<SwTable>(*chip_->interface<Interface>());
      if (made.version != 0) {
        table.entryWriteWithResponseHandler(key, made.entry.get<typename SwTable::Entry>(), nullptr,
                                            [this](const auto&) { ++answers_; });
      } else {
        table.entryRemoveWithResponseHandler(key, nullptr, [this](const auto&) { ++answers_; });
      }
    });
  }
  made_.clear();
}
void ChipAlone::stop() {
  chip_->serverEnded();
}
void ChipAlone::reconciled() {
  chip_->reconcileComplete();
  chip_->commitHwWrites();
}
std::uint32_t ChipAlone::settled(std::uint32_t /*version*/) const {
  std::size_t entries = 0;
  chip_->forEachTable([&](const KilnAgent::SoftTable& table) { entries += table.fill(); });
  return static_cast<std::uint32_t>(entries);
}

// --- The whole agent ---------------------------------------------------------------------------------------

WholeAgent::WholeAgent(std::optional<KilnAgent::Durability> durability) {
  KilnAgent::AgentOptions options;
  options.chip = roomyChip();
  if (durability) {
    std::string pattern = (std::filesystem::temp_directory_path() / "kiln-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary directory");
    directory_ = pattern;
    options.state = directory_ + "/state";
    options.durability = *durability;
  }
  agent_ = std::make_unique<KilnAgent::EmbeddedAgent>(options);
  agent_->settle();
}
WholeAgent::~WholeAgent() {
  agent_.reset();
  if (!directory_.empty()) std::filesystem::remove_all(directory_);
}

void WholeAgent::settle() {
  agent_->scheduler().runUntilIdle();
  if (directory_.empty()) return;
  if (pace_.due(agent_->durable()->pending())) pace_.commit([this] { agent_->commit(); });
}
std::uint32_t WholeAgent::settled(std::uint32_t version) const {
  return countSettled(agent_->store(), version);
}

}  // namespace KilnBench
