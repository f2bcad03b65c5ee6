// The chip's table layer: ordered software tables that answer asynchronously.
#pragma once

#include <cstddef>
#include <cstdint>
#include <tuple>
#include <type_traits>
#include <utility>

#include "kiln/platform/Collection.h"
#include "kiln/platform/EmKeys.h"
#include "kiln/platform/Hardware.h"
#include "kiln/platform/InplaceFunction.h"
#include "kiln/platform/Ref.h"

namespace Asic {

using KilnPlatform::Ref;

/// A unit of the table layer. A FAP's unit is 0x8000 plus the low eight bits of its id, so that of all FAPs
/// (0x7FE) is 0x80FE.
class UnitId {
 public:
  constexpr explicit UnitId(std::uint16_t number) : number_(number) {}
  static constexpr UnitId ofFap(Hardware::Kiln::FapId fapId) {
    return UnitId(static_cast<std::uint16_t>(0x8000 | (fapId.number() & 0xFF)));
  }
  static constexpr UnitId allFap() { return ofFap(Hardware::Kiln::FapId::allFap()); }
  [[nodiscard]] constexpr std::uint16_t number() const { return number_; }
  friend auto operator<=>(const UnitId&, const UnitId&) = default;

 private:
  std::uint16_t number_;
};
static_assert(UnitId::allFap().number() == 0x80FE);

/// What every software table shares.
class SwTableBase {
 public:
  /// State of an entry in its table. Only `success_` means that the table holds (or, for a removal, no longer
  /// holds) it.
  enum class EntryState : std::uint8_t {
    unknown_ = 0,
    pending_ = 1,
    refused_ = 2,
    noResource_ = 3,
    success_ = 4
  };
  static constexpr EntryState success() { return EntryState::success_; }
};

/// An entry that another one waits for. The server passes none.
class DependencyEntryHandle;

/// A software table whose entries the table layer orders among each other before they reach the hardware.
class OrderedSwTable : public SwTableBase {
 public:
  /// The answer to one write or removal.
  class EntryHandle {
   public:
    explicit EntryHandle(EntryState state) : entryState_(state) {}
    [[nodiscard]] EntryState entryState() const { return entryState_; }

   private:
    EntryState entryState_;
  };

  /// Called once with the answer, or destroyed without a call if the table is destroyed first. The table may
  /// call it from within the operation that it was passed to or at any later time, and in any order among
  /// operations.
  using ResponseHandler = KilnPlatform::InplaceFunction<void(const Ref<const EntryHandle>&), 200>;

  virtual ~OrderedSwTable() = default;
  OrderedSwTable(const OrderedSwTable&) = delete;
  OrderedSwTable& operator=(const OrderedSwTable&) = delete;

  /// Number of entries that the table holds.
  [[nodiscard]] virtual std::size_t size() const = 0;

 protected:
  OrderedSwTable() = default;
};

/// The operations of every table class. Operations on one key take effect in the order issued, whatever the
/// order of their answers; an operation has taken effect when it, or a later one on its key, is answered.
template <class TableKey, class TableEntry>
class KilnSwTable : public OrderedSwTable {
 public:
  using Key = TableKey;
  using Entry = TableEntry;
  using Entrys = KilnPlatform::KeyedCollection<TableKey, TableEntry>;

  /// Programs or overwrites the entry. If the table refuses the entry, the answer is not success and the
  /// table then holds no entry under the key. After each answered removal, the server writes the
  /// longest-waiting refused entry again; when reconciliation has completed, it writes each refused entry
  /// once.
  virtual void entryWriteWithResponseHandler(const TableKey& key, const TableEntry& entry,
                                             const Ref<const DependencyEntryHandle>& dependency,
                                             ResponseHandler handler) = 0;
  /// Removes the entry. The answer is always success, also for an absent entry: a table may delay a removal,
  /// but never refuse it. The process ends with a failed assertion if it does.
  virtual void entryRemoveWithResponseHandler(const TableKey& key,
                                              const Ref<const DependencyEntryHandle>& dependency,
                                              ResponseHandler handler) = 0;
  /// Hint: an operation on this key is likely to follow soon; with `next`, before those on other keys. A
  /// table may prefetch what it has under the key. The hint has no observable effect.
  virtual void entryExpected(const TableKey& /*key*/, bool /*next*/) {}
  /// The current entries.
  [[nodiscard]] virtual const Entrys& entrys() const = 0;
  [[nodiscard]] std::size_t size() const override { return entrys().size(); }
};

// The table class of each key type, for example IsemMplsKilnSwTable. Integrators derive from them.
#define KILN_SW_TABLE(stem, Stem, ...) \
  class Stem##KilnSwTable              \
      : public KilnSwTable<KilnTunnelNiLib::Stem##EntryKey, KilnTunnelNiLib::Stem##Entry> {};
KILN_KEY_TYPES(KILN_SW_TABLE)
#undef KILN_SW_TABLE

/// Owns the ordered software tables of one table type, by unit.
class KilnInterface {
 public:
  virtual ~KilnInterface() = default;
  KilnInterface(const KilnInterface&) = delete;
  KilnInterface& operator=(const KilnInterface&) = delete;

  /// The table of a unit, or null. The caller finds out its class by a run-time type test.
  [[nodiscard]] virtual OrderedSwTable* orderedSwTable(UnitId unit) const = 0;

 protected:
  KilnInterface() = default;
};

// The table interface of each key type, for example IsemMplsKilnInterface: distinct types, so that none can
// be passed in place of another.
#define KILN_TABLE_INTERFACE(stem, Stem, ...) \
  class Stem##KilnInterface : public KilnInterface {};
KILN_KEY_TYPES(KILN_TABLE_INTERFACE)
#undef KILN_TABLE_INTERFACE

/// The two classes of a key type, by its row.
template <class Row>
struct TableClasses;
#define KILN_TABLE_CLASSES(stem, Stem, ...)                                                         \
  template <>                                                                                       \
  struct TableClasses<KilnEmServer::KeyType<KilnEmServer::EmResolvedKeyUnionTag::stem##EntryKey>> { \
    using SwTable = Stem##KilnSwTable;                                                              \
    using Interface = Stem##KilnInterface;                                                          \
  };
KILN_KEY_TYPES(KILN_TABLE_CLASSES)
#undef KILN_TABLE_CLASSES

/// The table interface of every key type.
class TableInterfaces {
 public:
  TableInterfaces() = default;
  /// One reference for each key type, in any order. One that is missing or given twice does not compile.
  template <class... Interfaces>
  explicit TableInterfaces(const Ref<Interfaces>&... interfaces) {
    static_assert(sizeof...(Interfaces) == KilnEmServer::kKeyTypes, "one table interface for each key type");
    std::apply([&](auto&... own) { (takeFrom(own, interfaces...), ...); }, interfaces_);
  }
  /// One of them, by its type.
  template <class Interface>
  [[nodiscard]] const Ref<Interface>& get() const {
    return std::get<Ref<Interface>>(interfaces_);
  }
  /// The interface to the tables of a row's key type.
  template <class Row>
  [[nodiscard]] const Ref<typename TableClasses<Row>::Interface>& of() const {
    return std::get<Ref<typename TableClasses<Row>::Interface>>(interfaces_);
  }

 private:
  template <class Own, class... Given>
  static void takeFrom(Own& own, const Given&... given) {
    static_assert(((std::is_convertible_v<Given, Own> ? 1 : 0) + ...) == 1,
                  "the table interface of a key type is missing, or given twice");
    const auto take = [&]<class One>(const One& one) {
      if constexpr (std::is_convertible_v<One, Own>) own = one;
    };
    (take(given), ...);
  }

  template <class... Rows>
  using Interfaces = std::tuple<Ref<typename TableClasses<Rows>::Interface>...>;
  KilnEmServer::OverKeyTypes<Interfaces> interfaces_;
};

/// Notified that something about an object changed; the subscriber reads from the object what changed.
class ChangeSubscriber {
 public:
  virtual void handleChange() = 0;

 protected:
  ~ChangeSubscriber() = default;
};

/// State of the ordered-table layer.
class OrderedTableStatus {
 public:
  virtual ~OrderedTableStatus() = default;
  /// Whether operations have not reached the hardware yet, or are not answered yet: reconciliation must not
  /// complete before the last refusal is known.
  [[nodiscard]] virtual bool pendingHwWrites() const = 0;
  /// Subscribers are notified of each change of the flag; they must stay alive until removed.
  virtual void subscribe(ChangeSubscriber& subscriber) const = 0;
  virtual void unsubscribe(ChangeSubscriber& subscriber) const = 0;
};

/// The ordered-table layer under all software tables.
class OrderedTableInterface {
 public:
  virtual ~OrderedTableInterface() = default;
  /// The software side has written everything that it wants after a restart; entries that were not written
  /// again may be removed.
  virtual void reconcileComplete() = 0;
  /// Writes the pending entries to the hardware.
  virtual void commitHwWrites() = 0;
  /// The status object that the layer exposes now, or null.
  [[nodiscard]] virtual Ref<const OrderedTableStatus> status() const = 0;
  /// Subscribers are notified when `status` becomes another object; they must stay alive until removed.
  virtual void subscribe(ChangeSubscriber& subscriber) const = 0;
  virtual void unsubscribe(ChangeSubscriber& subscriber) const = 0;
};

}  // namespace Asic
