// The operations issued to the chip and its answers, and the statuses that follow from them.
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

/// The chip's own log of operations and answers, by hardware key. It is independent of the stages: an answer
/// counts if no later operation on its key was issued, and requests and VLAN domains determine the request of
/// an operation. Facts that cannot be known from outside between two settled moments are kept as
/// alternatives.
///
/// Also determines which interfaces own an entry: those of the requests for which it may have been written.
class HardwareLog {
 public:
  using EntryState = Asic::SwTableBase::EntryState;
  using Interfaces = std::set<IntfIdSystemTcamId>;

  /// `subjects` are the requests for which a write may be, or a removal because the table cannot hold their
  /// entries. `present`: whether the table has an entry under the key.
  void issued(const KilnAgent::HwOperation& operation, const std::set<Subject>& subjects, bool present);
  void applied(const KilnAgent::HwOperation& operation, EntryState outcome);
  /// `settledInputs`: whether nothing changed from outside since the last settled moment.
  void answered(std::uint64_t number, bool settledInputs);
  /// Answers to the server that ended no longer count. The owners of the entries are kept.
  void serverEnded();

  /// No task is ready: alternatives are replaced by what is known now. `winners` as computed by recompute().
  void settled(const std::map<EmResolvedKey, Subject>& winners);
  struct Wrong {
    RequestPlace place;
    StatusSeen expected;  ///< or another of the possible ones
  };
  /// The statuses that do not follow from the operations answered so far. To be called after settled().
  [[nodiscard]] std::vector<Wrong> wrongStatuses(const Wanted& wanted, const Outcome& expected,
                                                 const Outcome& found) const;

  /// The reason why the VLAN domain of an interface must not be released yet: an entry of it is in a table,
  /// or an operation on it is unanswered. Empty if there is none.
  [[nodiscard]] std::string inUse(const IntfIdSystemTcamId& interface, const KilnAgent::SoftChip& chip) const;
  /// The interfaces of which one owns the entry under the key; empty if unknown.
  [[nodiscard]] const Interfaces& owners(const EmResolvedKey& key) const;
  /// Calls `visitor` with each key that a table may hold and the interfaces of which one owns its entry.
  template <class Visitor>
  void forEachOwned(Visitor&& visitor) const {
    for (const auto& [hwKey, key] : keys_) visitor(hwKey, key.owners);
  }
  /// Describes the log as a part of its own.
  void noteState(KilnEmServer::StateDigest& digest) const;

 private:
  struct Operation {
    bool write = false;
    std::set<Subject> subjects;
    Interfaces interfaces;  ///< of the written entry
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
    std::uint64_t latestAnswered = 0;  ///< earlier ones have taken effect
    Operation latestOperation;
    std::set<std::optional<Recorded>> possible = {std::nullopt};  ///< alternatives; one of them is recorded
    Interfaces owners;                                            ///< of the entry in the table
    Interfaces answeredOwners;                                    ///< as of the last answer
  };
  /// The possible statuses of a request according to the tables' answers.
  struct Options {
    std::vector<Recorded> recorded;
    bool maybeNone = true;
  };

  void settleKey(const EmResolvedKey& hwKey, Key& key, const std::map<EmResolvedKey, Subject>& winners);
  [[nodiscard]] std::map<RequestPlace, Options> options(
      const std::map<EmResolvedKey, Subject>& winners) const;
  /// The statuses that may be published for a request; empty if the previous one may be kept.
  [[nodiscard]] static std::vector<StatusSeen> allowed(const Request& request, const Options& options,
                                                       const StatusSeen& decided, bool wins);

  std::map<EmResolvedKey, Key> keys_;
  std::map<std::uint64_t, EmResolvedKey> keyOf_;  ///< of unanswered operations
  std::set<EmResolvedKey> touched_;               ///< since the last settled moment
};

}  // namespace KilnSim
