#include "kiln/runtime/stage/Stage.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace KilnEmServer {

// --- InputBase ---------------------------------------------------------------------------------------------

InputBase::InputBase(Stage& stage, std::string childName, int pipeline, std::string_view streamName)
    : stage_(stage), childName_(std::move(childName)), streamName_(streamName), pipeline_(pipeline) {
  stage_.inputIs(*this);
}

InputBase::~InputBase() {
  stage_.inputDel(*this);
}

void InputBase::start() {
  subscribe();
  subscribed_ = true;
  createScanTask();
  doInputScan();
}

void InputBase::restartScan() {
  scanState_ = ScanState::notStarted;
  createScanTask();
  doInputScan();
}

std::string InputBase::taskInstance() const {
  return stage_.name();
}

void InputBase::createScanTask() {
  task_ = std::make_unique<Task>(
      stage_.control().scheduler, stage_.control().priority,
      fmt::format("KilnEmServer::{}-{}InputScanTask{}", stage_.className(), childName_, pipeline_),
      [](void* owner) {
        auto& input = *static_cast<InputBase*>(owner);
        Stage& stage = input.stage_;
        const KilnPlatform::RunningStageScope scope(stage.name());
        input.doInputScan();
        stage.reapInputs();
      },
      this, 0, taskInstance());
}

void InputBase::stop() {
  if (std::exchange(subscribed_, false)) unsubscribe();
  task_.reset();
}

bool InputBase::inputScanComplete() const {
  return scanState_ == ScanState::complete ||
         (scanState_ == ScanState::completeBeforeInitialized && stage_.initialized());
}

void InputBase::doInputScan() {
  if (scanState_ == ScanState::complete || scanState_ == ScanState::completeBeforeInitialized) return;
  const bool resumed = scanState_ == ScanState::paused;
  if (resumed && collectionSize() < sizeAtPause_) {
    stage_.tracer().trace<9>("{} scan resumed after deletions: {} items, {} before", childName_,
                             collectionSize(), sizeAtPause_);
  }
  std::size_t items = 0;
  while (scanItem()) {
    ++items;
    ++totalItems_;
    if (task_ != nullptr && mayPause() && stage_.shouldYield()) {
      pauseScan(items);
      return;
    }
  }
  stage_.control().scheduler->taskWorkCountInc(items);
  completeScan(resumed);
}

void InputBase::pauseScan(std::size_t items) {
  scanState_ = ScanState::paused;
  sizeAtPause_ = collectionSize();
  stage_.tracer().trace<7>("{} {} yielding after {} iterations ({} total items)", scanKind(), childName_,
                           items, collectionSize());
  stage_.control().scheduler->taskWorkCountInc(items);
  stage_.control().scheduler->taskWorkPendingIs(collectionSize());
  task_->scheduleTask();
}

void InputBase::completeScan(bool resumed) {
  scanState_ = stage_.initialized() ? ScanState::complete : ScanState::completeBeforeInitialized;
  task_.reset();
  if (isChild() && parentScanComplete()) {
    stage_.tracer().trace<9>("{} scan, and parent scan, complete.", childName_);
  } else {
    stage_.tracer().trace<9>("{} scan complete. Processed {} children.", childName_, totalItems_);
  }
  stage_.tracer().trace<9>("scan complete: {} resumed: {} scan: {}", inputScanComplete(), resumed,
                           childName_);
  stage_.handleScanComplete();
}

void InputBase::noteState(StateDigest& digest) const {
  digest.add(identity());
  digest.add(inputScanComplete() ? ScanState::complete : scanState_);
  digest.add(subscribed_);
  digest.add(task_ != nullptr);
  digest.add(hasPending() && !waiting_);
}

// --- OutputBase --------------------------------------------------------------------------------------------

DeclaredOutput::DeclaredOutput(StageBase& stage) {
  stage.declaredOutputIs(*this);
}

DeclaredOutput::~DeclaredOutput() = default;

OutputBase::OutputBase(Stage& stage, std::string name)
    : DeclaredOutput(stage), stage_(stage), name_(std::move(name)) {
  stage_.outputIs(*this);
}

OutputBase::~OutputBase() = default;

void OutputBase::beginDeleteAll(Withdrawal /*withdrawal*/) {
  stop();
}

void OutputBase::startReconciling() {
  reconciling_ = true;
  beginSeen();
  reconciliationTask_ = std::make_unique<Task>(
      stage_.control().scheduler, stage_.control().priority,
      fmt::format("{}-{}Task", stage_.className(), name_),
      [](void* owner) {
        auto& output = *static_cast<OutputBase*>(owner);
        const KilnPlatform::RunningStageScope scope(output.stage_.name());
        output.ready_ ? output.forgetSeen() : output.handleInputReady();
      },
      this, 0, stage_.name());
  stage_.tracer().trace<9>("Reconciling {}: {:}", TextPart{name_}, reconciling_);
  reconciliationStateIs(ReconciliationState::skipDeletions);
}

void OutputBase::reconciliationStateIs(ReconciliationState state) {
  reconciliationState_ = state;
  stage_.tracer().trace<9>(
      "Setting reconciliationState to {} for {}",
      TextPart{state == ReconciliationState::skipDeletions ? "skip deletions" : "skip nothing"},
      TextPart{name_});
}

OutputBase::Mark OutputBase::markOfWrite(Mark before, bool present, bool changed) {
  if (before == Mark::inserted || !present) return Mark::inserted;
  return changed || before == Mark::rewritten ? Mark::rewritten : Mark::kept;
}

void OutputBase::countMark(Mark before, Mark after) {
  const auto counter = [this](Mark mark) -> std::size_t* {
    switch (mark) {
      case Mark::kept:
        return &counts_.kept;
      case Mark::rewritten:
        return &counts_.rewritten;
      case Mark::inserted:
        return &counts_.inserted;
      case Mark::deleted:
        return &counts_.deleted;
      case Mark::none:
      case Mark::awaited:
        break;
    }
    return nullptr;
  };
  if (std::size_t* from = counter(before)) --*from;
  if (std::size_t* to = counter(after)) ++*to;
}

void OutputBase::handleInputReady() {
  stage_.tracer().trace<9>("Input scans for {} complete", TextPart{name_});
  if (ready_) {
    stage_.tracer().trace<9>("already ready, not reconciling.");
    return;
  }
  if (reconciling_) {
    if (!deletionScan()) return;
    reconciling_ = false;
    reconciliationStateIs(ReconciliationState::skipNothing);
  }
  forgetSeen();
  ready_ = true;
  stage_.handleDependencyStatusCompletedOutputInputReady();
}

void OutputBase::forgetSeen() {
  const auto left = [this] { return seenCount(); };
  stage_.control().runSlice(
      *reconciliationTask_, left, [this] { forgetNextSeen(); }, left);
  if (left() != 0) return;
  endSeen();
  reconciliationTask_.reset();
}

bool OutputBase::mayWait() {
  if (stage_.synchronous() || waitCount_ == kMostWaits) return false;
  ++waitCount_;
  waits_ = true;
  return true;
}

bool OutputBase::deletionScan() {
  TaskScheduler& scheduler = *stage_.control().scheduler;
  if (!std::exchange(useBookmark_, false)) bookmark_ = {};
  const Bookmark earlier = bookmark_;
  bool deleted = false;
  while (deletionScanItem(deleted)) {
    const bool waits = std::exchange(waits_, false);
    if (!waits) ++bookmark_.items;
    if (std::exchange(deleted, false)) ++bookmark_.deletions;
    if (!stage_.synchronous() && (waits || scheduler.taskCurrentlyRunning() != reconciliationTask_.get() ||
                                  scheduler.taskShouldYield())) {
      useBookmark_ = true;
      stage_.tracer().trace<7>(
          "Yielding in reconciliation processing after processing {} items, including {} deletions .",
          bookmark_.items, bookmark_.deletions);
      scheduler.taskWorkCountInc(bookmark_.items - earlier.items);
      reconciliationTask_->scheduleTask();
      return false;
    }
  }
  stage_.tracer().trace<9>(
      "Deletion scan for reconciliation is done, last task run processed {} items, deleting {} items.",
      bookmark_.items - earlier.items, bookmark_.deletions - earlier.deletions);
  scheduler.taskWorkCountInc(bookmark_.items - earlier.items);
  return true;
}

// The number of waits of the scan is left out: it ends after more waits than any scan needs. The counts are
// read when the output becomes ready.
void OutputBase::noteState(StateDigest& digest) const {
  digest.add(ready_);
  digest.add(reconciling_);
  digest.add(reconciliationState_);
  digest.add(reconciliationTask_ != nullptr);
  if (ready_) return;
  digest.add(counts_.found);
  digest.add(counts_.deleted);
}

// --- LocalState --------------------------------------------------------------------------------------------

LocalState::LocalState(Stage& stage, std::string_view name) : name_(name) {
  stage.localStateIs(*this);
}

namespace {

/// The built-in machine that watches the stage's own readiness: a collection of one item.
class ReadyMachine final : public InputBase {
 public:
  ReadyMachine(Stage& stage, std::string_view readyText)
      : InputBase(stage, fmt::format("BuiltinSmAttrNreadySm{}", stage.takeChildNumber()),
                  stage.takePipelineNumber(), "ready"),
        readyText_(readyText) {}

  void checkArgument() const override {}
  [[nodiscard]] bool hasPending() const override { return false; }
  [[nodiscard]] std::size_t pendingCount() const override { return 0; }
  [[nodiscard]] Arrival headArrival() const override { return 0; }
  std::size_t drain(Arrival /*limit*/, bool& /*yielded*/) override { return 0; }
  void notePending(PendingDigests& /*pending*/) const override {}

 private:
  void subscribe() override {}
  void unsubscribe() override {}
  bool scanItem() override {
    if (std::exchange(scanned_, true)) return false;
    stage_.tracer().trace<7>("{}: ready={}", TextPart{readyText_}, stage_.ready());
    return true;
  }
  [[nodiscard]] std::size_t collectionSize() const override { return 1; }

  std::string_view readyText_;
  bool scanned_ = false;
};

}  // namespace

// --- StageBase ---------------------------------------------------------------------------------------------

StageBase::StageBase(std::string name) : name_(std::move(name)), tracer_(name_) {}

StageBase::~StageBase() = default;

std::size_t StageBase::pendingCount() const {
  std::size_t count = 0;
  for (const InputBase* input : inputs_) count += input->pendingCount();
  return count;
}

bool StageBase::reactsInside() const {
  return std::any_of(inputs_.begin(), inputs_.end(),
                     [](const InputBase* input) { return input->reactsInside(); });
}

std::vector<std::string> StageBase::waitsFor() const {
  std::vector<std::string> work;
  for (const InputBase* input : inputs_) {
    if (!input->inputScanComplete()) work.push_back(fmt::format("scan of {}", input->childName()));
  }
  if (!work.empty()) return work;
  for (const OutputBase* output : outputs_) {
    if (!output->ready()) work.push_back(fmt::format("deletion scan of {}", output->name()));
  }
  return work;
}

// --- Stage -------------------------------------------------------------------------------------------------

Stage::Stage(std::string_view className, std::string name, Ref<DependencyStatus> dependencyStatus,
             StageControl control, std::string_view readyText)
    : StageBase(std::move(name)),
      className_(className),
      readyText_(readyText),
      dependencyStatus_(std::move(dependencyStatus)),
      control_(std::move(control)) {}

Stage::~Stage() = default;

void Stage::initialize() {
  const KilnPlatform::RunningStageScope scope(name());
  KILN_ASSERT_MESSAGE(
      dependencyStatus_ != nullptr,
      "dependencyStatus() && \"Pointer SM args cannot be null unless they are marked Optional\"");
  KILN_ASSERT_MESSAGE(control_.scheduler != nullptr,
                      "scheduler() && \"Pointer SM args cannot be null unless they are marked Optional\"");
  for (const InputBase* input : inputs()) input->checkArgument();
  for (const DeclaredOutput* output : declaredOutputs()) output->checkArgument();
  checkArguments();
  eventTask_ = std::make_unique<Task>(
      control_.scheduler, control_.priority, fmt::format("KilnEmServer::{}-EventTask", className_),
      [](void* owner) { static_cast<Stage*>(owner)->runEvents(); }, this, 0, name());
  const int pipelines = pipelineNumber_ + 1;  // the last one watches the stage's own readiness
  inputSmScanState_.scanning.assign(static_cast<std::size_t>(pipelines), true);
  tracer().trace<9>("initialized");
  for (OutputBase* output : outputs()) output->startReconciling();
  handleInitialized();
  tracer().trace<9>("create local SMs");
  const std::vector<InputBase*> children = inputs();
  readyMachine_ = std::make_unique<ReadyMachine>(*this, readyText_);
  readyMachine_->start();
  for (InputBase* child : children) child->start();
  tracer().trace<9>("create non-public arg SMs");
  initialized_ = true;
  handleScanComplete();
}

void Stage::doDeleteAll(Withdrawal withdrawal) {
  beginDeleteAll(withdrawal);
  while (deleteNext()) {
  }
}

void Stage::beginDeleteAll(Withdrawal withdrawal) {
  const KilnPlatform::RunningStageScope scope(name());
  const std::vector<InputBase*> children = inputs();
  for (auto child = children.rbegin(); child != children.rend(); ++child) (*child)->stop();
  readyMachine_.reset();
  eventTask_.reset();
  handleDeleteAll();
  for (LocalState* state : localStates()) state->clear();
  for (DeclaredOutput* output : declaredOutputs()) output->beginDeleteAll(withdrawal);
}

std::size_t Stage::keysInOutputs() const {
  std::size_t keys = 0;
  for (const DeclaredOutput* output : declaredOutputs()) keys += output->size();
  return keys;
}

bool Stage::addReads(std::vector<const void*>& collections) const {
  for (const InputBase* input : inputs()) input->addReads(collections);
  for (const DeclaredOutput* output : declaredOutputs()) output->addReads(collections);
  return true;
}

bool Stage::deleteNext() {
  const KilnPlatform::RunningStageScope scope(name());
  // An earlier output may decide which keys of a later one are the stage's own, so the last one is emptied
  // first.
  const bool more = std::any_of(declaredOutputs().rbegin(), declaredOutputs().rend(),
                                [](DeclaredOutput* output) { return output->deleteNext(); });
  if (!more) dependencyStatus_->completedDel(name());
  return more;
}

void Stage::noteWaiting(InputBase& input) {
  if (!std::exchange(input.waiting_, true)) waiting_.push_back(&input);
  if (initialScanDone_ && eventTask_ != nullptr) eventTask_->scheduleTask();
}

void Stage::handleScanComplete() {
  if (!initialized_ || initialScanDone_) return;
  handleInitialScanDone();
}

void Stage::handleInitialScanDone() {
  bool complete = true;
  for (const InputBase* input : inputs()) {
    if (input->inputScanComplete()) continue;
    complete = false;
    tracer().trace<9>("{} scan is false", TextPart{input->streamName()});
  }
  if (!complete) {
    tracer().trace<8>("Initial scan yielding for child SM {}.", TextPart{className_});
    return;
  }
  tracer().trace<9>("Initial scan done for child SMs. Now scanning with events triggered.");
  initialScanDone_ = true;
  auto& scanning = inputSmScanState_.scanning;
  for (std::size_t pipeline = 0; pipeline < scanning.size(); ++pipeline) {
    scanning[pipeline] = false;
    tracer().trace<9>("pipeline {} scan is done", pipeline);
  }
  inputSmScanState_.idle = true;
  if (pendingCount() > 0) eventTask_->scheduleTask();
  if (outputs().empty()) {
    handleDependencyStatusCompletedOutputInputReady();
    return;
  }
  for (OutputBase* output : outputs()) output->handleInputReady();
}

void Stage::handleDependencyStatusCompletedOutputInputReady() {
  if (ready() ||
      !std::all_of(outputs().begin(), outputs().end(), [](const OutputBase* o) { return o->ready(); })) {
    return;
  }
  readyIs(true);
  tracer().trace<9>("Input scans for dependencyStatusCompletedOutput complete");
  outputState_.dependencyStatusCompletedOutputReady = true;
  dependencyStatus_->completedIs(name());
}

void Stage::noteState(StateDigest& digest) const {
  digest.begin(name());
  digest.add(initialized_);
  digest.add(initialScanDone_);
  digest.add(outputState_.ready);
  digest.add(outputState_.dependencyStatusCompletedOutputReady);
  digest.add(reapRequested_);
  digest.add(eventTask_ != nullptr);
  // Inputs of inner collections are created in the order in which the collections were added.
  digest.unordered([&](auto&& item) {
    for (const InputBase* input : inputs()) item(*input);
  });
  notePending(digest);
  for (const OutputBase* output : outputs()) digest.add(*output);
  for (const LocalState* state : localStates()) digest.add(*state);
}

void Stage::notePending(StateDigest& digest) const {
  PendingDigests pending;
  for (const InputBase* input : inputs()) {
    if (input->hasPending()) input->notePending(pending);
  }
  std::sort(pending.begin(), pending.end(), [](const PendingDigest& a, const PendingDigest& b) {
    return isBefore(a.arrival, b.arrival) || (a.arrival == b.arrival && a.what < b.what);
  });
  for (const PendingDigest& each : pending) digest.add(each.what);
  digest.add(pending.size());
}

void Stage::readyIs(bool ready) {
  outputState_.ready = ready;
  tracer().trace<7>("{}: ready={}", TextPart{readyText_}, ready);
}

void Stage::reapInputs() {
  if (!reapRequested_) return;
  const std::vector<InputBase*> present = inputs();
  reapRequested_ = false;
  for (InputBase* input : present) {
    const bool alive = std::find(inputs().begin(), inputs().end(), input) != inputs().end();
    if (alive && input->reap()) reapRequested_ = true;
  }
}

InputBase* Stage::nextInput(Arrival& limit) {
  limit = arrivals_;
  if (waiting_.size() == 1) {  // the usual case: there is no order to determine
    InputBase* const only = waiting_.front();
    if (only->hasPending()) return only;
    only->waiting_ = false;
    waiting_.clear();
    return nullptr;
  }
  InputBase* first = nullptr;
  Arrival least = arrivals_;
  for (std::size_t at = 0; at < waiting_.size();) {
    InputBase* const input = waiting_[at];
    if (!input->hasPending()) {
      input->waiting_ = false;
      waiting_[at] = waiting_.back();
      waiting_.pop_back();
      continue;
    }
    ++at;
    const Arrival arrival = input->headArrival();
    if (first == nullptr || isBefore(arrival, least)) {
      limit = least;
      least = arrival;
      first = input;
    } else if (isBefore(arrival, limit)) {
      limit = arrival;
    }
  }
  return first;
}

void Stage::runEvents() {
  const KilnPlatform::RunningStageScope scope(name());
  std::size_t items = 0;
  Arrival limit = 0;
  // Items of different inputs are taken in the order of their arrival, in runs from one input.
  bool yielded = false;
  while (!yielded) {
    InputBase* input = nextInput(limit);
    if (input == nullptr) break;
    items += input->drain(limit, yielded);
  }
  control_.scheduler->taskWorkCountInc(items);
  if (const std::size_t pending = yielded ? pendingCount() : 0; pending > 0) {
    tracer().trace<8>("yielding after {} events ({} pending)", items, pending);
    control_.scheduler->taskWorkPendingIs(pending);
    eventTask_->scheduleTask();
  }
  reapInputs();
}

}  // namespace KilnEmServer
