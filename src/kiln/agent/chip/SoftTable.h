// One table of the software chip: applies operations when they are issued or when it answers them.
#pragma once

#include <boost/container/deque.hpp>
#include <boost/unordered/unordered_flat_map.hpp>
#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "kiln/agent/chip/MappedCollection.h"
#include "kiln/agent/chip/MdbRoom.h"
#include "kiln/agent/io/SortedRows.h"
#include "kiln/agent/platform/Collections.h"
#include "kiln/platform/Asic.h"
#include "kiln/platform/EmKeys.h"
#include "kiln/platform/Ref.h"
#include "kiln/platform/TaskScheduler.h"
#include "kiln/runtime/collections/ExpectedItems.h"
#include "kiln/runtime/stage/StateDigest.h"

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

/// One operation that the server called.
struct HwOperation {
  std::uint64_t number;  ///< grows with each operation of the chip
  const KilnEmServer::EmResolvedKey& key;
  const KilnEmServer::EmEntry* entry;  ///< to be written; null for a removal
};

/// Notified of what happens at a table. Every function but handleUpcomingChange does nothing by default.
class TableWatcher {
 public:
  using EntryState = Asic::SwTableBase::EntryState;
  /// The server calls an operation, which has no effect yet.
  virtual void handleIssued(const HwOperation& /*operation*/) {}
  /// The hardware is about to write or remove the entry under a key; `before` is null if it has none.
  virtual void handleUpcomingChange(const KilnEmServer::EmResolvedKey& key,
                                    const KilnEmServer::EmEntry* before) = 0;
  /// An operation took effect with this outcome; its answer follows.
  virtual void handleApplied(const HwOperation& /*operation*/, EntryState /*outcome*/) {}
  /// The answer of the operation with this number is about to be delivered.
  virtual void handleAnswered(std::uint64_t /*number*/) {}

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

/// The status of the ordered-table layer. An operation is pending until its answer has been delivered, held
/// or not; a dropped entry until it has been drained.
class PendingHwWrites final : public Asic::OrderedTableStatus {
 public:
  [[nodiscard]] bool pendingHwWrites() const override { return operations_ != 0; }
  /// The numbers of operations are compared with each other only.
  void noteState(KilnEmServer::StateDigest& digest) const {
    digest.add(std::tie(operations_, writesToRefused_));
  }
  void subscribe(Asic::ChangeSubscriber& subscriber) const override { subscribers_.add(subscriber); }
  void unsubscribe(Asic::ChangeSubscriber& subscriber) const override { subscribers_.remove(subscriber); }

  /// Returns the number of the first of these operations; the others follow it.
  std::uint64_t begin(std::size_t operations);
  void end(std::size_t operations);
  void forgetSubscribers() { subscribers_.forgetAll(); }

  /// Of the writes from now on, counted from 0, the chip refuses this; none of them if it is nothing.
  void refusedIs(std::optional<std::uint32_t> write) { writesToRefused_ = write; }
  /// A write begins: whether it is that one.
  [[nodiscard]] bool takeRefused();

 private:
  std::optional<std::uint32_t> writesToRefused_;
  std::size_t operations_ = 0;
  std::uint64_t begun_ = 0;
  mutable ChangeSubscribers subscribers_;
};

/// What the eight tables share: how they apply and answer operations, and what tools see of them. Answers are
/// late, and with a seed out of order. Operations on one key take effect in the order issued.
class SoftTable {
 public:
  using EntryState = Asic::SwTableBase::EntryState;
  using ResponseHandler = Asic::OrderedSwTable::ResponseHandler;
  using Entry = std::pair<KilnEmServer::EmResolvedKey, KilnEmServer::EmEntry>;
  /// How the operations that come from now on are met: done and answered; writes refused, removals done;
  /// done, but not answered until told.
  enum class AnswerMode : std::uint8_t { success, refuse, hold };
  enum class Order : std::uint8_t { fifo, lifo };
  /// When an operation changes the table: when it is issued, or at the latest when it is answered, the
  /// earlier ones of its key first.
  enum class Applies : std::uint8_t { issued, answered };

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
  /// Lets up to `count` held answers go, the oldest or the newest first, of which the first `skip` stay. They
  /// are delivered by the table's task, in just that order.
  void answer(Order order, std::size_t count, std::size_t skip = 0);
  [[nodiscard]] std::size_t held() const { return held_.size(); }
  /// Whether operations are answered within the call that issues them, unless they are held.
  void answerInsideCallIs(bool insideCall) { insideCall_ = insideCall; }
  /// Of the operations that follow. One that finds an earlier one of its key without effect waits with it.
  void appliesIs(Applies applies) { applies_ = applies; }
  /// Applies the operations that were issued and have no effect yet, in their order.
  virtual void applyIssued() = 0;
  /// Whether there are such operations.
  [[nodiscard]] virtual bool hasUnapplied() const = 0;

  /// Entries that the table holds.
  [[nodiscard]] virtual std::size_t fill() const = 0;
  /// The entry under a key of this table; nothing for a key of another one.
  [[nodiscard]] virtual std::optional<KilnEmServer::EmEntry> find(
      const KilnEmServer::EmResolvedKey& key) const = 0;
  /// Every entry, the least key first.
  [[nodiscard]] virtual std::vector<Entry> sortedEntries() const = 0;

  /// The server ended: what it issued is applied, its entries stay, unclaimed until they are written again;
  /// held answers are dropped.
  void serverEnded();
  /// As serverEnded, for a server that could not clean up: no answer is delivered any more.
  void serverDied();
  /// Drops the entries that are still unclaimed. Their removal is pending until commit has started the drain
  /// and it is done.
  void reconcileComplete();
  /// Starts the drain of what was issued to the hardware.
  void commit();

  /// Describes the table: as one part what it holds, as another one what it owes.
  virtual void noteState(KilnEmServer::StateDigest& digest) const;

 protected:
  /// An operation is issued: counts it, and returns its number.
  std::uint64_t beginOperation(bool isWrite);
  /// Takes over the answer of an operation, which has this outcome unless it is yet to be applied.
  void deliver(std::uint64_t number, EntryState outcome, ResponseHandler&& handler);
  /// Whether the operation that began last is refused, if it is a write.
  [[nodiscard]] bool refusing() const { return mode_ == AnswerMode::refuse || refusesThis_; }
  [[nodiscard]] bool appliesLater() const { return applies_ == Applies::answered; }
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
  /// The server does not wait for the operations any more that were issued before.
  virtual void forgetIssued() = 0;
  /// The outcome of an operation that is being answered, applied now unless it was before; nothing if it was
  /// applied when it was issued.
  virtual std::optional<EntryState> settle(std::uint64_t number) = 0;

  HardwareCounters counters_;

 private:
  struct Answer {
    Answer(std::uint64_t of, EntryState with, ResponseHandler&& told)
        : number(of), outcome(with), handler(std::move(told)) {}
    std::uint64_t number;
    EntryState outcome;
    ResponseHandler handler;
  };
  /// With room for many answers at a time, so that they are not allocated one by one.
  using Answers =
      boost::container::deque<Answer, void,
                              boost::container::deque_options_t<boost::container::block_size<64>>>;
  void noteAnswers(KilnEmServer::StateDigest& digest, const Answers& answers) const;
  /// How many unanswered operations on the key of this one were issued before it.
  [[nodiscard]] std::size_t rankOf(const Answer& answer) const;
  void runAnswers();
  void call(Answer& answer);
  static Answer takeFront(Answers& answers);

  std::string_view stem_;
  std::uint32_t capacity_;
  OperationCounters operations_;
  std::vector<TableWatcher*> watchers_;
  std::mt19937_64* random_;
  PendingHwWrites& pending_;
  MdbRoom& room_;
  AnswerMode mode_ = AnswerMode::success;
  Applies applies_ = Applies::issued;
  bool insideCall_ = false;
  bool refusesThis_ = false;
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
    issue(key, &entry, std::move(handler));
  }
  void entryRemoveWithResponseHandler(const Key& key,
                                      const Ref<const Asic::DependencyEntryHandle>& /*dependency*/,
                                      ResponseHandler handler) override {
    issue(key, nullptr, std::move(handler));
  }
  [[nodiscard]] bool hasUnapplied() const override { return !latest_.empty(); }
  void applyIssued() override {
    for (auto& [number, operation] : late_) applyLate(number, operation);
    latest_.clear();
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
  void noteState(KilnEmServer::StateDigest& digest) const override {
    digest.addPart(std::string(this->stem()), *entrys_);
    SoftTable::noteState(digest);
    for (const auto& [number, late] : late_) {
      digest.add(std::tie(late.key, late.entry, late.refused, late.outcome));
      digest.add(late_.contains(late.previous));
    }
    digest.unordered([&](auto&& item) {
      for (const auto& [key, number] : latest_) item(key);
    });
    digest.add(reconciling_);
    digest.unordered([&](auto&& item) {
      for (const Key& key : claimed_) item(key);
    });
  }

 private:
  /// An operation that takes effect when it is answered. Its outcome is known once it has.
  struct Late {
    Key key;
    std::optional<TableEntry> entry;  ///< none for a removal
    bool refused;
    std::uint64_t previous;  ///< the one before it on the same key; 0 for none
    std::optional<EntryState> outcome;
  };

  void issue(const Key& key, const TableEntry* entry, ResponseHandler&& handler) {
    const std::uint64_t number = beginOperation(entry != nullptr);
    notify(number, key, entry,
           [](TableWatcher& watcher, const HwOperation& operation) { watcher.handleIssued(operation); });
    if (appliesLater() || latest_.contains(key)) {
      std::uint64_t& latest = latest_[key];
      late_.emplace(number, Late{key, entry == nullptr ? std::nullopt : std::optional(*entry), refusing(),
                                 std::exchange(latest, number), std::nullopt});
      deliver(number, EntryState::pending_, std::move(handler));
    } else {
      deliver(number, apply(number, key, entry, refusing()), std::move(handler));
    }
  }
  template <class Tell>
  void notify(std::uint64_t number, const Key& key, const TableEntry* entry, Tell tell) {
    if (watchers().empty()) return;
    const KilnEmServer::EmResolvedKey anyKey(key);
    const auto anyEntry = entry == nullptr ? std::nullopt : std::optional<KilnEmServer::EmEntry>(*entry);
    for (TableWatcher* watcher : watchers()) {
      tell(*watcher, HwOperation{number, anyKey, anyEntry ? &*anyEntry : nullptr});
    }
  }

  EntryState apply(std::uint64_t number, const Key& key, const TableEntry* entry, bool refused) {
    const EntryState outcome = entry == nullptr ? remove(key) : write(key, *entry, refused);
    notify(number, key, entry, [outcome](TableWatcher& watcher, const HwOperation& operation) {
      watcher.handleApplied(operation, outcome);
    });
    return outcome;
  }
  void applyLate(std::uint64_t number, Late& late) {
    if (!late.outcome) {
      late.outcome = apply(number, late.key, late.entry ? &*late.entry : nullptr, late.refused);
    }
  }
  void forgetIssued() override { late_.clear(); }
  std::optional<EntryState> settle(std::uint64_t number) override {
    if (late_.empty()) return std::nullopt;
    const auto found = late_.find(number);
    if (found == late_.end()) return std::nullopt;
    std::vector<std::uint64_t> order;
    for (auto at = found; at != late_.end() && !at->second.outcome; at = late_.find(at->second.previous)) {
      order.push_back(at->first);
    }
    for (auto next = order.rbegin(); next != order.rend(); ++next) applyLate(*next, late_.at(*next));
    const auto latest = latest_.find(found->second.key);
    if (latest != latest_.end() && latest->second == number) latest_.erase(latest);
    const EntryState outcome = *found->second.outcome;
    late_.erase(found);
    return outcome;
  }

  EntryState write(const Key& key, const TableEntry& entry, bool refused) {
    if (refused) {
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
    noteChange(key, before);
    entrys_->is(key, entry);
    ++counters_.written;
    return EntryState::success_;
  }
  [[nodiscard]] bool roomForOne() const {
    return hasRoomFor(KilnEmServer::EmResolvedKey::tagOf<Key>()) &&
           (mapped_ == nullptr || mapped_->roomForOne());
  }
  EntryState remove(const Key& key) {
    const TableEntry* before = entrys_->find(key);
    if (before == nullptr) return EntryState::success_;
    if (reconciling_) claimed_.erase(key);
    noteChange(key, before);
    entrys_->del(key);
    ++counters_.removed;
    return EntryState::success_;
  }
  void noteChange(const Key& key, const TableEntry* before) {
    if (watchers().empty()) return;
    const auto entry = before == nullptr ? std::nullopt : std::optional<KilnEmServer::EmEntry>(*before);
    for (TableWatcher* watcher : watchers()) {
      watcher->handleUpcomingChange(key, entry ? &*entry : nullptr);
    }
  }

  void unclaimAll() final {
    reconciling_ = !entrys_->empty();
    claimed_ = {};
    claimed_.reserve(entrys_->size());  // so that no claim has to wait for the growth of the whole
  }
  std::size_t dropUnclaimed() override {
    const std::uint64_t before = counters_.removed;
    // An operation that has no effect yet decides about the entry of its key.
    for (const auto& [key, latest] : latest_) {
      if (reconciling_ && entrys_->has(key)) claimed_.insert(key);
    }
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
  std::map<std::uint64_t, Late> late_;  ///< unanswered, by number
  boost::unordered_flat_map<Key, std::uint64_t, KilnPlatform::ValueHash<Key>>
      latest_;                ///< of the operations that have no effect yet, the last one of each key
  bool reconciling_ = false;  ///< whether entries of a server before this one may be unclaimed
  boost::unordered_flat_set<Key, KilnPlatform::ValueHash<Key>>
      claimed_;  ///< while reconciling, all others are not
};

}  // namespace KilnAgent
