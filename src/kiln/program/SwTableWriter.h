// The common part of the table writers: finds the table and passes key and entry as its own types. The named
// writers fix the key type.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "kiln/platform/Asic.h"
#include "kiln/program/EmSwTableWriterSm.h"

namespace KilnEmServer {

/// Finds a writer's table in its interface, by unit.
template <class TableInterface, class SwTable>
class InterfaceHolder {
 public:
  using Held = TableInterface;
  using Table = SwTable;
  explicit InterfaceHolder(Ref<TableInterface> held) : held_(std::move(held)) {}
  /// The unit's table, or null if it is missing or of another class.
  [[nodiscard]] SwTable* table(Asic::UnitId unit) const {
    Asic::OrderedSwTable* const found = held_->orderedSwTable(unit);
    if (found == nullptr) return nullptr;
    const std::type_info& type = typeid(*found);
    if (found != found_ || &type != type_) {
      table_ = dynamic_cast<SwTable*>(found);
      found_ = found;
      type_ = &type;
    }
    return table_;
  }

 private:
  Ref<TableInterface> held_;
  // The last table found, whose class is known: usually it is found again.
  mutable const Asic::OrderedSwTable* found_ = nullptr;
  mutable const std::type_info* type_ = nullptr;
  mutable SwTable* table_ = nullptr;
};

/// Holds a writer's table itself.
template <class SwTable>
class TableHolder {
 public:
  using Held = SwTable;
  using Table = SwTable;
  explicit TableHolder(Ref<SwTable> held) : held_(std::move(held)) {}
  [[nodiscard]] SwTable* table(Asic::UnitId /*unit*/) const { return held_.get(); }

 private:
  Ref<SwTable> held_;
};

/// The way in which a row's writer finds its table.
template <class Row, class Classes = Asic::TableClasses<Row>>
using TableHolderOf =
    std::conditional_t<Row::kWriterHolds == WriterHolds::interface,
                       InterfaceHolder<typename Classes::Interface, typename Classes::SwTable>,
                       TableHolder<typename Classes::SwTable>>;

/// The writer of a row's table.
template <class Row>
class SwTableWriter : public EmSwTableWriterSm {
  using Holder = TableHolderOf<Row>;

 public:
  using Held = typename Holder::Held;
  using Table = typename Holder::Table;

  SwTableWriter(Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus,
                std::string name, Ref<DependencyStatus> dependencyStatus, Ref<Held> held,
                StageControl control, SwTableWriterOptions options = {})
      : EmSwTableWriterSm(Row::kTag, std::move(emSwTableConfig), std::move(emSwTableStatus), std::move(name),
                          std::move(dependencyStatus), std::move(control), std::move(options)),
        holder_(std::move(held)) {}

  void writeTableEntry(const EmHwKey& hwKey, const EmEntry& entry, ResponseHandler handler) override {
    const auto& tableKey = tableKeyOf(hwKey);
    const auto& tableEntry = entry.get<typename Table::Entry>();
    if (Table* table = holder_.table(Asic::UnitId::allFap())) {
      table->entryWriteWithResponseHandler(tableKey, tableEntry, nullptr, std::move(handler));
    } else {
      answer(handler, EntryState::noResource_);
    }
  }

  void deleteTableEntry(const EmHwKey& hwKey, ResponseHandler handler) override {
    const auto& tableKey = tableKeyOf(hwKey);
    if (Table* table = holder_.table(Asic::UnitId::allFap())) {
      table->entryRemoveWithResponseHandler(tableKey, nullptr, std::move(handler));
    } else {
      answer(handler, Asic::SwTableBase::success());
    }
  }

  [[nodiscard]] std::uint32_t numEntries(Hardware::Kiln::FapId fapId,
                                         Hardware::Kiln::LocalCoreId /*localCoreId*/) const override {
    const Table* table = holder_.table(Asic::UnitId::ofFap(fapId));
    return table == nullptr ? 0 : static_cast<std::uint32_t>(table->entrys().size());
  }

  void prefetchTableKey(const EmHwKey& hwKey, bool next) const override {
    const auto* tableKey = hwKey.emResolvedKey.template getIf<typename Table::Key>();
    Table* table = tableKey == nullptr ? nullptr : holder_.table(Asic::UnitId::allFap());
    if (table != nullptr) table->entryExpected(*tableKey, next);
  }

 private:
  [[nodiscard]] const typename Table::Key& tableKeyOf(const EmHwKey& emHwKey) const {
    tracer().template trace<9>("{}", emHwKey);
    KILN_ASSERT_MESSAGE(emHwKey.fapId == Hardware::Kiln::FapId::allFap(),
                        "{} == Hardware::Kiln::FapId::allFap()", kFapName);
    KILN_ASSERT_MESSAGE(emHwKey.localCoreId == Hardware::Kiln::LocalCoreId::all(),
                        "{} == Hardware::Kiln::LocalCoreId::all()", kCoreName);
    return emHwKey.emResolvedKey.get<typename Table::Key>();
  }

  static constexpr bool kPlainNames = Row::kCheckNames == CheckNames::fields;
  static constexpr const char* kFapName = kPlainNames ? "fapId" : "emHwKey.fapId()";
  static constexpr const char* kCoreName = kPlainNames ? "localCoreId" : "emHwKey.localCoreId()";

  /// Answers in place of a table that is missing.
  void answer(ResponseHandler& handler, EntryState state) const {
    tracer().template trace<0>("{}: no table", name());
    handler(std::make_shared<const Asic::OrderedSwTable::EntryHandle>(state));
  }

  Holder holder_;
};

/// The class and the factory of a row's writer.
template <class Row>
struct SwTableWriterOf;

}  // namespace KilnEmServer
