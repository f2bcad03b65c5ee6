// The software chip: eight tables behind their interfaces, the ordered-table layer over them, and the status
// of FAPs and MDB profiles.
#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <type_traits>

#include "kiln/agent/chip/ChipConfig.h"
#include "kiln/agent/chip/SoftTable.h"
#include "kiln/platform/Asic.h"
#include "kiln/platform/Hardware.h"

namespace KilnAgent {

/// The FAPs that exist, by their numbers. A FAP whose number does not fit into a unit's has no unit.
using FapSet = std::bitset<256>;

/// The interface to one table type. All FAPs share one table, since every entry is spread to all of them.
template <class TableInterface, class TableClass>
class SoftInterface final : public TableInterface {
 public:
  using Interface = TableInterface;
  using SwTable = TableClass;
  static constexpr KilnEmServer::EmResolvedKeyUnionTag kTag =
      KilnEmServer::EmResolvedKey::tagOf<typename SwTable::Key>();

  /// `faps` must outlive the interface.
  SoftInterface(const SoftTable::Setting& setting, const FapSet& faps) : table_(setting), faps_(faps) {}

  /// The table for the unit of all FAPs and those of the FAPs that exist; null for any other.
  [[nodiscard]] Asic::OrderedSwTable* orderedSwTable(Asic::UnitId unit) const override {
    const Hardware::Kiln::FapId fapId(unit.number() & 0xFFU);
    const bool known =
        unit == Asic::UnitId::allFap() || (unit == Asic::UnitId::ofFap(fapId) && faps_.test(fapId.number()));
    return known ? &table_ : nullptr;
  }
  [[nodiscard]] SoftSwTable<SwTable>& table() { return table_; }

 private:
  mutable SoftSwTable<SwTable> table_;
  const FapSet& faps_;
};

/// The chip. It outlives the servers that work on it.
class SoftChip final : public Asic::OrderedTableInterface {
 public:
  /// With a `seed`, answers come out of order. With a `directory`, which must exist, the tables keep their
  /// entries in files there and begin with what these hold. Throws InputError where one cannot be used.
  SoftChip(const ChipConfig& config, const Ref<KilnPlatform::TaskScheduler>& scheduler,
           std::optional<std::uint64_t> seed, const std::string& directory = {});

  /// One of the eight table interfaces, by its type.
  template <class Interface>
  [[nodiscard]] Ref<Interface> interface() const {
    Ref<Interface> found;
    std::apply(
        [&](const auto&... own) {
          const auto take = [&]<class Own>(const Ref<Own>& candidate) {
            if constexpr (std::is_same_v<typename Own::Interface, Interface>) found = candidate;
          };
          (take(own), ...);
        },
        interfaces_);
    return found;
  }
  /// The table of a key type other than `undefined`.
  [[nodiscard]] SoftTable& table(KilnEmServer::EmResolvedKeyUnionTag tag) const;
  /// Calls `visitor` with the SoftTable of each type, in the order of their numbers.
  template <class Visitor>
  void forEachTable(Visitor&& visitor) const {
    for (std::size_t i = 1; i < tables_.size(); ++i) visitor(*tables_[i]);
  }
  /// Calls `visitor(stem, entries)` with each table's collection of entries under keys of its own type.
  template <class Visitor>
  void forEachSwTable(Visitor&& visitor) const {
    std::apply([&](const auto&... own) { (visitor(own->table().stem(), own->table().entrys()), ...); },
               interfaces_);
  }
  /// Summed over the tables.
  [[nodiscard]] HardwareCounters counters() const;

  [[nodiscard]] const Ref<Hardware::Kiln::Status>& chipStatus() const { return chipStatus_; }
  [[nodiscard]] const Ref<Hardware::Kiln::MdbStatus>& mdbStatus() const { return mdbStatus_; }

  // FAPs come and go, and change their MDB profile; without one a FAP has none.
  void addFap(const ChipConfig::Fap& fap);
  void removeFap(Hardware::Kiln::FapId fapId);
  void profileIs(Hardware::Kiln::FapId fapId, std::optional<std::uint32_t> profile);

  void reconcileComplete() override;
  void commitHwWrites() override;
  [[nodiscard]] Ref<const Asic::OrderedTableStatus> status() const override { return pending_; }
  void subscribe(Asic::ChangeSubscriber& subscriber) const override { subscribers_.add(subscriber); }
  void unsubscribe(Asic::ChangeSubscriber& subscriber) const override { subscribers_.remove(subscriber); }

  /// Of the writes from now on, counted from 0, the chip refuses this; none of them if it is nothing.
  void refusedIs(std::optional<std::uint32_t> write) { pending_->refusedIs(write); }

  /// Applies the operations that have no effect yet.
  void applyIssued();
  /// The server ended: the tables keep their entries until reconcileComplete.
  void serverEnded();
  /// As serverEnded, for a server that died: also its subscriptions and the answers to it are forgotten.
  void serverDied();

  /// Describes FAPs, profiles and tables. Which entries there is room for follows from these.
  void noteState(KilnEmServer::StateDigest& digest) const;

 private:
  template <class Interface, class SwTable>
  using Own = Ref<SoftInterface<Interface, SwTable>>;

  void fapIs(const Hardware::Kiln::FapId& fapId, const Hardware::Kiln::FapInfo* info);

  FapSet faps_;  ///< those of the chip status
  Ref<Hardware::Kiln::Status> chipStatus_;
  Ref<Hardware::Kiln::MdbStatus> mdbStatus_;
  std::optional<std::mt19937_64> random_;
  MdbRoom room_{chipStatus_, mdbStatus_};
  Ref<PendingHwWrites> pending_ = std::make_shared<PendingHwWrites>();
  mutable ChangeSubscribers subscribers_;
  std::tuple<Own<Asic::IsemUntaggedKilnInterface, Asic::IsemUntaggedKilnSwTable>,
             Own<Asic::Isem1TagKilnInterface, Asic::Isem1TagKilnSwTable>,
             Own<Asic::Isem2TagKilnInterface, Asic::Isem2TagKilnSwTable>,
             Own<Asic::IsemInnerEthKilnInterface, Asic::IsemInnerEthKilnSwTable>,
             Own<Asic::IsemMplsKilnInterface, Asic::IsemMplsKilnSwTable>,
             Own<Asic::EsemFodoVdKilnInterface, Asic::EsemFodoVdKilnSwTable>,
             Own<Asic::EsemFodoKilnInterface, Asic::EsemFodoKilnSwTable>,
             Own<Asic::LemVpwsAcKilnInterface, Asic::LemVpwsAcKilnSwTable>>
      interfaces_;
  std::array<SoftTable*, KilnPlatform::kTableStems.size()> tables_{};  ///< by the number of their key type
};

}  // namespace KilnAgent
