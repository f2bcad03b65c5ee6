// Outputs of a stage: the collections that the into() statements of its pipelines write.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "kiln/platform/FixedString.h"
#include "kiln/platform/Value.h"
#include "kiln/runtime/collections/Collection.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// What happens when a value is written under another key than its own.
enum class KeyMismatch : std::uint8_t { report, fatal };

/// An output whose content its owner alone decides: it is not reconciled, and its writes are not traced. If
/// several stages write one collection, each has a public `owns(key)` for its own keys: those are withdrawn
/// with it.
template <class Attr, FixedString Argument>
class DirectOutput final : public DeclaredOutput {
  using Key = typename Attr::Key;
  using Value = typename Attr::Value;
  using EntityRef = Ref<typename Attr::Entity>;

 public:
  template <class StageClass>
  DirectOutput(StageClass& stage, EntityRef entity)
      : DeclaredOutput(stage), stage_(stage), entity_(std::move(entity)), owns_(ownsOf<StageClass>()) {
    stage.writtenEntityIs(entity_.get());
    if constexpr (requires { stage.writtenIs(writable()); }) {
      if (entity_ != nullptr) stage.writtenIs(writable());
    }
  }

  void checkArgument() const override {
    if (entity_ == nullptr) detail::nullArgument(Argument.view(), __FILE__, __LINE__);
  }
  bool insert(const Key& key, const Value& value) { return writable().is(key, value); }
  /// Notifies even if an equal value is stored.
  void insertAgain(const Key& key, const Value& value) { writable().isAgain(key, value); }
  bool erase(const Key& key) { return writable().del(key); }
  [[nodiscard]] const Value* find(const Key& key) const { return collection().find(key); }
  [[nodiscard]] bool has(const Key& key) const { return find(key) != nullptr; }
  [[nodiscard]] const auto& collection() const { return Attr::of(std::as_const(*entity_)); }
  [[nodiscard]] const typename Attr::Entity& entity() const { return *entity_; }

  bool deleteNext() override {
    while (const Key* key = collection().scanNext(cursor_)) {
      if (owns_ == nullptr || owns_(stage_, *key)) return erase(Key(*key));
    }
    cursor_ = {};
    return false;
  }
  [[nodiscard]] std::size_t size() const override { return collection().size(); }
  void addReads(std::vector<const void*>& collections) const override {
    if (entity_ != nullptr) collections.push_back(KilnPlatform::addressOf(collection()));
  }

 private:
  using Owns = bool (*)(const StageBase& stage, const Key& key);
  template <class StageClass>
  static constexpr Owns ownsOf() {
    if constexpr (requires(const StageClass& stage, const Key& key) { stage.owns(key); }) {
      return [](const StageBase& stage, const Key& key) {
        return static_cast<const StageClass&>(stage).owns(key);
      };
    } else {
      return nullptr;
    }
  }
  [[nodiscard]] auto& writable() { return Attr::of(*entity_); }

  const StageBase& stage_;
  EntityRef entity_;
  Owns owns_;
  ScanCursor<Key> cursor_;  ///< of the withdrawal
};

/// into( argument.attribute[ keyName ] ). A stage with several into statements for one output writes each
/// under its own name for the key: `insert<"logicalKey">`, `erase<"logicalKey">`.
///
/// During reconciliation the output records which keys are written, and holds deletions back: a key that is
/// withdrawn before the deletion scan is deleted by that scan. An output that was empty at start has nothing
/// to compare, so it records nothing.
///
/// What a stage has per output, under names that begin with the output's, is a member of each output here:
/// `<output>Ready` is ready(), `<output>Reconciling` is reconciling(), `<output>ReconciliationState` is
/// reconciliationState(), `<output>SeenIs` is seenIs(), `handle<Output>InputReady` is handleInputReady(), and
/// `<Output>KeyType` is Key.
///
/// The deletion scan does not delete a key that the stage will still decide, since a change of the same key
/// is pending in one of its inputs; it waits for that, a bounded number of slices. A stage whose inputs have
/// keys of another type has a public `decidesLater(key)` for keys of the output. A stage without it must have
/// no readers before it is complete.
template <class Attr, FixedString Argument, FixedString KeyName, KeyMismatch mismatch = KeyMismatch::fatal>
class Output final : public OutputBase {
  using EntityRef = Ref<typename Attr::Entity>;

 public:
  using Key = typename Attr::Key;
  using Value = typename Attr::Value;

  template <FixedString Name>
  static constexpr auto kPathOf = Argument + "." + Attr::kName + "[ " + Name + " ]";
  static constexpr auto kPath = kPathOf<KeyName>;
  static constexpr auto kOutputName = Argument + upperCamel(Attr::kName) + "Output";

  template <class StageClass>
  Output(StageClass& stage, EntityRef entity)
      : OutputBase(stage, std::string(kOutputName.view())),
        entity_(std::move(entity)),
        decidesLater_(decidesLaterOf<StageClass>()) {
    stage.writtenEntityIs(entity_.get());
    if (entity_ != nullptr) stage.writtenIs(collection());
  }
  ~Output() override { stop(); }

  void checkArgument() const override {
    if (entity_ == nullptr) detail::nullArgument(Argument.view(), __FILE__, __LINE__);
  }

  /// Writes the value and replaces an earlier one.
  template <FixedString Name = KeyName>
  void insert(const Key& key, const Value& value) {
    if constexpr (requires { Attr::keyOf(value); }) checkOwnKey<Name>(key, Attr::keyOf(value));
    if constexpr (std::is_same_v<Value, KilnPlatform::Unit>) {
      static constexpr auto kText = kInto<Name> + "inserting k1={}";
      stage_.tracer().template trace<7>(TraceMessage<7, Key>(kText.data), key);
    } else {
      static constexpr auto kText = kInto<Name> + "inserting k1={}, value={}";
      stage_.tracer().template trace<7>(TraceMessage<7, Key, Value>(kText.data), key, value);
    }
    if (marking_) [[unlikely]] {
      insertMarking(key, value);
    } else {
      collection().is(key, value);
    }
  }

  /// Deletes the key, or records the deletion if reconciliation holds deletions back.
  template <FixedString Name = KeyName>
  void erase(const Key& key) {
    traceDeletion<Name>(key);
    if (reconciliationState() == ReconciliationState::skipNothing) {
      if (marking_ && markOf(key) == Mark::awaited) noteMark(key, Mark::deleted);
      collection().del(key);
    } else {
      if (markOf(key) != Mark::inserted) noteMark(key, Mark::none);
      if (collection().has(key)) marks_->heldBack.is(key, {});
    }
  }

  /// Writes the value, or deletes the key if it is null.
  void write(const Key& key, const Value* value) {
    if (value != nullptr) {
      insert(key, *value);
    } else {
      erase(key);
    }
  }

  /// Marks the key as seen: it is kept as it is, although nothing was written under it yet. A deletion that
  /// is held back is dropped. Writing a key marks it as seen, too.
  void seenIs(const Key& key) {
    if (!reconciling()) return;
    if (markOf(key) == Mark::none && collection().has(key)) noteMark(key, Mark::awaited);
    marks_->heldBack.del(key);
  }

  [[nodiscard]] const Value* find(const Key& key) const {
    return Attr::of(std::as_const(*entity_)).find(key);
  }

  void beginDeleteAll(Withdrawal withdrawal) override {
    OutputBase::beginDeleteAll(withdrawal);
    withdrawing_ = true;
    keepsFound_ = withdrawal == Withdrawal::written && marking_ && noteSeen_;
    marking_ = false;
    cursor_ = {};
  }
  bool deleteNext() override {
    if (withdrawing_) {
      if (const Key* next = collection().scanNext(cursor_)) {
        if (!keepsFound_ || wrote(*next)) collection().del(Key(*next));
        return true;
      }
      withdrawing_ = false;
    }
    if (marks_ != nullptr && (deleteNextOf(marks_->seen) || deleteNextOf(marks_->heldBack))) return true;
    if (awaited_ != nullptr && deleteNextOf(*awaited_)) return true;
    marks_.reset();
    awaited_.reset();
    return false;
  }
  [[nodiscard]] std::size_t size() const override { return Attr::of(std::as_const(*entity_)).size(); }
  void addReads(std::vector<const void*>& collections) const override {
    if (entity_ != nullptr) collections.push_back(KilnPlatform::addressOf(Attr::of(std::as_const(*entity_))));
  }

  void noteState(StateDigest& digest) const override {
    OutputBase::noteState(digest);
    digest.add(noteSeen_);
    digest.add(marking_);
    digest.add(withdrawing_);
    if (withdrawing_) digest.addLeft(Attr::of(std::as_const(*entity_)), cursor_);
    digest.add(awaited_ != nullptr);
    if (awaited_ != nullptr) digest.addContent(*awaited_);
    digest.add(marks_ != nullptr);
    if (marks_ == nullptr) return;
    digest.addContent(marks_->seen);
    digest.addContent(marks_->heldBack);
    if (reconciling() && noteSeen_) digest.addLeft(Attr::of(std::as_const(*entity_)), cursor_);
  }
  void noteContent(StateDigest& digest) const override {
    digest.addContent(Attr::of(std::as_const(*entity_)));
  }

 private:
  /// Which keys were written, and which deletions are held back.
  struct Marks {
    Collection<Key, Mark> seen;
    SparseCollection<Key, KilnPlatform::Unit> heldBack;
  };

  template <FixedString Name>
  static constexpr auto kInto = "into( " + kPathOf<Name> + " ): ";

  template <FixedString Note>
  void traceNote(const Key& key) const {
    static constexpr auto kText = kInto<KeyName> + Note;
    stage_.tracer().template trace<9>(TraceMessage<9, Key>(kText.data), key);
  }
  template <FixedString Name = KeyName>
  void traceDeletion(const Key& key) const {
    static constexpr auto kText = kInto<Name> + "deleting k1={}";
    stage_.tracer().template trace<7>(TraceMessage<7, Key>(kText.data), key);
  }
  [[nodiscard]] auto& collection() { return Attr::of(*entity_); }
  /// Deletes the key at the cursor. At the end the cursor is before the first key of any collection.
  template <class Keys>
  bool deleteNextOf(Keys& keys) {
    const Key* key = keys.scanNext(cursor_);
    if (key == nullptr) {
      cursor_ = {};
      key = keys.scanNext(cursor_);
    }
    if (key == nullptr) cursor_ = {};
    return key != nullptr && keys.del(Key(*key));
  }

  template <FixedString Name>
  void checkOwnKey(const Key& key, const Key& ownKey) const {
    if (ownKey == key) [[likely]]
      return;
    static constexpr auto kText = "In \"into( " + kPathOf<Name> +
                                  " )\" the value inserted in the into statement has internal key: {}, but "
                                  "the key specified in the into is: {}";
    if constexpr (mismatch == KeyMismatch::fatal) {
      KILN_ASSERT_MESSAGE(ownKey == key, fmt::runtime(kText.view()), ownKey, key);
    } else {
      stage_.tracer().template trace<0>(TraceMessage<0, Key, Key>(kText.data), ownKey, key);
    }
  }

  void insertMarking(const Key& given, const Value& value) {
    const KeyUse<Key> use(given);
    const Key& key = use.key();
    if (reconciling()) marks_->heldBack.del(key);
    const Mark before = markOf(key);
    const bool present = collection().has(key);
    const bool changed = collection().is(key, value);
    if (before == Mark::awaited) {
      traceNote<"k1={} was awaited">(key);
    }
    if (reconciling() ? noteSeen_ : before == Mark::awaited) {
      noteMark(key, markOfWrite(before, present, changed));
    } else if (reconciling() && !present) {
      countMark(Mark::none, Mark::inserted);
    }
  }

  /// Whether the stage decided the stored value, rather than found it.
  [[nodiscard]] bool wrote(const Key& key) const {
    if (awaited_ != nullptr && awaited_->has(key)) return false;
    return !reconciling() || marks_->seen.has(key) || marks_->heldBack.has(key);
  }

  /// The outcome for a key so far; after reconciliation only awaited keys have a mark.
  [[nodiscard]] Mark markOf(const Key& key) const {
    if (!noteSeen_) return Mark::inserted;
    if (awaited_->has(key)) return Mark::awaited;
    const Mark* mark = reconciling() ? marks_->seen.find(key) : nullptr;
    return mark == nullptr ? Mark::none : *mark;
  }

  void noteMark(const Key& key, Mark mark) {
    countMark(markOf(key), mark);
    if (mark == Mark::awaited) {
      awaited_->is(key, {});
      return;
    }
    awaited_->del(key);
    if (!reconciling()) {
      endAwaitingWhereNone();
    } else if (mark == Mark::none) {
      marks_->seen.del(key);
    } else {
      marks_->seen.is(key, mark);
    }
  }

  void endAwaitingWhereNone() {
    if (awaited_ != nullptr && !awaited_->empty()) return;
    awaited_.reset();
    marking_ = false;
  }

  void beginSeen() override {
    marks_ = std::make_unique<Marks>();
    awaited_ = std::make_unique<Collection<Key, KilnPlatform::Unit>>();
    marking_ = true;
    noteSeen_ = !collection().empty();
    countFound(collection().size());
    cursor_ = {};
  }

  bool deletionScanItem(bool& deleted) override {
    if (noteSeen_) {
      if (const Key* next = collection().scanNext(cursor_)) {
        const KeyUse<Key> use(*next);
        const Key& key = use.key();
        if (markOf(key) == Mark::none) deleted = deleteUnlessDecidedLater(key);
        return true;
      }
    }
    ScanCursor<Key> first;
    const Key* heldBack = marks_->heldBack.scanNext(first);
    if (heldBack == nullptr) {
      cursor_ = {};
      return false;
    }
    const Key key = *heldBack;
    if (decidedLater(key) && mayWait()) return true;
    traceNote<"deletion of k1={} was held back">(key);
    deleted = collection().has(key);
    if (deleted) deleteStale(key);
    marks_->heldBack.del(key);
    return true;
  }

  /// A key that the stage will still decide is checked at the end of the scan. True if it was deleted.
  bool deleteUnlessDecidedLater(const Key& key) {
    if (decidedLater(key)) {
      traceNote<"k1={} will be decided later">(key);
      marks_->heldBack.is(key, {});
      return false;
    }
    deleteStale(key);
    return true;
  }

  using DecidesLater = bool (*)(const Stage& stage, const Key& key);
  template <class StageClass>
  static constexpr DecidesLater decidesLaterOf() {
    if constexpr (requires(const StageClass& stage, const Key& key) { stage.decidesLater(key); }) {
      return [](const Stage& stage, const Key& key) {
        return static_cast<const StageClass&>(stage).decidesLater(key);
      };
    } else {
      return nullptr;
    }
  }
  /// Whether a change that decides the key is pending in the stage.
  [[nodiscard]] bool decidedLater(const Key& key) const {
    return stage_.changeWaits(key) || (decidesLater_ != nullptr && decidesLater_(stage_, key));
  }

  void deleteStale(const Key& key) {
    traceDeletion(key);
    marks_->heldBack.del(key);
    const Mark mark = markOf(key);
    countMark(mark, mark == Mark::inserted ? Mark::none : Mark::deleted);
    if (noteSeen_) marks_->seen.del(key);
    collection().del(key);
  }

  [[nodiscard]] std::size_t seenCount() const override { return marks_ == nullptr ? 0 : marks_->seen.size(); }
  void forgetNextSeen() override { deleteNextOf(marks_->seen); }
  void endSeen() override {
    marks_.reset();
    endAwaitingWhereNone();
  }

  EntityRef entity_;
  DecidesLater decidesLater_;
  bool noteSeen_ = false;
  bool marking_ = false;  ///< whether writes are marked: while reconciling, and while keys are awaited
  bool withdrawing_ = false;
  bool keepsFound_ = false;  ///< whether a withdrawal keeps keys that the stage found and did not write
  ScanCursor<Key> cursor_;
  std::unique_ptr<Marks> marks_;  ///< null after reconciliation
  /// Keys that are kept unchanged until their value is known; null if there are none.
  std::unique_ptr<Collection<Key, KilnPlatform::Unit>> awaited_;
};

}  // namespace KilnEmServer
