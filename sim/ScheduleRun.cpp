#include "sim/ScheduleRun.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <tuple>
#include <variant>

#include "kiln/agent/io/InputError.h"
#include "kiln/platform/Assert.h"
#include "kiln/runtime/stage/Stage.h"
#include "kiln/server/KilnEmServer.h"

namespace KilnSim {
namespace {

using namespace KilnAgent;
using Kind = Choice::Kind;
using Mode = SoftTable::AnswerMode;

constexpr std::size_t kMostSetUpSteps = 100'000;

/// Is asked after each item, and yields after a given one.
class CountingItems final : public KilnPlatform::YieldPolicy {
 public:
  explicit CountingItems(std::size_t limit) : limit_(limit) {}
  std::uint32_t sliceBegins() override { return 1; }
  std::uint32_t ask(std::uint32_t /*itemsDone*/) override {
    ++items_;
    return limit_ != 0 && items_ >= limit_ ? 0 : 1;
  }
  [[nodiscard]] std::size_t items() const { return items_; }

 private:
  std::size_t limit_;
  std::size_t items_ = 0;
};

Plan unshuffled() {
  Plan plan;
  plan.shuffled = false;
  return plan;
}

/// Each answer waits until it is chosen, unless the table answers inside the call.
Operation withChosenAnswers(Operation operation) {
  if (auto* table = std::get_if<TableOperation>(&operation)) {
    if (table->insideCall) {
      table->answer = *table->insideCall ? Mode::success : Mode::hold;
    } else if (table->answer == Mode::success) {
      table->answer = Mode::hold;
    }
  }
  return operation;
}

std::uint64_t writesOf(const SoftChip& chip) {
  std::uint64_t writes = 0;
  chip.forEachTable([&](const SoftTable& table) { writes += table.operations().writes; });
  return writes;
}

/// The stage's name: the name of an instance may continue with the key of an inner input.
std::string_view stageOf(const KilnPlatform::Task& task) {
  return task.instance().substr(0, task.instance().find('['));
}

std::string answerTaskOf(const SoftTable& table) {
  return "SoftChip-" + std::string(table.stem());
}

}  // namespace

ScheduleRun::ScheduleRun(const SmallScenario& scenario, bool fromReady, TaskNumbers& numbers, int record)
    : scenario_(scenario), numbers_(numbers), record_(record), run_(unshuffled(), tally_, nullptr) {
  for (const auto& node : run_.agent().server().graph().nodes) stageOrder_.push_back(node.stage);
  apply(RunOperation{0});
  for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
    apply(TableOperation{type.tag, Mode::hold, {}, {}});
  }
  if (fromReady || !scenario_.setUp.empty()) settleByDefault();
  for (const Operation& operation : scenario_.setUp) {
    apply(withChosenAnswers(operation));
    settleByDefault();
  }
  exploring_ = true;
  left_ = scenario_.troubles;
  takeDigest();
  findChoices();
}

void ScheduleRun::record(const Operation& operation) const {
  if (record_ < 0) return;
  const std::string line = operationLine(operation) + "\n";
  if (write(record_, line.data(), line.size()) < 0) std::abort();
}

void ScheduleRun::apply(const Operation& operation) {
  record(operation);
  run_.execute(operation);
}

/// Runs the pending work in the default order.
void ScheduleRun::settleByDefault() {
  const std::size_t operations = std::exchange(next_, scenario_.explored.size());
  std::size_t steps = 0;
  for (findChoices(); !ended() && !failed(); ++steps) {
    if (steps == kMostSetUpSteps) throw InputError("setting the state up does not end");
    take(Choice(choices_.front()));
  }
  next_ = operations;
}

// --- What may be done --------------------------------------------------------------------------------------

std::size_t ScheduleRun::rankOf(const Task& task) const {
  return static_cast<std::size_t>(std::find(stageOrder_.begin(), stageOrder_.end(), stageOf(task)) -
                                  stageOrder_.begin());
}

void ScheduleRun::findReady() {
  ready_.clear();
  run_.agent().scheduler().forEachReady([&](Task& task) {
    ready_.push_back({&task, rankOf(task), numbers_.numberOf(task.name(), task.instance())});
  });
  const auto order = [this](const Ready& ready) {
    const Task& task = *ready.task;
    return std::tuple(-task.priority(), ready.number == yielded_, ready.rank, task.name(), task.instance());
  };
  std::sort(ready_.begin(), ready_.end(),
            [&](const Ready& a, const Ready& b) { return order(a) < order(b); });
  const auto twice = std::adjacent_find(ready_.begin(), ready_.end(),
                                        [](const Ready& a, const Ready& b) { return a.number == b.number; });
  KILN_ASSERT(twice == ready_.end() && "ready tasks have different names or instances");
}

void ScheduleRun::findChoices() {
  choices_.clear();
  findReady();
  addTasks();
  addAnswers();
  const bool quiet = choices_.size() <= idleSlices_;
  addOperation();
  if (next_ == scenario_.explored.size() && quiet) choices_.push_back({});
  // The choices before it changed nothing.
  choices_.erase(choices_.begin(), choices_.begin() + static_cast<std::ptrdiff_t>(idleSlices_));
  if (exploring_) addTroubles();
}

/// A task of a lower priority may run early if its patience may be used up.
void ScheduleRun::addTasks() {
  for (const Ready& ready : ready_) {
    if (ready.task->priority() < ready_.front().task->priority() && ready.task->patience() == 0) continue;
    choices_.push_back({.kind = Kind::task, .which = ready.number});
  }
}

void ScheduleRun::addAnswers() {
  std::uint16_t number = 0;
  run_.agent().chip().forEachTable([&](const SoftTable& table) {
    ++number;
    for (std::size_t place = 0; place < table.held(); ++place) {
      choices_.push_back({.kind = Kind::answer, .which = number, .place = static_cast<std::uint16_t>(place)});
    }
  });
}

void ScheduleRun::addOperation() {
  if (next_ == scenario_.explored.size()) return;
  const bool barrier = std::holds_alternative<SettleOperation>(scenario_.explored[next_]);
  if (!barrier || choices_.size() <= idleSlices_)
    choices_.push_back({.kind = Kind::operation, .which = static_cast<std::uint16_t>(next_)});
}

void ScheduleRun::addTroubles() {
  if (left_.restarts != 0) choices_.push_back({.kind = Kind::restart});
  if (left_.crashes != 0) choices_.push_back({.kind = Kind::crash});
  if (left_.losses != 0) choices_.push_back({.kind = Kind::loss});
}

// --- What is done ------------------------------------------------------------------------------------------

ScheduleRun::Slice ScheduleRun::take(const Choice& choice) {
  Slice slice;
  const bool othersReady = otherStepThan(choice);
  const auto before = digest_.value();
  const std::uint64_t writes = writesOf(run_.agent().chip());
  yielded_ = 0;
  switch (choice.kind) {
    case Kind::task:
      slice = runTask(choice);
      break;
    case Kind::answer:
      giveAnswer(choice);
      break;
    case Kind::operation:
      applyNext();
      break;
    case Kind::restart:
      --left_.restarts;
      apply(RestartOperation{});
      break;
    case Kind::crash:
      --left_.crashes;
      apply(CrashOperation{false});
      break;
    case Kind::loss:
      --left_.losses;
      apply(CrashOperation{true});
      break;
    case Kind::end:
      break;
  }
  judgeIfQuiet();
  takeDigest();
  idleSlices_ = choice.kind == Kind::task && digest_.value() == before ? idleSlices_ + 1 : 0;
  findChoices();
  // A write can be refused only in a slice of a task.
  KILN_ASSERT(choice.kind == Kind::task || left_.refusals == 0 || writesOf(run_.agent().chip()) == writes);
  slice.othersReady = othersReady || otherStepThan(choice);
  return slice;
}

/// Whether something other than a slice of this task is possible.
bool ScheduleRun::otherStepThan(const Choice& choice) const {
  return std::any_of(choices_.begin(), choices_.end(), [&](const Choice& other) {
    return other.kind != Kind::end && (other.kind != Kind::task || other.which != choice.which);
  });
}

ScheduleRun::Slice ScheduleRun::runTask(const Choice& choice) {
  const auto found = std::find_if(ready_.begin(), ready_.end(),
                                  [&](const Ready& ready) { return ready.number == choice.which; });
  KILN_ASSERT(found != ready_.end() && "the task is ready");
  Task& task = *found->task;
  lastStage_ = task.instance().empty() ? task.name() : stageOf(task);
  SliceOperation operation{std::string(task.name()), std::string(task.instance()), choice.items, {}};
  if (choice.refused != Choice::kNoRefusal) {
    operation.refused = choice.refused;
    --left_.refusals;
  }
  record(operation);
  const std::uint64_t writes = writesOf(run_.agent().chip());
  CountingItems policy(choice.items);
  run_.runSlice(task, policy, operation.refused);
  if (choice.items != 0) {
    run_.agent().scheduler().forEachReady([&](const Task& ready) {
      if (numbers_.numberOf(ready.name(), ready.instance()) == choice.which) yielded_ = choice.which;
    });
  }
  return {policy.items(), static_cast<std::size_t>(writesOf(run_.agent().chip()) - writes), false};
}

void ScheduleRun::giveAnswer(const Choice& choice) {
  const auto tag = static_cast<TableTag>(choice.which);
  const std::string writer = fmt::format("swTableWriterSmStage-{}", tag);
  const auto stages = run_.agent().server().stages();
  const bool exists =
      std::any_of(stages.begin(), stages.end(), [&](const auto* stage) { return stage->name() == writer; });
  lastStage_ = exists ? writer : "";
  apply(AnswerOperation{tag, SoftTable::Order::fifo, 1, true, choice.place});
  apply(SliceOperation{answerTaskOf(run_.agent().chip().table(tag))});
}

void ScheduleRun::applyNext() {
  const Operation& operation = scenario_.explored[next_++];
  if (!std::holds_alternative<SettleOperation>(operation)) apply(withChosenAnswers(operation));
}

void ScheduleRun::judgeIfQuiet() {
  if (run_.agent().scheduler().idle() && !failed()) apply(SettleOperation{});
}

void ScheduleRun::takeDigest() {
  digest_ = KilnEmServer::StateDigest();
  run_.agent().noteState(digest_);
  run_.watch().noteState(digest_);
  digest_.begin("schedule");
  for (const std::uint64_t word :
       {std::uint64_t{next_}, std::uint64_t{left_.refusals}, std::uint64_t{left_.restarts},
        std::uint64_t{left_.crashes}, std::uint64_t{left_.losses}, std::uint64_t{yielded_}}) {
    digest_.add(word);
  }
}

KilnEmServer::StateDigest::Value ScheduleRun::outcome() {
  KilnEmServer::StateDigest digest;
  const Outcome found = outcomeOf(run_.agent());
  digest.begin("outcome");
  for (const auto& [place, seen] : found.statuses) {
    digest.add(fmt::format("{} {} {} {} {} {}", std::get<0>(place), std::get<1>(place), std::get<2>(place),
                           seen.requestVersion, seen.status, seen.result));
  }
  for (const auto& [key, entry] : found.tables) digest.add(fmt::format("{} {}", key, entry));
  return digest.value();
}

void ScheduleRun::withdrawEverything() {
  KilnPlatform::forEachEnumValue<FeatureType>([&](FeatureType feature) {
    KilnPlatform::forEachEnumValue<EmType>([&](EmType database) {
      apply(WithdrawAllOperation{feature, database});
    });
  });
  for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
    apply(TableOperation{type.tag, Mode::success, {}, {}});
  }
  if (!failed()) apply(SettleOperation{});
}

}  // namespace KilnSim
