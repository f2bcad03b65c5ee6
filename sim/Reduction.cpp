#include "sim/Reduction.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "kiln/platform/EmKeys.h"
#include "kiln/runtime/stage/Stage.h"
#include "kiln/server/KilnEmServer.h"

namespace KilnSim {
namespace {

using Kind = Choice::Kind;

bool isStep(const Choice& choice) {
  return choice.kind == Kind::task || choice.kind == Kind::answer || choice.kind == Kind::operation;
}

/// Whether it ends the server; such a step depends on everything.
bool isTrouble(const Choice& choice) {
  return choice.kind == Kind::restart || choice.kind == Kind::crash || choice.kind == Kind::loss;
}

/// Parts that are derived from others, or only observe them.
bool isDerived(std::string_view part) {
  constexpr std::array<std::string_view, 4> kDerived = {"ready tasks", "schedule", "Watch", "HardwareLog"};
  return std::find(kDerived.begin(), kDerived.end(), part) != kDerived.end();
}

/// Of the task that allots VLAN domains.
bool isReadByVlanDomains(std::string_view part) {
  return part.starts_with("vlanDomain") || part == "VlanDomainService";
}

/// Of the capacity's task, which is not a stage's task.
bool isReadByCapacity(std::string_view part) {
  constexpr std::array<std::string_view, 8> kRead = {
      "SemCapacity",           "capacity",       "fap",          "profileId", "profile",
      "mdbCapabilitiesStatus", "mdbLocalStatus", "externalUsers"};
  return part.starts_with("SoftChip") || std::find(kRead.begin(), kRead.end(), part) != kRead.end() ||
         KilnEmServer::tableOfStem(part).has_value();
}

}  // namespace

// --- What steps do -----------------------------------------------------------------------------------------

void FootprintRecorder::before(const ScheduleRun& run) {
  before_ = run.digest().parts();
  possible_.clear();
  for (const Choice& choice : run.choices()) {
    if (isStep(choice)) possible_.insert(ExploredSpace::stepNumber(choice));
  }
}

void FootprintRecorder::after(ScheduleRun& run, const Choice& choice) {
  if (!isStep(choice)) return;
  const std::uint32_t step = ExploredSpace::stepNumber(choice);
  Footprint footprint;
  addWritten(run.digest().parts(), footprint.written);
  if (run.digest().parts().size() != partCount_) reads_.clear();
  partCount_ = run.digest().parts().size();
  // An operation also writes what it reads.
  footprint.read = choice.kind == Kind::operation ? footprint.written : readsOf(run, step);
  addReadsInside(run, footprint);
  for (const Choice& possible : run.choices()) {
    if (!isStep(possible)) continue;
    const std::uint32_t number = ExploredSpace::stepNumber(possible);
    if (!possible_.contains(number) || number == step) footprint.enabled.add(number);
  }
  space_.addFootprint(step, footprint);
}

void FootprintRecorder::addWritten(const Parts& parts, NumberSet& written) {
  auto old = before_.begin();
  for (const auto& part : parts) {
    auto same = old;
    while (same != before_.end() && same->name != part.name) ++same;
    if (same != before_.end()) {
      // Names that no longer exist.
      for (; old != same; ++old) {
        if (!isDerived(old->name)) written.add(numberOf(old->name));
      }
      ++old;
      if (same->value == part.value) continue;
    }
    if (!isDerived(part.name)) written.add(numberOf(part.name));
  }
}

const NumberSet& FootprintRecorder::readsOf(ScheduleRun& run, std::uint32_t step) {
  const auto [place, isNew] = reads_.try_emplace(step);
  if (isNew) addReads(run, place->second);
  return place->second;
}

void FootprintRecorder::addReads(ScheduleRun& run, NumberSet& reads) {
  const Parts& parts = run.digest().parts();
  for (const KilnEmServer::StageBase* stage : run.agent().server().stages()) {
    if (stage->name() == run.lastStage()) return addReadsOf(*stage, parts, reads);
  }
  const auto isRead = run.lastStage() == "SemCapacity-UpdateTask" ? isReadByCapacity
                      : run.lastStage() == "VlanDomainService"    ? isReadByVlanDomains
                                                                  : nullptr;
  if (isRead == nullptr) return reads.addAll();
  for (const auto& part : parts) {
    if (isRead(part.name)) reads.add(numberOf(part.name));
  }
}

/// Stages that handle changes inside the call that makes them read during each step that changed one of their
/// collections.
void FootprintRecorder::addReadsInside(ScheduleRun& run, Footprint& footprint) {
  for (const KilnEmServer::StageBase* stage : run.agent().server().stages()) {
    if (!stage->reactsInside()) continue;
    NumberSet reads;
    addReadsOf(*stage, run.digest().parts(), reads);
    if (footprint.written.meets(reads)) footprint.read.add(reads);
  }
}

void FootprintRecorder::addReadsOf(const KilnEmServer::StageBase& stage, const Parts& parts,
                                   NumberSet& reads) {
  std::vector<const void*> collections;
  if (!stage.addReads(collections)) return reads.addAll();
  for (const auto& part : parts) {
    const bool read = part.collection != nullptr &&
                      std::find(collections.begin(), collections.end(), part.collection) != collections.end();
    if (read || part.name == stage.name()) reads.add(numberOf(part.name));
  }
}

std::size_t FootprintRecorder::numberOf(const std::string& part) {
  const auto [place, isNew] = numbers_.try_emplace(part);
  if (isNew) place->second = space_.partNumber(part);
  return place->second;
}

// --- What need not be tried --------------------------------------------------------------------------------

Reduction::Reduction(const ExploredSpace& space) : space_(space), follow_(space.steps()) {
  for (std::uint32_t i = 0; i < space_.branches(); ++i) {
    const Branch& branch = space_.branch(i);
    if (isStep(branch.choice)) possible_[branch.state].insert(ExploredSpace::stepNumber(branch.choice));
    if (isTrouble(branch.choice)) troubled_.insert(branch.state);
  }
  for (std::uint32_t step = 0; step < follow_.size(); ++step) {
    Steps& follow = follow_[step];
    std::vector<std::uint32_t> found = {step};
    while (!found.empty()) {
      const std::uint32_t next = found.back();
      found.pop_back();
      if (!follow.insert(next).second) continue;
      for (std::uint32_t i = 0; i < follow_.size(); ++i) {
        if (space_.footprint(next).enabled.has(i)) found.push_back(i);
      }
    }
  }
}

bool Reduction::needed(const Branch& branch) const {
  const Choice& first = space_.state(branch.state).step;
  const bool isSlice = branch.choice.kind == Kind::task || branch.choice.kind == Kind::answer;
  if (!isSlice || !isStep(first) || troubled_.contains(branch.state)) return true;
  if (state_ != branch.state) {
    state_ = branch.state;
    needed_ = neededIn(branch.state);
  }
  return needed_.contains(ExploredSpace::stepNumber(branch.choice));
}

Reduction::Steps Reduction::neededIn(std::uint32_t state) const {
  std::vector<std::uint32_t> found = {ExploredSpace::stepNumber(space_.state(state).step)};
  const auto possible = possible_.find(state);
  if (possible == possible_.end()) return {};
  // The next operation is always tried.
  std::copy_if(possible->second.begin(), possible->second.end(), std::back_inserter(found),
               ExploredSpace::isOperation);
  Steps needed(found.begin(), found.end());
  while (!found.empty()) {
    const std::uint32_t other = found.back();
    found.pop_back();
    for (const std::uint32_t step : possible->second) {
      if (needed.contains(step) || !concerns(step, other)) continue;
      needed.insert(step);
      found.push_back(step);
    }
  }
  return needed;
}

bool Reduction::concerns(std::uint32_t step, std::uint32_t other) const {
  const Footprint& footprint = space_.footprint(other);
  if (footprint.read.empty() && footprint.written.empty()) return true;  // it was never taken
  return std::any_of(follow_[step].begin(), follow_[step].end(), [&](std::uint32_t each) {
    const Footprint& own = space_.footprint(each);
    return (own.read.empty() && own.written.empty()) || own.meets(footprint);
  });
}

}  // namespace KilnSim
