// What the chip was told to do and what it answered, and which statuses follow from that.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "kiln/agent/chip/SoftTable.h"
#include "sim/Recompute.h"

namespace KilnSim {

/// The chip's own log of operations and answers, by hardware key. It knows nothing of stages: an answer
/// counts if no later operation on its key was issued, and requests and VLAN domains say for whom an
/// operation was. What cannot be known from outside between two settled moments is kept as alternatives.
///
/// Also which interfaces own an entry: those of the requests that it may have been written for.
class HardwareLog {
 public:
  using EntryState = Asic::SwTableBase::EntryState;
  using Interfaces = std::set<IntfIdSystemTcamId>;

  /// `subjects` are the requests for which a write may be, or a removal because the table cannot hold their
  /// entries. `present`: the table has an entry under the key.
  void issued(const KilnAgent::HwOperation& operation, const std::set<Subject>& subjects, bool present);
  void applied(const KilnAgent::HwOperation& operation, EntryState outcome);
  /// `settledInputs`: nothing has changed from outside since the last settled moment.
  void answered(std::uint64_t number, bool settledInputs);
  /// Answers to the server that ended count no more. The entries keep their owners.
  void serverEnded();

  /// No task is ready. What is known now replaces what was possible. `winners` as recompute() says.
  void settled(const std::map<EmResolvedKey, Subject>& winners);
  struct Wrong {
    RequestPlace place;
    StatusSeen expected;  ///< or one of those that were possible
  };
  /// The statuses that do not follow from the operations answered so far. To be called when settled.
  [[nodiscard]] std::vector<Wrong> wrongStatuses(const Wanted& wanted, const Outcome& expected,
                                                 const Outcome& found) const;

  /// Why the VLAN domain of an interface must not be given back yet: an entry of it is in a table, or an
  /// operation on it is unanswered. Empty if neither is.
  [[nodiscard]] std::string inUse(const IntfIdSystemTcamId& interface, const KilnAgent::SoftChip& chip) const;
  /// The interfaces of which one owns the entry under the key; empty if none is known.
  [[nodiscard]] const Interfaces& owners(const EmResolvedKey& key) const;
  /// Calls `visitor` with each key that a table may hold and the interfaces of which one owns its entry.
  template <class Visitor>
  void forEachOwned(Visitor&& visitor) const {
    for (const auto& [hwKey, key] : keys_) visitor(hwKey, key.owners);
  }
  /// Describes what is known, as a part of its own.
  void noteState(KilnEmServer::StateDigest& digest) const;

 private:
  struct Operation {
    bool write = false;
    std::set<Subject> subjects;
    Interfaces interfaces;  ///< of the entry that is written
    bool refused = false;
  };
  /// An accepted answer to a write.
  struct Recorded {
    Subject subject;
    bool refused = false;
    friend auto operator<=>(const Recorded&, const Recorded&) = default;
    void noteState(KilnEmServer::StateDigest& digest) const { digest.add(std::tie(subject, refused)); }
  };
  struct Key {
    std::map<std::uint64_t, Operation> unanswered;
    std::uint64_t latest = 0;
    std::uint64_t latestWrite = 0;
    std::uint64_t latestRemoval = 0;
    std::uint64_t latestAnswered = 0;  ///< the ones before it have had their effect
    Operation latestOperation;
    std::set<std::optional<Recorded>> possible = {std::nullopt};  ///< what is recorded, one of these
    Interfaces owners;                                            ///< of the entry in the table
    Interfaces answeredOwners;                                    ///< the same by what was answered
  };
  /// What a request's status may be by the tables' answers.
  struct Options {
    std::vector<Recorded> recorded;
    bool maybeNone = true;
  };

  void settleKey(const EmResolvedKey& hwKey, Key& key, const std::map<EmResolvedKey, Subject>& winners);
  [[nodiscard]] std::map<RequestPlace, Options> options(
      const std::map<EmResolvedKey, Subject>& winners) const;
  /// What may be published for a request; empty if what was published before may stay.
  [[nodiscard]] static std::vector<StatusSeen> allowed(const Request& request, const Options& options,
                                                       const StatusSeen& decided, bool wins);

  std::map<EmResolvedKey, Key> keys_;
  std::map<std::uint64_t, EmResolvedKey> keyOf_;  ///< of unanswered operations
  std::set<EmResolvedKey> touched_;               ///< since the last settled moment
};

}  // namespace KilnSim
