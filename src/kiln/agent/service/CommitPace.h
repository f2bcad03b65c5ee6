// When changes are committed to a file.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

namespace KilnAgent {

/// Decides when a batch of changes is due: when the oldest of them is kMaxAge old, or when there are
/// kMaxBatch, but not before kRest times as much time has passed as the last commit took. So commits take at
/// most a fifth of the time, and batches are the larger, and cheaper by change, the more a commit costs.
class CommitPace {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kMaxAge{5};
  static constexpr std::size_t kMaxBatch = 20'000;
  static constexpr int kRest = 4;

  /// Whether a commit is due; to be asked again and again. `changes` wait for it.
  [[nodiscard]] bool due(std::size_t changes) {
    if (changes == 0) return false;
    const Clock::time_point now = Clock::now();
    if (!oldest_) oldest_ = now;
    return now - ended_ >= kRest * took_ && (changes >= kMaxBatch || now - *oldest_ >= kMaxAge);
  }
  /// Makes a commit, whether or not it is due.
  template <class Commit>
  void commit(Commit&& commit) {
    const Clock::time_point began = Clock::now();
    commit();
    ended_ = Clock::now();
    took_ = ended_ - began;
    oldest_.reset();
  }

 private:
  std::optional<Clock::time_point> oldest_;  ///< when the first change that waits was seen
  Clock::time_point ended_;
  Clock::duration took_{};
};

}  // namespace KilnAgent
