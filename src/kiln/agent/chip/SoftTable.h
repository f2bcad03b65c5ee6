// One table of the software chip: applies operations when it receives them or when it answers them.
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
#include "kiln/runtime/collections/PrefetchedItems.h"
#include "kiln/runtime/stage/StateDigest.h"

namespace KilnAgent {

using KilnPlatform::Ref;

/// Changes of the hardware, and writes that were not necessary.
struct HardwareCounters {
  std::uint64_t written = 0;    ///< entries inserted or replaced by others
  std::uint64_t removed = 0;    ///< removed entries
  std::uint64_t unchanged = 0;  ///< writes of entries that the table held already
};

/// The operations that the server issued to a table, whatever their outcome.
struct OperationCounters {
  std::uint64_t writes = 0;
  std::uint64_t removals = 0;
};

/// One operation that the server issued.
struct HwOperation {
  std::uint64_t number;  ///< grows with each operation of the chip
  const KilnEmServer::EmResolvedKey& key;
  const KilnEmServer::EmEntry* entry;  ///< to be written; null for a removal
};

/// Notified of the events of a table. Every function but handleUpcomingChange does nothing by default.
class TableWatcher {
 public:
  using EntryState = Asic::SwTableBase::EntryState;
  /// The server issued an operation, which has not taken effect yet.
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

/// The subscribers of one object's changes. They may be added and removed during a notification.
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
  /// The numbers of operations are compared only with each other.
  void noteState(KilnEmServer::StateDigest& digest) const {
    digest.add(std::tie(operations_, writesToRefused_));
  }
  void subscribe(Asic::ChangeSubscriber& subscriber) const override { subscribers_.add(subscriber); }
  void unsubscribe(Asic::ChangeSubscriber& subscriber) const override { subscribers_.remove(subscriber); }

  /// Returns the number of the first of these operations; the others follow it.
  std::uint64_t begin(std::size_t operations);
  void end(std::size_t operations);
  void forgetSubscribers() { subscribers_.forgetAll(); }

  /// The chip refuses one write, counted from 0 from now on; none if `write` is empty.
  void refusedIs(std::optional<std::uint32_t> write) { writesToRefused_ = write; }
  /// Called for each write: whether it is the one to refuse.
  [[nodiscard]] bool takeRefused();

 private:
  std::optional<std::uint32_t> writesToRefused_;
  std::size_t operations_ = 0;
  std::uint64_t begun_ = 0;
  mutable ChangeSubscribers subscribers_;
};

/// The common part of the tables: how they apply and answer operations, and what tools read. Answers are
/// late, and shuffled if there is a seed. Operations on one key take effect in the order issued.
class SoftTable {
 public:
  using EntryState = Asic::SwTableBase::EntryState;
  using ResponseHandler = Asic::OrderedSwTable::ResponseHandler;
  using Entry = std::pair<KilnEmServer::EmResolvedKey, KilnEmServer::EmEntry>;
  /// Reply mode for subsequent operations: applied and answered; writes refused and removals applied;
  /// applied, but the answers held.
  enum class AnswerMode : std::uint8_t { success, refuse, hold };
  enum class Order : std::uint8_t { fifo, lifo };
  /// When an operation changes the table: when it is issued, or at the latest when it is answered, after the
  /// earlier operations on its key.
  enum class Applies : std::uint8_t { issued, answered };

  /// The settings that a table gets from its chip. `random` is null if answers keep their order.
  struct Setting {
    std::string_view stem;  ///< for example "isemMpls"
    std::uint32_t capacity = 0;
    Ref<KilnPlatform::TaskScheduler> scheduler;
    std::mt19937_64* random = nullptr;
    PendingHwWrites* pending = nullptr;
    MdbRoom* room = nullptr;
    std::string file;  ///< stores the entries beyond the process's life; empty for none
  };

  explicit SoftTable(const Setting& setting);
  virtual ~SoftTable() = default;
  SoftTable(const SoftTable&) = delete;
  SoftTable& operator=(const SoftTable&) = delete;

  [[nodiscard]] std::string_view stem() const { return stem_; }
  /// Number of entries that the table can hold, if the FAPs have room for them.
  [[nodiscard]] std::uint32_t capacity() const { return capacity_; }
  /// A smaller capacity removes no stored entry.
  void capacityIs(std::uint32_t entries) { capacity_ = entries; }
  [[nodiscard]] const HardwareCounters& counters() const { return counters_; }
  [[nodiscard]] const OperationCounters& operations() const { return operations_; }
  /// Adds or removes a watcher. It must be added at most once, and removed before it is destroyed.
  void watcherIs(TableWatcher& watcher, bool on);

  [[nodiscard]] AnswerMode answerMode() const { return mode_; }
  /// When the mode changes from `hold`, every held answer is released, in the order of the operations.
  void answerModeIs(AnswerMode mode);
  /// Releases up to `count` held answers, the oldest or the newest first, and skips the first `skip` of them.
  /// The table's task delivers them in exactly that order.
  void answer(Order order, std::size_t count, std::size_t skip = 0);
  [[nodiscard]] std::size_t held() const { return held_.size(); }
  /// Whether operations are answered inside the call that issues them, unless their answers are held.
  void answerInsideCallIs(bool insideCall) { insideCall_ = insideCall; }
  /// Applies to subsequent operations. An operation waits if an earlier one on its key has not taken effect.
  void appliesIs(Applies applies) { applies_ = applies; }
  /// Applies the operations that have not taken effect yet, in the order issued.
  virtual void applyIssued() = 0;
  /// Whether there are such operations.
  [[nodiscard]] virtual bool hasUnapplied() const = 0;

  /// Number of stored entries.
  [[nodiscard]] virtual std::size_t fill() const = 0;
  /// The entry under a key of this table; none for a key of another table.
  [[nodiscard]] virtual std::optional<KilnEmServer::EmEntry> find(
      const KilnEmServer::EmResolvedKey& key) const = 0;
  /// Every entry, the least key first.
  [[nodiscard]] virtual std::vector<Entry> sortedEntries() const = 0;

  /// The server ended: its operations are applied, its entries are kept as unclaimed until they are written
  /// again, and held answers are dropped.
  void serverEnded();
  /// As serverEnded, for a server that could not clean up: no further answer is delivered.
  void serverDied();
  /// Drops the entries that are still unclaimed. Their removal is pending until commit has started the drain
  /// and the drain is done.
  void reconcileComplete();
  /// Starts the drain of issued operations to the hardware.
  void commit();

  /// Describes the table in two parts: its content, and the answers that it owes.
  virtual void noteState(KilnEmServer::StateDigest& digest) const;

 protected:
  /// An operation is issued: counts it, and returns its number.
  std::uint64_t beginOperation(bool isWrite);
  /// Delivers the answer of an operation with this outcome, unless the operation must be applied first.
  void deliver(std::uint64_t number, EntryState outcome, ResponseHandler&& handler);
  /// Whether the latest operation is refused, if it is a write.
  [[nodiscard]] bool refusing() const { return mode_ == AnswerMode::refuse || refusesThis_; }
  [[nodiscard]] bool appliesLater() const { return applies_ == Applies::answered; }
  [[nodiscard]] const std::vector<TableWatcher*>& watchers() const { return watchers_; }
  /// Whether there is room for one more entry of this table's key type.
  [[nodiscard]] bool hasRoomFor(KilnEmServer::EmResolvedKeyUnionTag tag) const {
    return fill() < capacity_ && room_.hasRoom(tag);
  }

  /// Marks every entry as unclaimed. The cost per entry is only the memory for its claim.
  virtual void unclaimAll() = 0;
  /// Returns the number of dropped entries.
  virtual std::size_t dropUnclaimed() = 0;
  virtual void forgetTableSubscribers() = 0;
  /// The server no longer waits for the operations issued so far.
  virtual void forgetIssued() = 0;
  /// The outcome of an operation that is being answered; applies it if it has not taken effect yet. Nothing
  /// if it was applied when it was issued.
  virtual std::optional<EntryState> settle(std::uint64_t number) = 0;

  HardwareCounters counters_;

 private:
  struct Answer {
    Answer(std::uint64_t of, EntryState with, ResponseHandler&& response)
        : number(of), outcome(with), handler(std::move(response)) {}
    std::uint64_t number;
    EntryState outcome;
    ResponseHandler handler;
  };
  /// A container with blocks of many answers, so that they are not allocated one by one.
  using Answers =
      boost::container::deque<Answer, void,
                              boost::container::deque_options_t<boost::container::block_size<64>>>;
  void noteAnswers(KilnEmServer::StateDigest& digest, const Answers& answers) const;
  /// Number of unanswered operations on the same key that were issued before this one.
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
  Answers due_;       ///< delivered in this order, or shuffled with a seed
  Answers released_;  ///< formerly held, delivered in this order
  Answers held_;
  std::size_t dropped_ = 0;   ///< removals without a waiting server that are not committed yet
  std::size_t draining_ = 0;  ///< such removals that are committed
  KilnPlatform::Task task_;
};

/// One of the table classes, as a software table. The capacity includes entries that are still unclaimed.
template <class SwTable>
class SoftSwTable final : public SwTable, public SoftTable {
 public:
  using Key = typename SwTable::Key;
  using TableEntry = typename SwTable::Entry;

  /// The entries of the file are unclaimed. Throws InputError if the file cannot be used.
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
    if (mapped_ == nullptr) prefetcher_.prefetch(*entrys_, key, next);
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
  /// An operation that takes effect when it is answered. Its outcome is known afterwards.
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
    claimed_.reserve(entrys_->size());  // so that no claim waits for a rehash
  }
  std::size_t dropUnclaimed() override {
    const std::uint64_t before = counters_.removed;
    // An operation that has not taken effect yet decides about the entry of its key.
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
  MappedCollection<Key, TableEntry>* mapped_ = nullptr;  ///< the same object if it is stored in a file
  KilnEmServer::KeyPrefetcher<typename SwTable::Entrys> prefetcher_;
  std::map<std::uint64_t, Late> late_;  ///< unanswered, by number
  boost::unordered_flat_map<Key, std::uint64_t, KilnPlatform::ValueHash<Key>>
      latest_;                ///< per key, the last operation that has not taken effect yet
  bool reconciling_ = false;  ///< whether entries of an earlier server may be unclaimed
  boost::unordered_flat_set<Key, KilnPlatform::ValueHash<Key>>
      claimed_;  ///< while reconciling; all other entries are unclaimed
};

}  // namespace KilnAgent
