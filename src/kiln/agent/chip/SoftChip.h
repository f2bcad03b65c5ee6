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

/// The existing FAPs, by their numbers. A FAP whose number does not fit into a unit has no unit.
using FapSet = std::bitset<256>;

/// The interface to the tables of a row's key type. All FAPs share one table, since every entry is stored on
/// all of them.
template <class Row>
class SoftInterface final : public Asic::TableClasses<Row>::Interface {
 public:
  using SwTable = typename Asic::TableClasses<Row>::SwTable;
  static constexpr KilnEmServer::EmResolvedKeyUnionTag kTag = Row::kTag;

  /// `faps` must outlive the interface.
  SoftInterface(const SoftTable::Setting& setting, const FapSet& faps) : table_(setting), faps_(faps) {}

  /// The table for the unit of all FAPs and for the units of existing FAPs; null for any other.
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

/// The chip. It outlives the servers that use it.
class SoftChip final : public Asic::OrderedTableInterface {
 public:
  /// With a `seed`, answers are shuffled. With a `directory`, which must exist, the tables keep their entries
  /// in files there and start with their content. Throws InputError if a file cannot be used.
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

  // Adds and removes FAPs, and sets their MDB profile; without a profile a FAP has none.
  void addFap(const ChipConfig::Fap& fap);
  void removeFap(Hardware::Kiln::FapId fapId);
  void profileIs(Hardware::Kiln::FapId fapId, std::optional<std::uint32_t> profile);

  void reconcileComplete() override;
  void commitHwWrites() override;
  [[nodiscard]] Ref<const Asic::OrderedTableStatus> status() const override { return pending_; }
  void subscribe(Asic::ChangeSubscriber& subscriber) const override { subscribers_.add(subscriber); }
  void unsubscribe(Asic::ChangeSubscriber& subscriber) const override { subscribers_.remove(subscriber); }

  /// The chip refuses one write, counted from 0 from now on; none if `write` is empty.
  void refusedIs(std::optional<std::uint32_t> write) { pending_->refusedIs(write); }

  /// Applies the operations that have not taken effect yet.
  void applyIssued();
  /// The server ended: the tables keep their entries until reconcileComplete.
  void serverEnded();
  /// As serverEnded, for a server that died: its subscriptions and the answers to it are dropped as well.
  void serverDied();

  /// Describes FAPs, profiles and tables. The room for entries follows from these.
  void noteState(KilnEmServer::StateDigest& digest) const;

 private:
  void fapIs(const Hardware::Kiln::FapId& fapId, const Hardware::Kiln::FapInfo* info);

  FapSet faps_;  ///< as in the chip status
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
