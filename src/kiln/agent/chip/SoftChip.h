// The software chip: the tables of all key types behind their interfaces, the ordered-table layer over them,
// and the status of FAPs and MDB profiles.
#pragma once

#include <bitset>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <tuple>

#include "kiln/agent/chip/ChipConfig.h"
#include "kiln/agent/chip/SoftTable.h"
#include "kiln/platform/Asic.h"
#include "kiln/platform/Hardware.h"

namespace KilnAgent {

/// The FAPs that exist, by their numbers. A FAP whose number does not fit into a unit's has no unit.
using FapSet = std::bitset<256>;

/// The interface to the tables of a row's key type. All FAPs share one table, since every entry is spread to
/// all of them.
template <class Row>
class SoftInterface final : public Asic::TableClasses<Row>::Interface {
 public:
  using SwTable = typename Asic::TableClasses<Row>::SwTable;
  static constexpr KilnEmServer::EmResolvedKeyUnionTag kTag = Row::kTag;

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

  /// The table interface of every key type.
  [[nodiscard]] Asic::TableInterfaces interfaces() const {
    return std::apply([](const auto&... own) { return Asic::TableInterfaces(own...); }, interfaces_);
  }
  /// One of them, by its type.
  template <class Interface>
  [[nodiscard]] Ref<Interface> interface() const {
    return interfaces().get<Interface>();
  }
  /// The table of a key type other than `undefined`.
  [[nodiscard]] SoftTable& table(KilnEmServer::EmResolvedKeyUnionTag tag) const;
  /// Calls `visitor` with the SoftTable of each type, in the order of their numbers.
  template <class Visitor>
  void forEachTable(Visitor&& visitor) const {
    for (SoftTable* table : tables_) visitor(*table);
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
  void fapIs(const Hardware::Kiln::FapId& fapId, const Hardware::Kiln::FapInfo* info);

  FapSet faps_;  ///< those of the chip status
  Ref<Hardware::Kiln::Status> chipStatus_;
  Ref<Hardware::Kiln::MdbStatus> mdbStatus_;
  std::optional<std::mt19937_64> random_;
  MdbRoom room_{chipStatus_, mdbStatus_};
  Ref<PendingHwWrites> pending_ = std::make_shared<PendingHwWrites>();
  mutable ChangeSubscribers subscribers_;
  template <class... Rows>
  using Interfaces = std::tuple<Ref<SoftInterface<Rows>>...>;
  KilnEmServer::OverKeyTypes<Interfaces> interfaces_;
  KilnEmServer::ByKeyType<SoftTable*> tables_;
};

}  // namespace KilnAgent
