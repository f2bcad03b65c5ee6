// Inputs of a stage: an event for each key of a collection, from the initial scan and from every later
// change.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "kiln/platform/Collection.h"
#include "kiln/platform/FixedString.h"
#include "kiln/platform/Value.h"
#include "kiln/runtime/collections/Collection.h"
#include "kiln/runtime/collections/PendingKeys.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

using KilnPlatform::FixedString;
using KilnPlatform::KeySubscriber;
using KilnPlatform::OptionalText;
using KilnPlatform::ScanCursor;

/// When a change of an input is handled.
enum class Reaction : std::uint8_t {
  queued,     ///< on the stage's task, once however often the key changed in the meantime
  immediate,  ///< inside the call that made the change
  none,       ///< not at all: only the initial scan reads the collection
};

namespace detail {

template <class Handler>
struct HandlerClass;
template <class S, class... Args>
struct HandlerClass<void (S::*)(Args...)> {
  using type = S;
};

/// The stage class of a handler.
template <auto Handler>
using StageOf = typename HandlerClass<decltype(Handler)>::type;

/// Runs one item of a stage's work. A range error that escapes affects that item only: it is reported, and
/// the stage continues with the next.
template <class Key, class Work>
void runItem(Stage& stage, const Key& key, Work&& work) {
  try {
    work();
  } catch (const std::range_error& error) {
    stage.tracer().trace<0>("{}: key {} left out: {}", stage.name(), key, std::string_view(error.what()));
  }
}

/// "ConfigByFeatureSm0" for the argument "configByFeature".
std::string inline childNameOf(std::string_view argument, int number) {
  std::string name = fmt::format("{}Sm{}", argument, number);
  if (name[0] >= 'a' && name[0] <= 'z') name[0] = static_cast<char>(name[0] - 'a' + 'A');
  return name;
}

[[noreturn]] inline void nullArgument(std::string_view argument, const char* file, int line) {
  KilnPlatform::assertionFailed(
      fmt::format("{}() && \"Pointer SM args cannot be null unless they are marked Optional\"", argument),
      file, line);
}

}  // namespace detail

/// Work that a stage creates for itself: there is no collection to subscribe to or to walk. It is not part of
/// the initial scan, unless scanItem does it.
class WorkQueue : public InputBase {
 public:
  void checkArgument() const final {}
  [[nodiscard]] bool hasPending() const final { return pendingCount() != 0; }
  std::size_t drain(Arrival limit, bool& yielded) final {
    return stage_.control().drainWhile([&] { return hasPending() && isBefore(headArrival(), limit); },
                                       [&] { handleNext(); }, yielded);
  }

 protected:
  /// Does the first pending work.
  virtual void handleNext() = 0;
  /// `name` is that of the work, as of an argument.
  WorkQueue(Stage& stage, std::string_view name)
      : InputBase(stage, detail::childNameOf(name, stage.takeChildNumber()), stage.takePipelineNumber(),
                  name) {}

 private:
  void subscribe() final {}
  void unsubscribe() final {}
  bool scanItem() override { return false; }
  [[nodiscard]] std::size_t collectionSize() const final { return pendingCount(); }
};

/// The half of an input that knows its key: the pending list and the walk. `Self::handleKey(key)` handles one
/// key; `Self::collection()` is the walked collection.
template <class Self, class K, Reaction reaction>
class KeyedInput : public InputBase, public KilnPlatform::KeySubscriber<K> {
  using Partition = KilnPlatform::KeyPartition<K>;

 public:
  [[nodiscard]] bool hasPending() const final { return !pending_.empty(); }
  [[nodiscard]] std::size_t pendingCount() const final { return pending_.size(); }
  [[nodiscard]] Arrival headArrival() const final { return pending_.headArrival(); }

  std::size_t drain(Arrival limit, bool& yielded) final {
    const bool far = KeySpace<K>::instance().exceedsCache();
    const bool ahead = far && pending_.size() > 1;
    stage_.setSingleEvent(far && !ahead);
    const auto arrived = [&] { return !pending_.empty() && isBefore(pending_.headArrival(), limit); };
    const auto handleFirst = [&]() KILN_ALWAYS_INLINE_LAMBDA {
      if (ahead) prefetchUpcoming();
      const auto taken = pending_.take();
      detail::runItem(stage_, taken.key(), [&] { self().handlePendingKey(taken.key()); });
    };
    return stage_.control().drainWhile(arrived, handleFirst, yielded);
  }

  void handleChange(const K& key) final {
    if constexpr (reaction == Reaction::immediate) {
      const KilnPlatform::RunningStageScope scope(stage_.name());
      handleItem(key);
    } else {
      if constexpr (requires { self().isNeeded(key); }) {
        if (!self().isNeeded(key)) {
          if (traced()) [[unlikely]]
            this->traceUnselected(key);
          return;
        }
      }
      const bool first = pending_.empty();
      if (!pending_.add(key, stage_.arrivals())) {
        stage_.noteCoalesced();
        return;
      }
      stage_.noteArrival(*this, first);
    }
  }
  [[nodiscard]] bool changeWaits(const K& key) const final { return pending_.has(key); }
  [[nodiscard]] bool changeWaits(const void* space, const void* key) const final {
    return space == &KeySpace<K>::instance() && changeWaits(*static_cast<const K*>(key));
  }
  void noteState(StateDigest& digest) const override {
    InputBase::noteState(digest);
    if (!inputScanComplete()) digest.addLeft(static_cast<const Self*>(this)->collection(), cursor_);
  }
  void notePending(PendingDigests& pending) const final {
    const StateDigest::Value own = identity();
    pending_.forEach([&](const K& key, Arrival arrival) {
      pending.push_back({arrival, StateDigest::valueOf(own, key)});
    });
  }

 protected:
  KeyedInput(Stage& stage, std::string childName, int pipeline, std::string_view streamName)
      : InputBase(stage, std::move(childName), pipeline, streamName), prefetchSet_(stage.prefetchSet<K>()) {}

  /// Keys of partitions that are not selected are no items if a whole group of them is left out; but a run of
  /// them counts as one after some pages of handles, so that its slice ends in time, in collections that are
  /// walked by handle. Traces have a walk of their own.
  bool scanItem() final {
    constexpr std::size_t kPagesPerItem = 32;
    constexpr std::size_t kPerPage = ColumnPlaces::kPerPage;
    cursor_.skipped = skipped_;
    cursor_.skippedBelow = (cursor_.index / kPerPage + kPagesPerItem) * kPerPage;
    if (traced()) [[unlikely]]
      traceSkipped(cursor_);
    while (const K* key = self().collection().scanNext(cursor_)) {
      const KeyUse<K> held(*key);
      if (!isSelected(held.key())) {
        if (traced()) this->traceUnselected(held.key());
        if (isSkipped(held.key()) && cursor_.index <= cursor_.skippedBelow) continue;
        return true;
      }
      handleItem(held.key());
      return true;
    }
    return false;
  }
  [[nodiscard]] std::size_t collectionSize() const final {
    return static_cast<const Self*>(this)->collection().size();
  }
  void subscribe() final {
    selected_ = this->partitions();
    skipped_.set();
    for (std::size_t partition = 0; partition < selected_.size(); ++partition) {
      if (selected_[partition]) skipped_.reset(Partition::groupOf(partition));
    }
    if constexpr (reaction != Reaction::none) self().collection().subscribe(*this);
  }
  void unsubscribe() final {
    if constexpr (reaction != Reaction::none) self().collection().unsubscribe(*this);
  }
  void handleItem(const K& key) {
    detail::runItem(stage_, key, [&] { self().handleKey(key); });
  }
  Self& self() { return *static_cast<Self*>(this); }
  void handlePendingKey(const K& key) { self().handleKey(key); }
  [[nodiscard]] bool mayPause() const final { return reaction != Reaction::immediate; }
  [[nodiscard]] bool reactsInside() const final { return reaction == Reaction::immediate; }
  /// Whether the stage selected the key's partition.
  [[nodiscard]] bool isSelected(const K& key) const {
    return Partition::kCount == 1 || selected_[Partition::of(key)];
  }
  /// Restarts the walk over the collection at its first key.
  void restartScan() {
    cursor_ = {};
    InputBase::restartScan();
  }

 private:
  /// With at most so many pending keys, recently written data is still in the core's own cache: an entry has
  /// about a kilobyte in all stages, such caches have half a megabyte or more.
  static constexpr std::size_t kInCoreCache = 512;

  /// Prefetches the data of keys that will be handled soon: first the values under the key itself; later,
  /// when those are in the cache, the data that the stage itself names.
  void prefetchUpcoming() {
    pending_.prefetchFar([&](auto handle) {
      const auto& collection = self().collection();
      if constexpr (requires { collection.places(); }) {
        prefetchSet_.prefetch(handle, &collection.places());
        if (pending_.size() > kInCoreCache) collection.prefetch(handle);
      } else {
        prefetchSet_.prefetch(handle);
        if constexpr (requires { Self::kInner; }) collection.prefetch(handle);
      }
    });
    if constexpr (requires(const K& key) { self().prefetchFor(key); }) {
      pending_.prefetchNear([&](const K& key) { self().prefetchFor(key); });
    }
  }

  /// Whether changes that the stage did not select are traced.
  [[nodiscard]] bool traced() const { return stage_.tracer().enabled(6); }
  /// Traces the keys that the walk's next step will skip.
  [[gnu::cold]] void traceSkipped(KilnPlatform::ScanCursor<K> ahead) {
    if constexpr (requires { self().collection().places(); }) {
      ahead.skipped.reset();
      while (const K* key = self().collection().scanNext(ahead)) {
        if (ahead.index > ahead.skippedBelow || !isSkipped(*key)) return;
        const KeyUse<K> held(*key);
        this->traceUnselected(held.key());
      }
    }
  }
  /// Whether the key's whole group is left out.
  [[nodiscard]] bool isSkipped(const K& key) const {
    return skipped_[Partition::groupOf(Partition::of(key))];
  }

  KilnPlatform::ScanCursor<K> cursor_;
  KilnPlatform::PartitionSet<K> selected_;   ///< once it has subscribed
  std::bitset<Partition::kGroups> skipped_;  ///< groups without a selected partition
  PendingKeys<K> pending_;
  const PrefetchSet& prefetchSet_;
};

/// from( argument.attribute[] ): calls `Handler(key, value)` for each key, with a null value if the key is
/// absent. `From` is the declaration's trace, with placeholders for the key and, if it names one, the value.
/// `Select`, a function of the stage, returns the partitions that the stage selects; it is called once, when
/// the input subscribes. `Needed`, a function of the stage from the key alone, selects what a partition
/// cannot express: keys for which it is false never join the pending list; a walk handles every key of the
/// partitions. `Filter` is the trace of a key of another partition; without it such a key is not traced. If
/// the stage has a public `prefetchFor(key)`, it is called for a key that will be handled soon; it calls
/// `prefetchKey` for the keys that the handler will look up in addition.
template <class Attr, FixedString Argument, auto Handler, FixedString From,
          Reaction reaction = Reaction::queued, auto Select = nullptr, auto Needed = nullptr,
          FixedString Filter = "">
class Input final : public KeyedInput<Input<Attr, Argument, Handler, From, reaction, Select, Needed, Filter>,
                                      typename Attr::Key, reaction> {
  using Base = KeyedInput<Input, typename Attr::Key, reaction>;
  using StageClass = detail::StageOf<Handler>;
  using Key = typename Attr::Key;
  using Value = typename Attr::Value;
  using EntityRef = Ref<const typename Attr::Entity>;

 public:
  Input(StageClass& stage, EntityRef entity, std::string_view streamName = "vok_pipeline0")
      : Base(stage, detail::childNameOf(Argument.view(), stage.takeChildNumber()), stage.takePipelineNumber(),
             streamName),
        owner_(stage),
        entity_(std::move(entity)) {
    stage.readEntityIs(entity_.get());
    if (entity_ != nullptr) stage.prefetchSetAdd(collection());
  }
  ~Input() override {
    this->stop();
    if (column_ != nullptr) withReadOnWrite([this](ColumnList& columns) { columns.remove(*column_); });
  }

  void checkArgument() const override {
    if (entity_ == nullptr) detail::nullArgument(Argument.view(), __FILE__, __LINE__);
  }
  /// Inside each change the stage looks its key up in its `map`: the writer prefetches it.
  template <class Map>
  void readSynchronously(const Map& map) {
    if constexpr (requires { map.places(); }) {
      column_ = &map.places();
      withReadOnWrite([this](ColumnList& columns) { columns.add(*column_); });
    }
  }
  [[nodiscard]] const auto& collection() const { return Attr::of(*entity_); }
  [[nodiscard]] const Value* find(const Key& key) const { return collection().find(key); }
  void addReads(std::vector<const void*>& collections) const override {
    if (entity_ != nullptr) collections.push_back(KilnPlatform::addressOf(collection()));
  }
  void prefetchFor(const Key& key) const requires requires(const StageClass& stage) {
    stage.prefetchFor(key);
  }
  { owner_.prefetchFor(key); }

  void handleKey(const Key& key) {
    const Value* value = find(key);
    traceFrom(key, value);
    (owner_.*Handler)(key, value);
  }

  [[nodiscard]] bool isNeeded(const Key& key) const requires(!std::is_null_pointer_v<decltype(Needed)>) {
    return (owner_.*Needed)(key);
  }
  void traceUnselected(const Key& key) const override {
    if (!this->stage_.tracer().enabled(6)) return;
    traceFrom(key, find(key));
    if constexpr (!Filter.view().empty()) {
      if (!this->isSelected(key)) (void)this->stage_.template filter<Filter>(false);
    }
  }
  [[nodiscard]] KilnPlatform::PartitionSet<Key> partitions() const override {
    if constexpr (std::is_null_pointer_v<decltype(Select)>) {
      return Base::partitions();
    } else {
      return std::invoke(Select, owner_);
    }
  }

 private:
  void traceFrom(const Key& key, const Value* value) const {
    this->stage_.tracer().template trace<7>(TraceMessage<7, Key, OptionalText<Value>>(From.data), key,
                                            OptionalText<Value>{value});
  }
  template <class Use>
  void withReadOnWrite(Use&& use) {
    if constexpr (requires { collection().readOnWrite(); }) {
      if (entity_ != nullptr) use(collection().readOnWrite());
    }
  }

  StageClass& owner_;
  EntityRef entity_;
  const ColumnPlaces* column_ = nullptr;  ///< of readSynchronously
};

/// from( argument.outer[].inner[] ): the outer collection holds references to entities, each with an inner
/// collection. Calls `Handler(outerKey, key, value)` for each inner key. When an outer entry is removed, or
/// refers to another entity, every key of the old one is checked again, and handled as absent if no other
/// entity has it. With immediate reactions both a new outer entry and a change of an inner key are handled
/// inside the call that makes them. If the stage has a public `prefetchFor(outerKey, key)`, it is called for
/// an inner key that will be handled soon.
template <class OuterAttr, class InnerAttr, FixedString Argument, auto Handler, FixedString From,
          Reaction reaction = Reaction::queued>
class NestedInput final
    : public KeyedInput<NestedInput<OuterAttr, InnerAttr, Argument, Handler, From, reaction>,
                        typename OuterAttr::Key, reaction> {
  using Base = KeyedInput<NestedInput, typename OuterAttr::Key, reaction>;
  using StageClass = detail::StageOf<Handler>;
  using OuterKey = typename OuterAttr::Key;
  using Key = typename InnerAttr::Key;
  using Value = typename InnerAttr::Value;
  using EntityRef = Ref<const typename OuterAttr::Entity>;
  using InnerRef = Ref<const typename InnerAttr::Entity>;

  /// The input of one inner collection. While it retires, its walk and its pending keys only decide whether
  /// the keys that it had still exist elsewhere.
  class Inner final : public KeyedInput<Inner, Key, reaction> {
    using InnerBase = KeyedInput<Inner, Key, reaction>;

   public:
    static constexpr bool kInner = true;  ///< the stage has its collection only temporarily
    Inner(NestedInput& parent, const OuterKey& outerKey, InnerRef entity)
        : InnerBase(parent.stage_, parent.innerName_, parent.pipeline(), parent.streamName()),
          parent_(parent),
          outerKey_(outerKey),
          entity_(std::move(entity)) {}
    ~Inner() override { this->stop(); }

    void checkArgument() const override {}
    [[nodiscard]] const auto& collection() const { return InnerAttr::of(*entity_); }
    void handleKey(const Key& key) {
      parent_.handleInnerKey(outerKey_, key,
                             retiring_ ? parent_.find(outerKey_, key) : collection().find(key));
    }
    void prefetchFor(const Key& key) const requires
        requires(const StageClass& stage, const OuterKey& outerKey) {
      stage.prefetchFor(outerKey, key);
    }
    { parent_.owner_.prefetchFor(outerKey_, key); }
    void handlePendingKey(const Key& key) {
      if (retiring_) {
        static constexpr auto kMissed = "We missed notifications that happened to " + InnerAttr::kName +
                                        " before the enclosing entity got deleted";
        this->stage_.tracer().template trace<7>(TraceMessage<7>(kMissed.data));
      }
      handleKey(key);
    }
    [[nodiscard]] const InnerRef& entity() const { return entity_; }

    /// The outer entry no longer refers to this entity.
    void retire() {
      retiring_ = true;
      this->stage_.reapRequested();
      this->restartScan();
    }
    [[nodiscard]] bool retired() const {
      return retiring_ && this->inputScanComplete() && !this->hasPending();
    }
    /// An entity that the outer collection no longer refers to is described here, and nowhere else.
    void noteState(StateDigest& digest) const override {
      InnerBase::noteState(digest);
      const auto* current = parent_.collection().find(outerKey_);
      const bool left = current == nullptr || *current != entity_;
      digest.add(left);
      if (left) digest.addContent(collection());
    }

   private:
    [[nodiscard]] std::string_view scanKind() const override { return "child"; }
    [[nodiscard]] bool isChild() const override { return true; }
    [[nodiscard]] std::string taskInstance() const override {
      return fmt::format("{}[ {} ]{}", this->stage_.name(), outerKey_, retiring_ ? " retiring" : "");
    }
    [[nodiscard]] bool parentScanComplete() const override { return parent_.inputScanComplete(); }
    [[nodiscard]] StateDigest::Value identity() const override {
      return StateDigest::valueOf(this->pipeline(), outerKey_, retiring_);
    }

    NestedInput& parent_;
    OuterKey outerKey_;
    InnerRef entity_;
    bool retiring_ = false;
  };

 public:
  NestedInput(StageClass& stage, EntityRef entity, std::string_view streamName = "vok_pipeline0")
      : Base(stage, detail::childNameOf(Argument.view(), stage.takeChildNumber()), stage.takePipelineNumber(),
             streamName),
        owner_(stage),
        entity_(std::move(entity)),
        innerName_(detail::childNameOf(OuterAttr::kName.view(), stage.takeChildNumber())) {
    stage.readEntityIs(entity_.get());
  }
  ~NestedInput() override { stop(); }

  void checkArgument() const override {
    if (entity_ == nullptr) detail::nullArgument(Argument.view(), __FILE__, __LINE__);
  }
  [[nodiscard]] const auto& collection() const { return OuterAttr::of(*entity_); }
  void addReads(std::vector<const void*>& collections) const override {
    collections.push_back(KilnPlatform::addressOf(collection()));
    for (const auto& [outerKey, inner] : inners_) {
      collections.push_back(KilnPlatform::addressOf(inner->collection()));
    }
  }
  /// The value under an inner key, or null.
  [[nodiscard]] const Value* find(const OuterKey& outerKey, const Key& key) const {
    const auto at = inners_.find(outerKey);
    return at == inners_.end() ? nullptr : at->second->collection().find(key);
  }

  void stop() override {
    Base::stop();
    inners_.clear();
    retiring_.clear();
  }

  bool reap() override {
    std::erase_if(retiring_, [](const auto& inner) { return inner->retired(); });
    return !retiring_.empty();
  }

  /// The outer entry under `outerKey` was added, removed or replaced.
  void handleKey(const OuterKey& outerKey) {
    const auto* current = collection().find(outerKey);
    if (current != nullptr) {
      KILN_ASSERT_MESSAGE(*current != nullptr,
                          "Sm args can only be null if marked as Optional in the SM type declaration");
    }
    const auto at = inners_.find(outerKey);
    std::unique_ptr<Inner> old;
    if (at != inners_.end()) {
      if (current != nullptr && at->second->entity() == *current) return;
      old = std::move(at->second);
      inners_.erase(at);
    }
    if (current != nullptr) inners_[outerKey] = std::make_unique<Inner>(*this, outerKey, *current);
    // The old one looks its keys up in the new one, so that a key that both have is never withdrawn in
    // between.
    if (old != nullptr) {
      retiring_.push_back(std::move(old));
      retiring_.back()->retire();
    }
    if (current != nullptr) inners_.at(outerKey)->start();
  }

  /// `value` is the key's value in the entity that the outer entry refers to now, or null.
  void handleInnerKey(const OuterKey& outerKey, const Key& key, const Value* value) {
    this->stage_.tracer().template trace<7>(TraceMessage<7, OuterKey, Key, OptionalText<Value>>(From.data),
                                            outerKey, key, OptionalText<Value>{value});
    (owner_.*Handler)(outerKey, key, value);
  }

 private:
  StageClass& owner_;
  EntityRef entity_;
  std::string innerName_;
  std::map<OuterKey, std::unique_ptr<Inner>> inners_;
  std::vector<std::unique_ptr<Inner>> retiring_;
};

}  // namespace KilnEmServer
