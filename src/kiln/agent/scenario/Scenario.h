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

/// The progress of a run.
struct ScenarioCounters {
  std::uint64_t lines = 0;
  std::uint64_t operations = 0;
  std::uint64_t publishes = 0;
  std::uint64_t refusals = 0;       ///< publishes that were refused at the store
  std::uint64_t expects = 0;        ///< checked expectations
  std::uint64_t failedExpects = 0;  ///< failed ones among them
};

/// Runs scenarios: JSON Lines; blank lines and lines that begin with // are skipped.
class Scenario {
 public:
  /// Called for each refusal and each failed expectation with one line of text, which begins with file and
  /// line number if a file is run.
  using Say = std::function<void(const std::string& text)>;
  /// Called periodically during a run.
  using Progress = std::function<void(const ScenarioCounters&)>;

  /// With `interleave`, a number of tasks drawn from `seed` runs between two operations that would otherwise
  /// be applied back to back, until a RunOperation of a scenario gives the number of tasks itself.
  Scenario(EmbeddedAgent& agent, bool interleave, std::uint64_t seed, Say say, Progress progress = {});

  /// Called with the report of each restart that ended, or that was interrupted by another one.
  using Reconciled = std::function<void(const ReconcileReport&)>;
  void reconciledIs(Reconciled reconciled) { reconciled_ = std::move(reconciled); }

  /// Runs one file. `name` is its name in texts. Throws InputError with file and line at the first line that
  /// is not an operation or has more than LineConnection::kMaxLine bytes. That line is not executed; the
  /// lines before it were.
  void run(std::istream& lines, const std::string& name);
  /// Runs one line; a line without an operation does nothing. Throws InputError without file and line.
  void runLine(std::string_view line);
  /// Runs one operation. Throws InputError if the agent's state does not allow it.
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
  std::uint64_t reconciledReported_ = 0;
  ScenarioCounters counters_;
  std::string name_;  ///< of the current file; empty for none
  std::uint64_t lineNumber_ = 0;
};

}  // namespace KilnAgent
