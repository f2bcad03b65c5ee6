// One table of the software chip: applies operations at once, answers them later.
#pragma once

#include <boost/container/deque.hpp>
#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/Collections.h"
#include "agent/MappedCollection.h"
#include "agent/MdbRoom.h"
#include "agent/SortedRows.h"
#include "platform/Asic.h"
#include "platform/EmKeys.h"
#include "platform/Ref.h"
#include "platform/TaskScheduler.h"
#include "runtime/ExpectedItems.h"

namespace KilnAgent {

using KilnPlatform::Ref;

/// What reached the hardware, and what needed not to.
struct HardwareCounters {
  std::uint64_t written = 0;    ///< entries inserted or replaced by others
  std::uint64_t removed = 0;    ///< entries taken out
  std::uint64_t unchanged = 0;  ///< writes of what the table held already
};

/// How often the server called a table, whatever came of it.
struct OperationCounters {
  std::uint64_t writes = 0;
  std::uint64_t removals = 0;
};

/// Told what happens at a table, before it does.
class TableWatcher {
 public:
  enum class Operation : std::uint8_t { write, removal };
  /// The server calls an operation.
  virtual void handleOperation(const KilnEmServer::EmResolvedKey& key, Operation operation) = 0;
  /// The hardware is about to write or remove the entry under a key; `before` is null where it has none.
  virtual void handleUpcomingChange(const KilnEmServer::EmResolvedKey& key, Operation operation,
                                    const KilnEmServer::EmEntry* before) = 0;
  /// A write ended like this; its answer comes later.
  virtual void handleWritten(const KilnEmServer::EmResolvedKey& /*key*/,
                             const KilnEmServer::EmEntry& /*entry*/,
                             Asic::SwTableBase::EntryState /*outcome*/) {}

 protected:
  ~TableWatcher() = default;
};

/// The subscribers of one object's changes. They may come and go while they are being told.
class ChangeSubscribers {
 public:
  void add(Asic::ChangeSubscriber& subscriber) { subscribers_.push_back(&subscriber); }
  void remove(Asic::ChangeSubscriber& subscriber);
  void notify();
  void forgetAll() { subscribers_.clear(); }

 private:
  std::vector<Asic::ChangeSubscriber*> subscribers_;
};

/// The status of the ordered-table layer: whether operations wait for the hardware.
class PendingHwWrites final : public Asic::OrderedTableStatus {
 public:
  [[nodiscard]] bool pendingHwWrites() const override { return operations_ != 0; }
  void subscribe(Asic::ChangeSubscriber& subscriber) const override { subscribers_.add(subscriber); }
  void unsubscribe(Asic::ChangeSubscriber& subscriber) const override { subscribers_.remove(subscriber); }

  void begin(std::size_t operations);
  void end(std::size_t operations);
  void forgetSubscribers() { subscribers_.forgetAll(); }

 private:
  std::size_t operations_ = 0;
  mutable ChangeSubscribers subscribers_;
};

/// What the eight tables share: how they answer, and what tools see of them. An operation changes the table
/// when it is issued; only its answer is late, and with a seed out of order.
class SoftTable {
 public:
  using EntryState = Asic::SwTableBase::EntryState;
  using ResponseHandler = Asic::OrderedSwTable::ResponseHandler;
  using Entry = std::pair<KilnEmServer::EmResolvedKey, KilnEmServer::EmEntry>;
  /// How the operations that come from now on are met: done and answered; writes refused, removals done;
  /// done, but not answered until told.
  enum class AnswerMode : std::uint8_t { success, refuse, hold };
  enum class Order : std::uint8_t { fifo, lifo };

  /// What a table has from its chip. `random` is null where answers keep their order.
  struct Setting {
    std::string_view stem;  ///< for example "isemMpls"
    std::uint32_t capacity = 0;
    Ref<KilnPlatform::TaskScheduler> scheduler;
    std::mt19937_64* random = nullptr;
    PendingHwWrites* pending = nullptr;
    MdbRoom* room = nullptr;
    std::string file;  ///< where its entries outlive the process; empty where they need not
  };

  explicit SoftTable(const Setting& setting);
  virtual ~SoftTable() = default;
  SoftTable(const SoftTable&) = delete;
  SoftTable& operator=(const SoftTable&) = delete;

  [[nodiscard]] std::string_view stem() const { return stem_; }
  /// Entries that the table can hold, as far as the FAPs have room for them.
  [[nodiscard]] std::uint32_t capacity() const { return capacity_; }
  /// Entries that the table holds already stay, even where they are more.
  void capacityIs(std::uint32_t entries) { capacity_ = entries; }
  [[nodiscard]] const HardwareCounters& counters() const { return counters_; }
  [[nodiscard]] const OperationCounters& operations() const { return operations_; }
  /// Adds a watcher, once, or takes it out again, which it must be before it goes.
  void watcherIs(TableWatcher& watcher, bool on);

  [[nodiscard]] AnswerMode answerMode() const { return mode_; }
  /// Leaving `hold` lets every held answer go, in the order of the operations.
  void answerModeIs(AnswerMode mode);
  /// Lets up to `count` held answers go, the oldest or the newest first. They are delivered by the table's
  /// task, in just that order.
  void answer(Order order, std::size_t count);
  [[nodiscard]] std::size_t held() const { return held_.size(); }
  /// Whether operations are answered within the call that issues them, unless they are held.
  void answerInsideCallIs(bool insideCall) { insideCall_ = insideCall; }

  /// Entries that the table holds.
  [[nodiscard]] virtual std::size_t fill() const = 0;
  /// The entry under a key of this table; nothing for a key of another one.
  [[nodiscard]] virtual std::optional<KilnEmServer::EmEntry> find(
      const KilnEmServer::EmResolvedKey& key) const = 0;
  /// Every entry, the least key first.
  [[nodiscard]] virtual std::vector<Entry> sortedEntries() const = 0;

  /// The server ended: its entries stay, unclaimed until they are written again; held answers are dropped.
  void serverEnded();
  /// As serverEnded, for a server that could not clean up: no answer is delivered any more.
  void serverDied();
  /// Drops the entries that are still unclaimed. Their removal is pending until commit has started the drain
  /// and it is done.
  void reconcileComplete();
  /// Starts the drain of what was issued to the hardware.
  void commit();

 protected:
  /// Takes over the answer of an operation that was applied with this outcome.
  void deliver(EntryState outcome, ResponseHandler&& handler);
  [[nodiscard]] bool refusing() const { return mode_ == AnswerMode::refuse; }
  template <class Key>
  void noteOperation(const Key& key, TableWatcher::Operation operation) {
    ++(operation == TableWatcher::Operation::write ? operations_.writes : operations_.removals);
    for (TableWatcher* watcher : watchers_) watcher->handleOperation(key, operation);
  }
  [[nodiscard]] const std::vector<TableWatcher*>& watchers() const { return watchers_; }
  /// Whether there is room for one more entry of this table's key type.
  [[nodiscard]] bool hasRoomFor(KilnEmServer::EmResolvedKeyUnionTag tag) const {
    return fill() < capacity_ && room_.hasRoom(tag);
  }

  /// Every entry is unclaimed from now on. Costs nothing per entry but room for its claim.
  virtual void unclaimAll() = 0;
  /// Returns how many entries it dropped.
  virtual std::size_t dropUnclaimed() = 0;
  virtual void forgetTableSubscribers() = 0;

  HardwareCounters counters_;

 private:
  struct Answer {
    Answer(EntryState of, ResponseHandler&& told) : outcome(of), handler(std::move(told)) {}
    EntryState outcome;
    ResponseHandler handler;
  };
  /// With room for many answers at a time, so that they are not allocated one by one.
  using Answers =
      boost::container::deque<Answer, void,
                              boost::container::deque_options_t<boost::container::block_size<64>>>;
  void runAnswers();
  static void call(Answer& answer);
  static Answer takeFront(Answers& answers);

  std::string_view stem_;
  std::uint32_t capacity_;
  OperationCounters operations_;
  std::vector<TableWatcher*> watchers_;
  std::mt19937_64* random_;
  PendingHwWrites& pending_;
  MdbRoom& room_;
  AnswerMode mode_ = AnswerMode::success;
  bool insideCall_ = false;
  Answers due_;       ///< to be given in this order, or in any with a seed
  Answers released_;  ///< held once, to be given in this order
  Answers held_;
  std::size_t dropped_ = 0;   ///< removals that nobody waits for and that are not committed yet
  std::size_t draining_ = 0;  ///< those that are
  KilnPlatform::Task task_;
};

/// One of the eight table classes, as a software table. Capacity counts the entries that are still unclaimed.
template <class SwTable>
class SoftSwTable final : public SwTable, public SoftTable {
 public:
  using Key = typename SwTable::Key;
  using TableEntry = typename SwTable::Entry;

  /// The entries that the file holds are unclaimed. Throws InputError where it cannot be used.
  explicit SoftSwTable(const SoftTable::Setting& setting) : SoftTable(setting) {
    if (setting.file.empty()) {
      entrys_ = makeCollection<Key, TableEntry>();
    } else {
      auto mapped = std::make_unique<MappedCollection<Key, TableEntry>>(setting.file);
      mapped_ = mapped.get();
      entrys_ = std::move(mapped);
    }
    unclaimAll();
  }

  void entryWriteWithResponseHandler(const Key& key, const TableEntry& entry,
                                     const Ref<const Asic::DependencyEntryHandle>& /*dependency*/,
                                     ResponseHandler handler) override {
    noteOperation(key, TableWatcher::Operation::write);
    const EntryState outcome = write(key, entry);
    for (TableWatcher* watcher : watchers()) watcher->handleWritten(key, entry, outcome);
    deliver(outcome, std::move(handler));
  }
  void entryRemoveWithResponseHandler(const Key& key,
                                      const Ref<const Asic::DependencyEntryHandle>& /*dependency*/,
                                      ResponseHandler handler) override {
    noteOperation(key, TableWatcher::Operation::removal);
    remove(key);
    deliver(EntryState::success_, std::move(handler));
  }
  void entryExpected(const Key& key, bool next) override {
    if (mapped_ == nullptr) expected_.expect(*entrys_, key, next);
  }
  [[nodiscard]] const typename SwTable::Entrys& entrys() const override { return *entrys_; }

  [[nodiscard]] std::size_t fill() const override { return entrys_->size(); }
  [[nodiscard]] std::optional<KilnEmServer::EmEntry> find(
      const KilnEmServer::EmResolvedKey& key) const override {
    const Key* own = key.getIf<Key>();
    const TableEntry* entry = own == nullptr ? nullptr : entrys_->find(*own);
    return entry == nullptr ? std::nullopt : std::optional<KilnEmServer::EmEntry>(*entry);
  }
  [[nodiscard]] std::vector<Entry> sortedEntries() const override {
    std::vector<Entry> entries;
    entries.reserve(entrys_->size());
    for (const auto& [key, entry] : sortedRows(*entrys_)) entries.emplace_back(key, entry);
    return entries;
  }

 private:
  EntryState write(const Key& key, const TableEntry& entry) {
    if (refusing()) {
      remove(key);
      return EntryState::refused_;
    }
    const TableEntry* before = entrys_->find(key);
    if (before == nullptr && !roomForOne()) return EntryState::noResource_;
    if (reconciling_) claimed_.insert(key);
    if (before != nullptr && *before == entry) {
      ++counters_.unchanged;
      return EntryState::success_;
    }
    noteChange(key, TableWatcher::Operation::write, before);
    entrys_->is(key, entry);
    ++counters_.written;
    return EntryState::success_;
  }
  [[nodiscard]] bool roomForOne() const {
    return hasRoomFor(KilnEmServer::EmResolvedKey::tagOf<Key>()) &&
           (mapped_ == nullptr || mapped_->roomForOne());
  }
  void remove(const Key& key) {
    const TableEntry* before = entrys_->find(key);
    if (before == nullptr) return;
    if (reconciling_) claimed_.erase(key);
    noteChange(key, TableWatcher::Operation::removal, before);
    entrys_->del(key);
    ++counters_.removed;
  }
  void noteChange(const Key& key, TableWatcher::Operation operation, const TableEntry* before) {
    if (watchers().empty()) return;
    const auto entry = before == nullptr ? std::nullopt : std::optional<KilnEmServer::EmEntry>(*before);
    for (TableWatcher* watcher : watchers()) {
      watcher->handleUpcomingChange(key, operation, entry ? &*entry : nullptr);
    }
  }

  void unclaimAll() final {
    reconciling_ = !entrys_->empty();
    claimed_ = {};
    claimed_.reserve(entrys_->size());  // so that no claim has to wait for the growth of the whole
  }
  std::size_t dropUnclaimed() override {
    const std::uint64_t before = counters_.removed;
    KilnPlatform::ScanCursor<Key> cursor;
    while (claimed_.size() < entrys_->size() && reconciling_) {
      const Key* key = entrys_->scanNext(cursor);
      KILN_ASSERT(key != nullptr && "an unclaimed entry is found by a walk");
      if (!claimed_.contains(*key)) remove(*key);
    }
    reconciling_ = false;
    claimed_ = {};
    return static_cast<std::size_t>(counters_.removed - before);
  }
  void forgetTableSubscribers() override {
    mapped_ != nullptr ? mapped_->forgetSubscribers() : forgetSubscribers(*entrys_);
  }

  std::unique_ptr<typename SwTable::Entrys> entrys_;
  MappedCollection<Key, TableEntry>* mapped_ = nullptr;  ///< the same where it lies in a file
  KilnEmServer::ExpectedKeys<typename SwTable::Entrys> expected_;
  bool reconciling_ = false;  ///< whether entries of a server before this one may be unclaimed
  boost::unordered_flat_set<Key, KilnPlatform::ValueHash<Key>>
      claimed_;  ///< while reconciling, all others are not
};

}  // namespace KilnAgent
