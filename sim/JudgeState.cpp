// Describes the state of the judge: all data on which a later verdict may depend.
#include <algorithm>
#include <optional>
#include <tuple>

#include "sim/HardwareLog.h"
#include "sim/Watch.h"

namespace KilnSim {

using KilnEmServer::StateDigest;

// Verdicts depend on whether there was no change, one, or several. Untouched objects are checked only after
// at most one change, and are forgotten when the window ends.
void Watch::noteState(StateDigest& digest) const {
  digest.begin("Watch");
  digest.add(
      std::tie(byHand_, madeRoom_, present_, foundStatuses_, vanishedStatuses_, removedFeatures_, accepted_));
  for (const auto& [key, write] : lastWrite_) digest.add(std::tie(key, write.entry, write.refused));
  digest.add(std::tie(domainsOfServer_, domainsOfWindow_, contenders_, requested_, mayBeProgrammed_));
  digest.add(std::min<std::size_t>(changes_, 2));
  digest.add(std::min<std::size_t>(inputs_, 2));
  digest.add(inputs_ == inputsSettled_);
  digest.add(std::tie(restarted_, restartSettled_));
  const bool mayMove = inputs_ <= 1 && !restarted_;
  if (changes_ <= 1 || mayMove) digest.add(before_.statuses);
  if (changes_ <= 1) {
    digest.add(std::tie(before_.tables, before_.domainsAsked, refused_, statusChanges_, touched_));
  }
  if (changes_ == 0 && restarted_) digest.add(sizes_);
  log_.noteState(digest);
}

// The numbers of operations are compared with those of unanswered ones. A key without information is
// equivalent to no key.
void HardwareLog::noteState(StateDigest& digest) const {
  digest.begin("HardwareLog");
  for (const auto& [hwKey, key] : keys_) {
    const bool touched = touched_.contains(hwKey);
    const bool possible = key.possible.size() != 1 || *key.possible.begin();
    if (key.unanswered.empty() && !touched && !possible && key.owners.empty() && key.answeredOwners.empty()) {
      continue;
    }
    digest.add(std::tie(hwKey, touched, key.possible, key.owners, key.answeredOwners));
    digest.add(key.latest != 0);
    for (const auto& [number, operation] : key.unanswered) {
      digest.add(std::tie(operation.write, operation.subjects, operation.interfaces, operation.refused));
      for (const std::uint64_t latest : {key.latest, key.latestWrite, key.latestRemoval}) {
        digest.add(number == latest);
      }
      digest.add(number < key.latestAnswered);
    }
    digest.add(key.unanswered.size());
    if (touched || !key.unanswered.empty()) {
      digest.add(std::tie(key.latestOperation.write, key.latestOperation.refused));
    }
  }
}

}  // namespace KilnSim
