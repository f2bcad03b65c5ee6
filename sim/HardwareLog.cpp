#include "sim/HardwareLog.h"

#include <fmt/format.h>

#include <algorithm>

#include "kiln/agent/chip/SoftChip.h"

namespace KilnSim {
namespace {

HardwareLog::Interfaces interfacesOf(const std::set<Subject>& subjects) {
  HardwareLog::Interfaces interfaces;
  for (const Subject& subject : subjects) {
    if (const auto interface = interfaceOf(std::get<EmRequestKey>(subject.place).emComposerKey)) {
      interfaces.insert(*interface);
    }
  }
  return interfaces;
}

}  // namespace

// --- The log -----------------------------------------------------------------------------------------------

void HardwareLog::issued(const KilnAgent::HwOperation& operation, const std::set<Subject>& subjects,
                         bool present) {
  Key& key = keys_[operation.key];
  Operation logged;
  logged.write = operation.entry != nullptr;
  logged.subjects = subjects;
  if (logged.write) {
    logged.interfaces = interfacesOf(subjects);
  }
  if (key.unanswered.empty() && !present) key.answeredOwners.clear();
  (logged.write ? key.latestWrite : key.latestRemoval) = operation.number;
  key.latest = operation.number;
  key.latestOperation = logged;
  key.unanswered.emplace(operation.number, std::move(logged));
  keyOf_.emplace(operation.number, operation.key);
  touched_.insert(operation.key);
}

void HardwareLog::applied(const KilnAgent::HwOperation& operation, EntryState outcome) {
  Key& key = keys_[operation.key];
  const auto found = key.unanswered.find(operation.number);
  if (found == key.unanswered.end()) return;
  Operation& logged = found->second;
  logged.refused = logged.write && outcome != Asic::SwTableBase::success();
  if (key.latest == operation.number) key.latestOperation.refused = logged.refused;
  if (logged.write && !logged.refused) {
    key.owners = logged.interfaces;
  } else {
    key.owners.clear();
  }
}

void HardwareLog::answered(std::uint64_t number, bool settledInputs) {
  const auto place = keyOf_.find(number);
  if (place == keyOf_.end()) return;
  Key& key = keys_.at(place->second);
  const Operation& operation = key.unanswered.at(number);
  // The answer of an overtaken removal or write counts if the key is wanted again, or no longer wanted, and
  // its writer has not handled that yet.
  const std::uint64_t latestOfKind = operation.write ? key.latestWrite : key.latestRemoval;
  const bool mayCount = number == key.latest || (!settledInputs && number == latestOfKind);
  if (mayCount && !operation.write) key.possible.insert(std::nullopt);
  for (const Subject& subject : operation.subjects) {
    if (mayCount) key.possible.insert(Recorded{subject, operation.refused || !operation.write});
  }
  touched_.insert(place->second);
  if (number > key.latestAnswered) {
    key.latestAnswered = number;
    key.answeredOwners = operation.write && !operation.refused ? operation.interfaces : Interfaces();
  }
  key.unanswered.erase(number);
  keyOf_.erase(place);
}

void HardwareLog::serverEnded() {
  keyOf_.clear();
  touched_.clear();
  for (auto& [hwKey, key] : keys_) {
    const Interfaces owners = std::move(key.owners);
    key = {};
    key.owners = key.answeredOwners = owners;
  }
}

// --- Statuses ----------------------------------------------------------------------------------------------

void HardwareLog::settled(const std::map<EmResolvedKey, Subject>& winners) {
  for (const EmResolvedKey& hwKey : touched_) settleKey(hwKey, keys_.at(hwKey), winners);
  touched_.clear();
}

void HardwareLog::settleKey(const EmResolvedKey& hwKey, Key& key,
                            const std::map<EmResolvedKey, Subject>& winners) {
  const auto winner = winners.find(hwKey);
  const auto latest = key.unanswered.find(key.latest);
  if (latest != key.unanswered.end()) {
    Operation& operation = latest->second;
    operation.subjects.clear();
    if (winner != winners.end()) operation.subjects = {winner->second};
    if (operation.write) operation.interfaces = interfacesOf(operation.subjects);
    return;
  }
  if (key.latest == 0) return;
  if (winner == winners.end()) {
    key.possible = {std::nullopt};
  } else {
    // An answered removal also reports an entry that the table cannot hold.
    const bool refused = key.latestOperation.refused || !key.latestOperation.write;
    key.possible = {Recorded{winner->second, refused}};
    if (!refused) key.owners = key.answeredOwners = interfacesOf({winner->second});
  }
}

std::map<RequestPlace, HardwareLog::Options> HardwareLog::options(
    const std::map<EmResolvedKey, Subject>& winners) const {
  std::map<RequestPlace, Options> all;
  for (const auto& [hwKey, key] : keys_) {
    for (const auto& recorded : key.possible) {
      if (!recorded) continue;
      Options& options = all[recorded->subject.place];
      options.recorded.push_back(*recorded);
      if (key.possible.size() == 1) options.maybeNone = false;
    }
  }
  // If a request wins its key and was answered there, its status follows from that key alone.
  for (const auto& [hwKey, winner] : winners) {
    const auto found = keys_.find(hwKey);
    if (found == keys_.end() || found->second.latest == 0) continue;
    const Key& key = found->second;
    if (key.unanswered.contains(key.latest) || key.possible.size() != 1 || !*key.possible.begin()) continue;
    all[winner.place] = {{**key.possible.begin()}, false};
  }
  return all;
}

std::vector<StatusSeen> HardwareLog::allowed(const Request& request, const Options& options,
                                             const StatusSeen& decided, bool wins) {
  std::vector<StatusSeen> allowed;
  for (const Recorded& recorded : options.recorded) {
    // A status for another version or entry is not published: the previous one is kept.
    const Subject& subject = recorded.subject;
    if (subject.requestVersion != request.requestVersion || subject.entry != request.entry) return {};
    allowed.push_back({request.requestVersion, recorded.refused ? EmStatus::hwFail : EmStatus::hwSuccess, 1});
  }
  if (!options.maybeNone) return allowed;
  if (wins) return {};
  allowed.push_back(decided);
  return allowed;
}

std::vector<HardwareLog::Wrong> HardwareLog::wrongStatuses(const Wanted& wanted, const Outcome& expected,
                                                           const Outcome& found) const {
  std::vector<Wrong> wrong;
  const auto all = options(expected.winners);
  std::set<RequestPlace> winning;
  for (const auto& [hwKey, winner] : expected.winners) winning.insert(winner.place);
  for (const auto& [place, request] : wanted.requests) {
    const auto own = all.find(place);
    const Options options = own == all.end() || !takenUp(place, request) ? Options{} : own->second;
    const auto rightOnes = allowed(request, options, expected.statuses.at(place), winning.contains(place));
    if (rightOnes.empty()) continue;
    const auto seen = found.statuses.find(place);
    if (seen == found.statuses.end() ||
        std::find(rightOnes.begin(), rightOnes.end(), seen->second) == rightOnes.end()) {
      wrong.push_back({place, rightOnes.front()});
    }
  }
  return wrong;
}

// --- VLAN domains ------------------------------------------------------------------------------------------

std::string HardwareLog::inUse(const IntfIdSystemTcamId& interface, const KilnAgent::SoftChip& chip) const {
  const Interfaces own = {interface};
  for (const auto& [hwKey, key] : keys_) {
    if (key.owners == own && chip.table(hwKey.tag()).find(hwKey)) {
      return fmt::format("its table has {}", hwKey);
    }
    for (const auto& [number, operation] : key.unanswered) {
      if (number < key.latestAnswered) continue;
      if (operation.write && operation.interfaces == own)
        return fmt::format("a write of {} is unanswered", hwKey);
      if (key.answeredOwners == own) return fmt::format("the end of {} is unanswered", hwKey);
    }
  }
  return "";
}

const HardwareLog::Interfaces& HardwareLog::owners(const EmResolvedKey& key) const {
  static const Interfaces none;
  const auto found = keys_.find(key);
  return found == keys_.end() ? none : found->second.owners;
}

}  // namespace KilnSim
