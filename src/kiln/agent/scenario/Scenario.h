// Executes scenarios on an agent, line by line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <istream>
#include <optional>
#include <random>
#include <string>
#include <string_view>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/host/TouchRecord.h"
#include "kiln/agent/scenario/Operation.h"

namespace KilnAgent {

/// How far a run has come.
struct ScenarioCounters {
  std::uint64_t lines = 0;
  std::uint64_t operations = 0;
  std::uint64_t publishes = 0;
  std::uint64_t refusals = 0;       ///< publishes that did not enter the store
  std::uint64_t expects = 0;        ///< expectations looked at
  std::uint64_t failedExpects = 0;  ///< among them those that did not hold
};

/// Runs scenarios: JSON Lines, blank lines and lines that begin with // being passed over.
class Scenario {
 public:
  /// Told each refusal and each failed expectation, one line each, beginning with file and line number where
  /// a file is run.
  using Say = std::function<void(const std::string& text)>;
  /// Called now and then while a run goes on.
  using Progress = std::function<void(const ScenarioCounters&)>;

  /// With `interleave`, a number of tasks drawn from `seed` runs between two operations that would else be
  /// applied back to back, until a scenario says itself by a RunOperation how many are to run.
  Scenario(EmbeddedAgent& agent, bool interleave, std::uint64_t seed, Say say, Progress progress = {});

  /// Called with the report of each restart that ended, or that another one interrupted.
  using Reconciled = std::function<void(const ReconcileReport&)>;
  void reconciledIs(Reconciled reconciled) { reconciled_ = std::move(reconciled); }

  /// Runs one file. `name` is its name in texts. Throws InputError with file and line at the first line that
  /// is not an operation or has more than LineConnection::kMaxLine bytes, of which nothing is executed; what
  /// came before has been.
  void run(std::istream& lines, const std::string& name);
  /// Runs one line; a line without an operation does nothing. Throws InputError without file and line.
  void runLine(std::string_view line);
  /// Runs one operation. Throws InputError where the agent's state does not allow it.
  void execute(const Operation& operation);
  /// Runs the agent until nothing is pending; held answers do not count as pending.
  void settle();

  [[nodiscard]] const ScenarioCounters& counters() const { return counters_; }
  /// Whether a line of a scenario holds no operation: it is blank or a comment.
  static bool isBlank(std::string_view line);

 private:
  void apply(const PublishOperation& publish);
  void apply(const WithdrawOperation& withdraw);
  void apply(const WithdrawAllOperation& withdraw);
  void apply(const RemoveFeatureOperation& remove);
  void apply(const AddFeatureOperation& add);
  void apply(const VlanDomainsOperation& vlanDomains);
  void apply(const AllotOperation& allot);
  void apply(const RevokeOperation& revoke);
  void apply(const ShareOperation& share);
  void apply(const TableOperation& operation);
  void apply(const AnswerOperation& answer);
  void apply(const ExternalUserOperation& external);
  void apply(const AddFapOperation& add);
  void apply(const RemoveFapOperation& remove);
  void apply(const ProfileOperation& profile);
  void apply(const SettleOperation& settle);
  void apply(const RunOperation& run);
  void apply(const SliceOperation& slice);
  void apply(const RestartOperation& restart);
  void apply(const CommitOperation& commit);
  void apply(const CrashOperation& crash);
  void apply(const WatchOperation& watch);
  void apply(const ExpectOperation& expect);
  void apply(const ExpectTableOperation& expect);

  void tellReconciled();
  void requireManualDomains() const;
  void requireProfile(std::optional<std::uint32_t> profile) const;
  [[nodiscard]] const TouchRecord& requireTouched() const;
  void expectationFailed(const std::string& expected, const std::string& found, bool touched);
  void sayHere(std::string_view text) const;

  EmbeddedAgent& agent_;
  bool interleave_;
  std::mt19937_64 random_;
  Say say_;
  Progress progress_;
  Reconciled reconciled_;
  std::optional<TouchRecord> touched_;  ///< since the last WatchOperation
  std::uint64_t reconciledTold_ = 0;
  ScenarioCounters counters_;
  std::string name_;  ///< of the file that is run; empty for none
  std::uint64_t lineNumber_ = 0;
};

}  // namespace KilnAgent
