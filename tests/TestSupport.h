// Common tools of the tests of single stages: a scheduler, builders of keys and entries, recorders of the
// changes of a collection, and tables whose answers the test gives.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kiln/agent/platform/CooperativeScheduler.h"
#include "kiln/agent/platform/YieldPolicies.h"
#include "kiln/platform/Asic.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/DependencyStatus.h"
#include "kiln/runtime/stage/Stage.h"
#include "kiln/runtime/trace/Trace.h"

namespace KilnEmServer {

/// Failed comparisons print values in their text form.
template <KilnPlatform::Described T>
void PrintTo(const T& value, std::ostream* out) {
  *out << KilnPlatform::textOf(value);
}

}  // namespace KilnEmServer

namespace KilnTest {

using namespace KilnEmServer;  // NOLINT: a header of tests only
using Hardware::Kiln::FapId;
using Hardware::Kiln::LocalCoreId;
using KilnPlatform::KeyedCollection;
using KilnPlatform::KeySubscriber;
using KilnPlatform::Task;
using KilnPlatform::Unit;

/// A scheduler with the record to which stages report. A slice ends after `yieldEvery` items; 0 is no limit.
class Bench {
 public:
  explicit Bench(std::uint32_t yieldEvery = 0)
      : scheduler(std::make_shared<KilnAgent::CooperativeScheduler>(
            yieldEvery == 0 ? nullptr : std::make_unique<KilnAgent::EveryItems>(yieldEvery))) {}

  [[nodiscard]] StageControl control(bool synchronous = false) const { return {scheduler, 3, synchronous}; }
  void settle() const { scheduler->runUntilIdle(); }
  [[nodiscard]] bool completed(const std::string& name) const { return status->completedHas(name); }

  /// Runs `make` inside a slice, as the server does, so that a first scan yields as well.
  template <class Make>
  auto create(Make make) const {
    struct Creation {
      Make& make;
      decltype(make()) made = nullptr;
      bool done = false;
    } creation{make};
    Task task(
        scheduler, 100, "create",
        [](void* owner) {
          auto& self = *static_cast<Creation*>(owner);
          self.made = self.make();
          self.done = true;
        },
        &creation);
    task.scheduleTask();
    while (!creation.done) scheduler->runOne();
    return creation.made;
  }

  Ref<KilnAgent::CooperativeScheduler> scheduler;
  Ref<DependencyStatusRecord> status = std::make_shared<DependencyStatusRecord>();
};

/// An endless load: a task that does `work`, with the number of its slice, and becomes ready again.
template <class Work>
class EndlessLoad {
 public:
  EndlessLoad(const Ref<KilnPlatform::TaskScheduler>& scheduler, int priority, Work work)
      : work_(std::move(work)),
        task_(
            scheduler, priority, "load",
            [](void* owner) {
              auto& self = *static_cast<EndlessLoad*>(owner);
              self.work_(self.slice_++);
              self.task_.scheduleTask();
            },
            this) {
    task_.scheduleTask();
  }

 private:
  Work work_;
  std::uint32_t slice_ = 0;
  Task task_;
};

/// Runs slices until none is ready; returns the largest change of `count()` in one of them.
template <class Count>
std::size_t mostPerSlice(KilnAgent::CooperativeScheduler& scheduler, Count count) {
  std::size_t most = 0;
  for (std::size_t before = count(); scheduler.runOne();) {
    const std::size_t after = count();
    most = std::max(most, std::max(before, after) - std::min(before, after));
    before = after;
  }
  return most;
}

/// Captures traces during its lifetime.
class TraceCapture {
 public:
  explicit TraceCapture(int level) {
    TraceFacility::instance().sinkIs(ring_);
    TraceFacility::instance().levelIs(level);
  }
  ~TraceCapture() {
    TraceFacility::instance().levelIs(0);
    TraceFacility::instance().sinkDel(ring_);
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  /// How many messages of a level contain `part`.
  [[nodiscard]] std::size_t count(int level, std::string_view part) const {
    std::size_t found = 0;
    for (const auto& message : ring_->messages()) {
      if (message.level == level && message.text.find(part) != std::string::npos) ++found;
    }
    return found;
  }
  /// How many messages have the descriptor's text `text`.
  [[nodiscard]] std::size_t countOfText(std::string_view text) const {
    return static_cast<std::size_t>(
        std::count_if(ring_->messages().begin(), ring_->messages().end(),
                      [&](const RingTraceSink::Message& message) { return message.format == text; }));
  }
  void clear() { ring_->clear(); }
  [[nodiscard]] const auto& messages() const { return ring_->messages(); }

 private:
  Ref<RingTraceSink> ring_ = std::make_shared<RingTraceSink>(100000);
};

/// Records every change of a collection, with the new value.
template <class K, class V>
class Recorder final : public KeySubscriber<K> {
 public:
  struct Change {
    K key;
    std::optional<V> value;
  };
  explicit Recorder(const KeyedCollection<K, V>& collection) : collection_(collection) {
    collection_.subscribe(*this);
  }
  ~Recorder() { collection_.unsubscribe(*this); }
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  void handleChange(const K& key) override { changes.push_back({key, collection_.get(key)}); }
  [[nodiscard]] std::vector<K> deletions() const {
    std::vector<K> deleted;
    for (const Change& change : changes) {
      if (!change.value) deleted.push_back(change.key);
    }
    return deleted;
  }
  /// The values that the key had, one after the other.
  [[nodiscard]] std::vector<std::optional<V>> of(const K& key) const {
    std::vector<std::optional<V>> values;
    for (const Change& change : changes) {
      if (change.key == key) values.push_back(change.value);
    }
    return values;
  }

  std::vector<Change> changes;

 private:
  const KeyedCollection<K, V>& collection_;
};
template <class C>
Recorder(const C&) -> Recorder<typename C::Key, typename C::Value>;

/// The content of a collection, sorted by key.
template <class C>
auto contentOf(const C& collection) {
  std::map<typename C::Key, typename C::Value> content;
  KilnPlatform::forEachIn(collection,
                          [&](const auto& key, const auto& value) { content.emplace(key, value); });
  return content;
}

/// The sum of the sizes of a stage's groups, caches and records.
inline std::size_t localEntries(const Stage& stage) {
  std::size_t entries = 0;
  for (const LocalState* state : stage.localStates()) entries += state->size();
  return entries;
}

// --- Values ------------------------------------------------------------------------------------------------

constexpr auto kMplsType = EmComposerKeyUnionTag::isemMplsEntryKey;

inline EmLogicalKey mplsKey(FeatureType feature, std::uint32_t label, FapId fap = FapId::allFap(),
                            LocalCoreId core = LocalCoreId::all()) {
  return {feature, fap, core, KilnTunnelNiLib::IsemMplsComposerKey{label, 0}};
}
inline EmHwKey mplsHwKey(std::uint32_t label, FapId fap = FapId::allFap(),
                         LocalCoreId core = LocalCoreId::all()) {
  return {fap, core, KilnTunnelNiLib::IsemMplsEntryKey{label, 0}};
}
inline const EmHwKey kH1 = mplsHwKey(1);
inline const EmHwKey kH2 = mplsHwKey(2);
inline EmLogicalKey fodoKey(std::uint32_t fodoId, FeatureType feature = FeatureType::vpws) {
  return {feature, FapId::allFap(), LocalCoreId::all(), KilnTunnelNiLib::EsemFodoComposerKey{fodoId}};
}
inline EmConfigEntry mplsEntry(std::uint32_t lif, std::uint32_t version = 1) {
  return {KilnTunnelNiLib::IsemMplsEntry{lif, 0}, version};
}

// --- Tables ------------------------------------------------------------------------------------------------

/// A table of class `Base` that keeps each operation until the test answers it, in any order, or answers
/// inside the call.
template <class Base>
class FakeTable final : public Base {
 public:
  using Key = typename Base::Key;
  using Entry = typename Base::Entry;
  using State = Asic::SwTableBase::EntryState;
  struct Operation {
    Key key;
    std::optional<Entry> entry;  ///< none for a removal
    Asic::OrderedSwTable::ResponseHandler handler;
  };

  void entryWriteWithResponseHandler(const Key& key, const Entry& entry,
                                     const Ref<const Asic::DependencyEntryHandle>& /*dependency*/,
                                     Asic::OrderedSwTable::ResponseHandler handler) override {
    entries_.is(key, entry);
    issue({key, entry, std::move(handler)});
  }
  void entryRemoveWithResponseHandler(const Key& key,
                                      const Ref<const Asic::DependencyEntryHandle>& /*dependency*/,
                                      Asic::OrderedSwTable::ResponseHandler handler) override {
    entries_.del(key);
    issue({key, std::nullopt, std::move(handler)});
  }
  [[nodiscard]] const typename Base::Entrys& entrys() const override { return entries_; }

  /// Answers the operation at `index` among those that wait.
  void answer(std::size_t index, State state = State::success_) {
    Operation operation = std::move(waiting[index]);
    waiting.erase(waiting.begin() + static_cast<std::ptrdiff_t>(index));
    operation.handler(std::make_shared<const Asic::OrderedSwTable::EntryHandle>(state));
  }
  void answerAll() {
    while (!waiting.empty()) answer(0);
  }

  bool answerInside = false;
  std::vector<Operation> waiting;
  std::size_t writes = 0;
  std::size_t removals = 0;

 private:
  void issue(Operation operation) {
    ++(operation.entry ? writes : removals);
    waiting.push_back(std::move(operation));
    if (answerInside) answer(waiting.size() - 1);
  }
  Collection<Key, Entry> entries_;
};

/// A table interface that owns the tables it was given.
template <class Base>
class FakeInterface final : public Base {
 public:
  [[nodiscard]] Asic::OrderedSwTable* orderedSwTable(Asic::UnitId unit) const override {
    const auto at = tables.find(unit);
    return at == tables.end() ? nullptr : at->second.get();
  }
  std::map<Asic::UnitId, Ref<Asic::OrderedSwTable>> tables;
};

}  // namespace KilnTest
