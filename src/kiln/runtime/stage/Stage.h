// The stage runtime: how a stage starts, scans its inputs in slices, reconciles its outputs after a restart,
// reports that it is ready, and ends.
//
// A stage is a class derived from Stage whose members declare its dataflow: inputs
// (kiln/runtime/stage/Input.h), outputs (kiln/runtime/stage/Output.h), groups and caches
// (kiln/runtime/stage/LocalState.h). Its handlers are ordinary member functions; the same handler serves the
// initial scan and every later change.
#pragma once

#include <algorithm>
#include <boost/container/small_vector.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "kiln/platform/Assert.h"
#include "kiln/platform/Collection.h"
#include "kiln/platform/DependencyStatus.h"
#include "kiln/platform/FixedString.h"
#include "kiln/platform/Ref.h"
#include "kiln/platform/TaskScheduler.h"
#include "kiln/runtime/collections/Column.h"
#include "kiln/runtime/collections/KeySpace.h"
#include "kiln/runtime/collections/PendingKeys.h"
#include "kiln/runtime/stage/ReconciliationCounts.h"
#include "kiln/runtime/stage/StateDigest.h"
#include "kiln/runtime/trace/Trace.h"

namespace KilnEmServer {

using KilnPlatform::DependencyStatus;
using KilnPlatform::Task;
using KilnPlatform::TaskScheduler;

class Stage;
class StageBase;

/// The settings under which a stage runs.
struct StageControl {
  Ref<TaskScheduler> scheduler;
  int priority = 0;
  /// Scans never yield.
  bool synchronous = false;

  /// To be called after each item of work: whether the running slice has used up its time.
  [[nodiscard]] bool shouldYield() const { return !synchronous && scheduler->taskShouldYield(); }
  /// Calls `handleNext()` as long as `hasNext()` is true and the running slice has time left, which is
  /// checked after each item; sets `yielded` if the time was used up. Returns the number of items.
  template <class HasNext, class HandleNext>
  std::size_t drainWhile(HasNext&& hasNext, HandleNext&& handleNext, bool& yielded) const {
    std::size_t items = 0;
    while (hasNext()) {
      handleNext();
      ++items;
      if (shouldYield()) {
        yielded = true;
        break;
      }
    }
    return items;
  }
  /// The same for a task of its own. The scheduler is notified of the work done, and the task is scheduled
  /// again if work is left: `left()` items, or units of several items.
  template <class HasNext, class HandleNext, class Left>
  void runSlice(Task& task, HasNext&& hasNext, HandleNext&& handleNext, Left&& left) const {
    bool yielded = false;
    scheduler->taskWorkCountInc(drainWhile(hasNext, handleNext, yielded));
    if (!yielded || !hasNext()) return;
    scheduler->taskWorkPendingIs(left());
    task.scheduleTask();
  }
};

/// The collections, of one type of keys, that the handlers of a stage read and write: the server's own and
/// others.
class PrefetchSet {
 public:
  void add(const ColumnPlaces& column) { columns_.add(column); }
  /// A collection that the handlers write.
  void addWritten(const ColumnPlaces& column) { written_.add(column); }
  void add(const KilnPlatform::Prefetchable& collection) { addTo(others_, collection); }
  /// The columns that subscribers read synchronously on each write of the stage.
  void addFollowing(const ColumnList& columns) {
    addTo(following_, columns);
    gatheredAt_ = kNever;
  }
  /// Prefetches for a handler that is about to look up the key of this handle, which changed in the column
  /// `input`. That column is left out; if it no longer has the key, so are the collections that the handlers
  /// write: most likely the key will be erased there.
  void prefetch(std::uint32_t handle, const ColumnPlaces* input = nullptr) const {
    if (gatheredAt_ != ColumnList::changes()) [[unlikely]]
      gather();
    const bool goes = input != nullptr && !input->has(handle);
    const ColumnPlaces* const* const end = all_.data() + (goes ? readCount_ : all_.size());
    for (const ColumnPlaces* const* column = all_.data(); column != end; ++column) {
      if (*column != input) (*column)->prefetch(handle);
    }
    for (const auto* collection : others_) collection->prefetch(handle);
  }

 private:
  /// The lists change only when stages are created and destroyed, which is rare.
  [[gnu::noinline]] void gather() const {
    all_.clear();
    gather(columns_);
    for (const ColumnList* columns : following_) gather(*columns);
    readCount_ = all_.size();
    gather(written_);
    gatheredAt_ = ColumnList::changes();
  }
  void gather(const ColumnList& columns) const {
    for (const ColumnPlaces* column : columns.columns()) {
      if (std::find(all_.begin(), all_.end(), column) == all_.end()) all_.push_back(column);
    }
  }
  template <class T>
  using List = boost::container::small_vector<const T*, 4>;
  template <class T>
  static void addTo(List<T>& list, const T& member) {
    if (std::find(list.begin(), list.end(), &member) == list.end()) list.push_back(&member);
  }

  ColumnList columns_;
  ColumnList written_;
  List<KilnPlatform::Prefetchable> others_;
  List<ColumnList> following_;
  static constexpr std::uint64_t kNever = ~std::uint64_t{0};
  /// All columns, the synchronously read and the written ones, each once, as of `gatheredAt_` changes.
  mutable std::vector<const ColumnPlaces*> all_;
  mutable std::size_t readCount_ = 0;  ///< the first so many are read
  mutable std::uint64_t gatheredAt_ = kNever;
};

/// A pending item in an input of a stage, for a digest in the order of arrival.
struct PendingDigest {
  Arrival arrival;
  StateDigest::Value what;
};
using PendingDigests = std::vector<PendingDigest>;

/// The common part of all inputs of a stage: the scan's state and its slices.
class InputBase {
 public:
  enum class ScanState : std::uint8_t {
    notStarted = 0,
    paused = 1,
    complete = 2,
    completeBeforeInitialized = 3,
  };

  virtual ~InputBase();
  InputBase(const InputBase&) = delete;
  InputBase& operator=(const InputBase&) = delete;

  /// Checks the argument that the input reads: a null one is a fatal assertion that names it.
  virtual void checkArgument() const = 0;
  /// Subscribes, creates the scan task and scans the first slice.
  void start();
  /// Runs a slice of the initial scan, from the bookmark where it was paused.
  void doInputScan();
  /// Unsubscribes and deletes the scan task.
  virtual void stop();

  [[nodiscard]] bool inputScanComplete() const;
  [[nodiscard]] ScanState scanState() const { return scanState_; }
  [[nodiscard]] std::string_view streamName() const { return streamName_; }
  [[nodiscard]] int pipeline() const { return pipeline_; }
  [[nodiscard]] const std::string& childName() const { return childName_; }

  /// Whether changes are handled inside the call that makes them.
  [[nodiscard]] virtual bool reactsInside() const { return false; }
  /// Adds the address of each collection that is read, as a StateDigest has it.
  virtual void addReads(std::vector<const void*>& /*collections*/) const {}
  /// Whether a change of this key of this key space is pending.
  [[nodiscard]] virtual bool changeWaits(const void* /*space*/, const void* /*key*/) const { return false; }
  /// Whether changed keys are pending, their number, and the arrival of the first of them.
  [[nodiscard]] virtual bool hasPending() const = 0;
  [[nodiscard]] virtual std::size_t pendingCount() const = 0;
  [[nodiscard]] virtual Arrival headArrival() const = 0;
  /// Handles pending keys that arrived before `limit`, until none is left or the slice has used up its time,
  /// which sets `yielded`. Returns the number of handled keys.
  virtual std::size_t drain(Arrival limit, bool& yielded) = 0;
  /// Destroys objects that were kept because they might have been running; requested by Stage::reapRequested.
  /// True if something must still be destroyed later.
  virtual bool reap() { return false; }

  /// Describes what the input does next, except for its collection's content and the pending keys.
  virtual void noteState(StateDigest& digest) const;
  /// Adds the pending keys, each with the input's identity.
  virtual void notePending(PendingDigests& pending) const = 0;

 protected:
  /// The same for the corresponding input of every stage of this class.
  [[nodiscard]] virtual StateDigest::Value identity() const { return StateDigest::valueOf(pipeline_); }
  InputBase(Stage& stage, std::string childName, int pipeline, std::string_view streamName);

  virtual void subscribe() = 0;
  virtual void unsubscribe() = 0;
  /// Handles the scan's next item; false at the end.
  virtual bool scanItem() = 0;
  [[nodiscard]] virtual std::size_t collectionSize() const = 0;
  /// "child" for the input of an inner collection, empty otherwise.
  [[nodiscard]] virtual std::string_view scanKind() const { return ""; }
  /// Whether the scan of the enclosing collection is complete as well; only an inner input has one.
  [[nodiscard]] virtual bool parentScanComplete() const { return false; }
  [[nodiscard]] virtual bool isChild() const { return false; }
  /// Distinguishes the scan task from those of other inputs with the same name.
  [[nodiscard]] virtual std::string taskInstance() const;
  /// Whether the scan may pause. Synchronous inputs must finish the scan; writers rely on it.
  [[nodiscard]] virtual bool mayPause() const { return true; }
  void restartScan();

  Stage& stage_;

 private:
  void createScanTask();
  void pauseScan(std::size_t items);
  void completeScan(bool resumed);

  std::string childName_;
  std::string streamName_;
  int pipeline_;
  ScanState scanState_ = ScanState::notStarted;
  bool subscribed_ = false;
  friend Stage;
  bool waiting_ = false;  ///< whether it is in the stage's list
  std::size_t totalItems_ = 0;
  std::size_t sizeAtPause_ = 0;
  std::unique_ptr<Task> task_;
};

/// The keys that a stage deletes from its outputs at its end.
enum class Withdrawal : std::uint8_t {
  written,     ///< keys that it wrote; keys that it found and did not write again are kept
  everything,  ///< also what an earlier stage left
};

/// An output that a stage declares: the one way by which it writes a collection.
class DeclaredOutput {
 public:
  virtual ~DeclaredOutput();
  DeclaredOutput(const DeclaredOutput&) = delete;
  DeclaredOutput& operator=(const DeclaredOutput&) = delete;

  /// Checks the argument that the output writes: a null one is a fatal assertion that names it.
  virtual void checkArgument() const = 0;
  /// Begins a withdrawal; afterwards only deleteNext() may be called.
  virtual void beginDeleteAll(Withdrawal /*withdrawal*/) {}
  /// Checks one more key of the output and deletes it if the withdrawal includes it, or drops one mark; false
  /// if none is left.
  virtual bool deleteNext() = 0;
  /// How many keys the collection holds.
  [[nodiscard]] virtual std::size_t size() const = 0;
  /// Adds the address of its collection, which the handlers may read too.
  virtual void addReads(std::vector<const void*>& /*collections*/) const {}

 protected:
  explicit DeclaredOutput(StageBase& stage);
};

/// The common part of the outputs that are reconciled with their content from before a restart.
class OutputBase : public DeclaredOutput {
 public:
  enum class ReconciliationState : std::uint8_t { skipDeletions, skipNothing };

  using ReconciliationCounts = KilnEmServer::ReconciliationCounts;

  ~OutputBase() override;

  /// Starts the reconciliation of the output, which may hold keys from before a restart.
  void startReconciling();
  /// The input scans are complete: runs a slice of the deletion scan, then becomes ready.
  void handleInputReady();
  void beginDeleteAll(Withdrawal withdrawal) override;
  void stop() { reconciliationTask_.reset(); }

  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] bool ready() const { return ready_; }
  [[nodiscard]] bool reconciling() const { return reconciling_; }
  [[nodiscard]] ReconciliationState reconciliationState() const { return reconciliationState_; }
  [[nodiscard]] const ReconciliationCounts& reconciliationCounts() const { return counts_; }

  /// Describes the progress and the marks of reconciliation.
  virtual void noteState(StateDigest& digest) const;
  /// Describes the output's content.
  virtual void noteContent(StateDigest& digest) const = 0;

 protected:
  OutputBase(Stage& stage, std::string name);

  /// The outcome for one key so far.
  enum class Mark : std::uint8_t { none, awaited, kept, rewritten, inserted, deleted };
  /// The mark after a write, given the one before it.
  static Mark markOfWrite(Mark before, bool present, bool changed);
  void countMark(Mark before, Mark after);
  void countFound(std::size_t entries) { counts_.found = entries; }
  /// Starts to record which keys are written.
  virtual void beginSeen() = 0;
  /// Checks the deletion scan's next key; false at the end. Sets `deleted` if it deleted the key.
  virtual bool deletionScanItem(bool& deleted) = 0;
  /// To be called if the next key cannot be checked before the stage has handled a change. True if the scan
  /// then waits for that; the number of waits is limited, since a key may change all the time.
  bool mayWait();
  /// How many keys are noted as written.
  [[nodiscard]] virtual std::size_t seenCount() const = 0;
  /// Drops one of these marks.
  virtual void forgetNextSeen() = 0;
  /// Drops all of them.
  virtual void endSeen() = 0;

  Stage& stage_;

 private:
  /// Maximum number of slices of the deletion scan that end because of a pending change.
  static constexpr std::uint32_t kMostWaits = 10'000;

  /// The work of a paused deletion scan in all its runs; the output stores the key at which it resumes.
  struct Bookmark {
    std::size_t items = 0;
    std::size_t deletions = 0;
  };

  [[nodiscard]] bool deletionScan();
  /// Runs a slice that drops the marks of written keys; no component waits for that.
  void forgetSeen();
  void reconciliationStateIs(ReconciliationState state);

  std::string name_;
  bool ready_ = false;
  bool reconciling_ = false;
  bool useBookmark_ = false;  ///< whether the deletion scan is paused
  Bookmark bookmark_;
  bool waits_ = false;  ///< the scan's next key
  std::uint32_t waitCount_ = 0;
  ReconciliationState reconciliationState_ = ReconciliationState::skipNothing;
  ReconciliationCounts counts_;
  std::unique_ptr<Task> reconciliationTask_;
};

/// A collection that a stage owns: a group-by or a cache.
class LocalState {
 public:
  LocalState(Stage& stage, std::string_view name);
  virtual ~LocalState() = default;
  LocalState(const LocalState&) = delete;
  LocalState& operator=(const LocalState&) = delete;

  [[nodiscard]] std::string_view name() const { return name_; }
  [[nodiscard]] virtual std::size_t size() const = 0;
  virtual void clear() = 0;
  virtual void noteState(StateDigest& digest) const = 0;

 private:
  std::string_view name_;
};

/// The base of every stage: a name, and the entities that it declares to read and to write. A stage that
/// follows a few changes without inputs is derived from it directly.
class StageBase {
 public:
  /// Entities by their addresses, in the order of declaration.
  using Entities = std::vector<const void*>;

  virtual ~StageBase();
  StageBase(const StageBase&) = delete;
  StageBase& operator=(const StageBase&) = delete;

  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] const Tracer& tracer() const { return tracer_; }
  /// What the stage reads and what it writes, each entity once.
  [[nodiscard]] const Entities& readEntities() const { return readEntities_; }
  [[nodiscard]] const Entities& writtenEntities() const { return writtenEntities_; }
  [[nodiscard]] const std::vector<InputBase*>& inputs() const { return inputs_; }
  /// The outputs that are reconciled.
  [[nodiscard]] const std::vector<OutputBase*>& outputs() const { return outputs_; }
  /// Groups and caches, with their sizes, for the check that nothing is left over.
  [[nodiscard]] const std::vector<LocalState*>& localStates() const { return localStates_; }
  /// Number of pending keys.
  [[nodiscard]] std::size_t pendingCount() const;
  /// Whether some changes are handled inside the call that makes them.
  [[nodiscard]] virtual bool reactsInside() const;
  /// The conditions for which the stage waits before it is complete: its own scans.
  [[nodiscard]] virtual std::vector<std::string> waitsFor() const;
  /// Adds the address of each collection that the handlers may read, as a StateDigest has it. False if they
  /// may read others, too.
  [[nodiscard]] virtual bool addReads(std::vector<const void*>& collections) const = 0;
  /// Describes the stage's own state, without the collections that it reads and writes, as a part of its
  /// name.
  virtual void noteState(StateDigest& digest) const = 0;

  // For inputs, outputs and local state.
  /// Declares that the stage reads, or writes, an entity; null is none.
  void readEntityIs(const void* entity) { entityIs(readEntities_, entity); }
  void writtenEntityIs(const void* entity) { entityIs(writtenEntities_, entity); }
  void inputIs(InputBase& input) { inputs_.push_back(&input); }
  void declaredOutputIs(DeclaredOutput& output) { declaredOutputs_.push_back(&output); }
  void outputIs(OutputBase& output) { outputs_.push_back(&output); }
  void localStateIs(LocalState& state) { localStates_.push_back(&state); }

 protected:
  explicit StageBase(std::string name);

  [[nodiscard]] const std::vector<DeclaredOutput*>& declaredOutputs() const { return declaredOutputs_; }
  /// Removes an input that ends before its stage.
  void inputRemoved(InputBase& input) { std::erase(inputs_, &input); }

 private:
  static void entityIs(Entities& entities, const void* entity) {
    const bool isNew =
        entity != nullptr && std::find(entities.begin(), entities.end(), entity) == entities.end();
    if (isNew) entities.push_back(entity);
  }

  std::string name_;
  Tracer tracer_;
  Entities readEntities_;
  Entities writtenEntities_;
  std::vector<InputBase*> inputs_;
  std::vector<DeclaredOutput*> declaredOutputs_;
  std::vector<OutputBase*> outputs_;
  std::vector<LocalState*> localStates_;
};

/// The base of the stages that scan their inputs, reconcile their outputs and report that they are ready.
class Stage : public StageBase {
 public:
  ~Stage() override;

  /// Starts the stage: to be called once, by its factory.
  void initialize();
  /// Stops the stage's inputs and tasks, and deletes from its outputs the keys of the withdrawal; the stage
  /// then does nothing more. Destruction alone keeps the outputs as they are.
  void doDeleteAll(Withdrawal withdrawal = Withdrawal::written);
  /// The same in parts, for slices: after beginDeleteAll() the stage does nothing else, and each call of
  /// deleteNext() handles one key of an output, until it returns false. Only then is the stage's name removed
  /// from the dependency status.
  void beginDeleteAll(Withdrawal withdrawal = Withdrawal::written);
  bool deleteNext();
  /// Number of keys in the outputs.
  [[nodiscard]] std::size_t keysInOutputs() const;

  [[nodiscard]] std::string_view className() const { return className_; }
  [[nodiscard]] const StageControl& control() const { return control_; }
  [[nodiscard]] bool initialized() const { return initialized_; }
  [[nodiscard]] bool synchronous() const { return control_.synchronous; }
  [[nodiscard]] bool initialScanDone() const { return initialScanDone_; }
  [[nodiscard]] bool ready() const { return outputState_.ready; }

  /// The progress of the initial scans.
  struct InputSmScanState {
    bool idle = false;           ///< whether all are complete, so that only changes are handled
    std::vector<bool> scanning;  ///< whether the scan of a pipeline, by its number, has not finished
  };
  [[nodiscard]] const InputSmScanState& inputSmScanState() const { return inputSmScanState_; }
  /// The progress of the outputs. The flag of each is OutputBase::ready().
  struct OutputState {
    bool ready = false;                                 ///< whether all outputs are
    bool dependencyStatusCompletedOutputReady = false;  ///< whether the stage's name was recorded
  };
  [[nodiscard]] const OutputState& outputState() const { return outputState_; }
  [[nodiscard]] bool addReads(std::vector<const void*>& collections) const override;
  /// Whether a change of the key is pending in one of the inputs.
  template <class K>
  [[nodiscard]] bool changeWaits(const K& key) const {
    const void* const space = &KeySpace<K>::instance();
    return std::any_of(waiting_.begin(), waiting_.end(),
                       [&](const InputBase* input) { return input->changeWaits(space, &key); });
  }
  /// Whether any key is pending.
  [[nodiscard]] bool hasPending() const {
    return std::any_of(waiting_.begin(), waiting_.end(),
                       [](const InputBase* input) { return input->hasPending(); });
  }
  /// Number of changes of keys that were pending already, since the stage was created.
  [[nodiscard]] std::uint64_t coalescedChanges() const { return coalescedChanges_; }
  /// A stage with more state than inputs, outputs and local states adds it.
  void noteState(StateDigest& digest) const override;

  // For inputs, outputs and local state.
  void inputDel(InputBase& input) {
    inputRemoved(input);
    std::erase(waiting_, &input);
  }
  /// The collections that the stage's handlers use by keys of type K.
  template <class K>
  [[nodiscard]] PrefetchSet& prefetchSet() {
    const void* const keys = &KeySpace<K>::instance();
    PrefetchSet* known = prefetchSetOf(keys);
    if (known == nullptr)
      known = prefetchSets_.emplace_back(keys, std::make_unique<PrefetchSet>()).second.get();
    return *known;
  }
  /// Registers a collection that the handlers read, for prefetching if it stores values by handle.
  template <class Collection>
  void prefetchSetAdd(const Collection& collection) {
    if constexpr (requires { collection.places(); }) {
      prefetchSet<typename Collection::Key>().add(collection.places());
    } else if constexpr (std::is_abstract_v<Collection>) {
      prefetchSet<typename Collection::Key>().add(collection);
    }
  }
  /// Registers a collection that the handlers write.
  template <class Collection>
  void writtenIs(const Collection& collection) {
    if constexpr (requires { collection.places(); }) {
      prefetchSet<typename Collection::Key>().addWritten(collection.places());
    } else {
      prefetchSetAdd(collection);
    }
    if constexpr (requires { collection.readOnWrite(); }) {
      prefetchSet<typename Collection::Key>().addFollowing(collection.readOnWrite());
    }
  }
  /// The number of the next input child, and of the next pipeline, in the order of declaration.
  int takeChildNumber() { return childNumber_++; }
  int takePipelineNumber() { return pipelineNumber_++; }
  /// The arrival number of the next key that joins a pending list.
  [[nodiscard]] Arrival arrivals() const { return arrivals_; }
  /// A key joined the pending list of an input; if it is the `first`, schedules the handling of the list.
  void noteArrival(InputBase& input, bool first) {
    ++arrivals_;
    if (first) noteWaiting(input);
  }
  /// Whether the change that is about to be handled is a single event whose data may not be in the cache.
  void setSingleEvent(bool single) { singleEvent_ = single; }
  /// A key changed again before it was handled.
  void noteCoalesced() { ++coalescedChanges_; }
  void handleScanComplete();
  /// An output became ready: with the last one, so does the stage.
  void handleDependencyStatusCompletedOutputInputReady();
  /// An input has objects to destroy once they can no longer be running.
  void reapRequested() { reapRequested_ = true; }
  void reapInputs();
  [[nodiscard]] bool shouldYield() const { return control_.shouldYield(); }

  /// Returns `passed`; a filter that fails is traced with its expression.
  template <KilnPlatform::FixedString expression>
  bool filter(bool passed) const {
    static constexpr auto kFailed = expression + " failed, terminating pipeline";
    if (!passed) tracer().trace<6>(TraceMessage<6>(kFailed.data));
    return passed;
  }

 protected:
  /// `className` must outlive the stage. `readyText` is the trace of the stage's last pipeline, which watches
  /// its own readiness, without the value: "Line 23: from( this.ready )".
  Stage(std::string_view className, std::string name, Ref<DependencyStatus> dependencyStatus,
        StageControl control, std::string_view readyText);

  /// Hint: a handler will soon look this key up, in addition to the one for which it is called.
  template <class K>
  void prefetchKey(const K& key) const {
    const std::uint32_t handle = hintOf(key).handle();
    if (handle == KilnPlatform::KeyHint::kNone) {  // probably a new key
      (void)KeySpace<K>::instance().prefetchIndex(key);
      return;
    }
    KeySpace<K>::instance().prefetch(handle);
    if (const PrefetchSet* prefetchSet = prefetchSetOf(&KeySpace<K>::instance()))
      prefetchSet->prefetch(handle);
  }

  /// Whether the change that is being handled is a single event, and the keys exceed the cache.
  [[nodiscard]] bool isSingleEvent() const { return singleEvent_; }
  /// The change that is being handled continues under this key: if it is a single event, the data of all
  /// stages under the key is prefetched now, and not by each stage in its turn.
  template <class K>
  void prefetchDownstream(const K& key) const {
    if (singleEvent_) [[unlikely]]
      KeySpace<K>::instance().prefetchEverywhere(key);
  }

  [[nodiscard]] DependencyStatus& dependencyStatus() const { return *dependencyStatus_; }
  /// Checks arguments that are neither inputs nor outputs: a null one is a fatal assertion that names it.
  virtual void checkArguments() const {}
  /// For the additional work of a stage, once it is initialized and before its first scan.
  virtual void handleInitialized() {}
  /// The begin of the withdrawal: ends the stage's additional work.
  virtual void handleDeleteAll() {}

 private:
  void notePending(StateDigest& digest) const;
  void noteWaiting(InputBase& input);
  void runEvents();
  void handleInitialScanDone();
  void readyIs(bool ready);
  [[nodiscard]] PrefetchSet* prefetchSetOf(const void* keys) const {
    for (const auto& [space, prefetchSet] : prefetchSets_) {
      if (space == keys) return prefetchSet.get();
    }
    return nullptr;
  }
  [[nodiscard]] InputBase* nextInput(Arrival& limit);

  std::string_view className_;
  std::string_view readyText_;
  Ref<DependencyStatus> dependencyStatus_;
  StageControl control_;
  bool initialized_ = false;
  bool initialScanDone_ = false;
  InputSmScanState inputSmScanState_;
  OutputState outputState_;
  int childNumber_ = 0;
  int pipelineNumber_ = 0;
  bool reapRequested_ = false;
  Arrival arrivals_ = kFirstArrival;
  std::uint64_t coalescedChanges_ = 0;
  std::vector<InputBase*> waiting_;  ///< inputs with pending keys, and some without
  bool singleEvent_ = false;
  /// By the keys' space; few.
  std::vector<std::pair<const void*, std::unique_ptr<PrefetchSet>>> prefetchSets_;
  std::unique_ptr<InputBase> readyMachine_;
  std::unique_ptr<Task> eventTask_;
};

/// Creates a stage of class S and starts it.
template <class S, class... Args>
Ref<S> makeStage(Args&&... args) {
  auto stage = std::make_shared<S>(std::forward<Args>(args)...);
  stage->initialize();
  return stage;
}

}  // namespace KilnEmServer
