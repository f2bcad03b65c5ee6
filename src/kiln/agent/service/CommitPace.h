// When changes are committed to a file.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

namespace KilnAgent {

/// Decides when a batch of changes is due: when the oldest of them is kMaxAge old, or when there are
/// kMaxBatch, but not before kRest times the duration of the last commit has passed. So commits take at most
/// a fifth of the time, and the more expensive a commit is, the larger, and cheaper per change, the batches
/// are.
class CommitPace {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds kMaxAge{5};
  static constexpr std::size_t kMaxBatch = 20'000;
  static constexpr int kRest = 4;

  /// Whether a commit is due; to be called repeatedly. `changes` is the number of uncommitted changes.
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
  std::optional<Clock::time_point> oldest_;  ///< when the first uncommitted change was seen
  Clock::time_point ended_;
  Clock::duration took_{};
};

}  // namespace KilnAgent
