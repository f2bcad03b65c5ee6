#include "kiln/compose/Departures.h"

#include <fmt/format.h>

#include <utility>

namespace KilnEmServer {

Departures::Departures(Stage& stage, Composer& composer, KeyTraces traces)
    : LocalState(stage, "ComposerSm.departures"),
      stage_(stage),
      composer_(composer),
      traces_(std::move(traces)) {
  stage.readEntityIs(traces_.emLogicalKeyToEntry.get());
  stage.readEntityIs(traces_.emMergedEntry.get());
  stage.readEntityIs(traces_.emWrittenKeys.get());
}

Departures::~Departures() = default;

void Departures::start() {
  const StageControl& control = stage_.control();
  // Without an instance name: it reads more than its stage declares.
  task_ = std::make_unique<Task>(
      control.scheduler, control.priority - 1, fmt::format("{}-DeparturesTask", stage_.className()),
      [](void* self) { static_cast<Departures*>(self)->run(); }, this, kPatience);
}

void Departures::clear() {
  task_.reset();
  toCheck_.clear();
  leaving_.clear();
}

bool Departures::begin(const EmLogicalKey& emKey) {
  const bool isNew = !has(emKey);
  if (isNew) leaving_.obtain(emKey);
  check(emKey);
  return isNew;
}

bool Departures::cancel(const EmLogicalKey& emKey) {
  if (!has(emKey)) return false;
  leaving_.del(emKey);
  return true;
}

void Departures::check(const EmLogicalKey& emKey) {
  if (!has(emKey)) return;
  toCheck_.add(emKey, 0);
  task_->scheduleTask();
}

// Keys that must be checked again wait for the next run: what they wait for has its own tasks.
void Departures::run() {
  const KilnPlatform::RunningStageScope scope(stage_.name());
  std::size_t left = toCheck_.size();
  stage_.control().runSlice(
      *task_, [&] { return left != 0; },
      [&] {
        --left;
        look(toCheck_.pop());
      },
      [&] { return left; });
  if (!toCheck_.empty()) task_->scheduleTask();
}

void Departures::look(const EmLogicalKey& emKey) {
  if (!has(emKey) || composer_.requested(emKey)) return;
  if (onItsWay(emKey)) {
    stage_.tracer().trace<8>("the withdrawal of {} is still on its way", emKey);
    toCheck_.add(emKey, 0);
    return;
  }
  const bool written = traces_.emWrittenKeys != nullptr && traces_.emWrittenKeys->writtenHas(emKey);
  if (written || composer_.hasHwStatus(emKey)) return;  // checked again when that ends
  leaving_.del(emKey);
  composer_.handleDeparted(emKey);
}

bool Departures::onItsWay(const EmLogicalKey& emKey) const {
  if (traces_.emLogicalKeyToEntry != nullptr && traces_.emLogicalKeyToEntry->emLogicalKeyToEntryHas(emKey)) {
    return true;
  }
  if (traces_.emMergedEntry == nullptr) return false;
  const auto& merged = traces_.emMergedEntry->emMergedEntry();
  return merged.has(emKey) || merged.changeWaits(emKey);
}

}  // namespace KilnEmServer
