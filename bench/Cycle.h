// The four operations, one after the other, on any subject that accepts requests.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "bench/Measure.h"

namespace KilnBench {

enum class Operation : std::uint8_t { firstInsert, newVersion, republish, restart, withdraw };
inline constexpr std::array<std::string_view, 5> kOperationNames = {"firstInsert", "newVersion", "republish",
                                                                    "restart", "withdraw"};
constexpr std::size_t indexOf(Operation operation) {
  return static_cast<std::size_t>(operation);
}

/// The cost of an operation, per entry.
struct Cost {
  double nanoseconds = 0;
  double allocations = 0;
  /// Heap in use after it, above the heap in use before anything was published.
  double bytes = 0;
};
using CycleCost = std::array<Cost, kOperationNames.size()>;

/// The settings of a cycle.
struct CycleSetting {
  std::uint32_t entries = 0;
  bool shuffled = false;  ///< each operation in an order of its own
  /// Requests that are submitted before the subject may handle them.
  std::uint32_t burst = 256;
  /// Repetitions of new versions and of identical publications: the last repetition counts, when all memory
  /// that such a change needs is allocated.
  std::uint32_t rounds = 1;
};

/// Notified when an operation begins and ends.
class CycleObserver {
 public:
  virtual void begin(Operation operation) = 0;
  virtual void end(Operation operation) = 0;

 protected:
  ~CycleObserver() = default;
};

/// Whether a subject has work to do at a restart.
template <class Subject>
concept Restartable = requires(Subject& subject) {
  subject.stop();
};

/// Maximum number of requests that are submitted together.
inline constexpr std::size_t kListSize = 256;

/// Runs the operations over one subject, which must be empty, and checks the result of each. A subject's
/// `publish` and `withdraw` only create the requests that its `handIn` submits. Creating them is the
/// features' own work and is not part of the measured time; it is part of the counted allocations and of what
/// an observer measures.
template <class Subject>
class Cycle {
 public:
  Cycle(Subject& subject, const CycleSetting& setting, CycleObserver* observer = nullptr)
      : subject_(subject), setting_(setting), observer_(observer), bytesBefore_(heapBytes()) {}

  CycleCost run() {
    publish(Operation::firstInsert);
    for (std::uint32_t round = 0; round < setting_.rounds; ++round) publish(Operation::newVersion);
    for (std::uint32_t round = 0; round < setting_.rounds; ++round) publish(Operation::republish);
    if constexpr (Restartable<Subject>) restart();
    measure(Operation::withdraw, [this](std::uint32_t n) { subject_.withdraw(n); });
    expect(0);
    return cost_;
  }

 private:
  void publish(Operation operation) {
    if (operation != Operation::republish) ++version_;
    measure(operation, [this](std::uint32_t n) { subject_.publish(n, version_); });
    expect(setting_.entries);
  }
  void restart() {
    subject_.stop();
    if constexpr (requires { subject_.start(); }) {
      const std::vector<std::uint32_t> none;
      measureOver(
          Operation::restart, none, [](std::uint32_t) {}, [this] { subject_.start(); });
    } else {
      measure(Operation::restart, [this](std::uint32_t n) { subject_.publish(n, version_); });
      subject_.reconciled();
      subject_.settle();
    }
    expect(setting_.entries);
  }
  template <class Step>
  void measure(Operation operation, Step&& step) {
    measureOver(operation, numbers(setting_.entries, setting_.shuffled, indexOf(operation) + 1), step, [] {});
  }
  template <class Step, class First>
  void measureOver(Operation operation, const std::vector<std::uint32_t>& order, Step&& step, First&& first) {
    const std::size_t orderBytes = order.capacity() * sizeof(order[0]);
    if (observer_ != nullptr) observer_->begin(operation);
    const std::uint64_t allocationsBefore = allocations();
    double nanoseconds = timed(first);
    for (std::size_t begin = 0, end = 0; begin != order.size(); begin = end) {
      const std::size_t burstEnd = std::min((begin / setting_.burst + 1) * setting_.burst, order.size());
      end = std::min(begin + kListSize, burstEnd);
      for (std::size_t at = begin; at != end; ++at) step(order[at]);
      nanoseconds += timed([&] {
        subject_.handIn();
        if (end == burstEnd) subject_.settle();
      });
    }
    nanoseconds += timed([&] {
      subject_.settle();
      if constexpr (requires { subject_.finish(); }) subject_.finish();
    });
    const auto asked = static_cast<double>(allocations() - allocationsBefore);
    if (observer_ != nullptr) observer_->end(operation);
    const double entries = setting_.entries;
    const auto bytes = static_cast<double>(heapBytes()) - static_cast<double>(bytesBefore_ + orderBytes);
    cost_[indexOf(operation)] = {nanoseconds / entries, asked / entries, bytes / entries};
  }
  void expect(std::uint32_t entries) const {
    if (subject_.settled(version_) != entries) {
      throw std::runtime_error("what was measured did not do its work");
    }
  }

  Subject& subject_;
  CycleSetting setting_;
  CycleObserver* observer_;
  std::size_t bytesBefore_;
  std::uint32_t version_ = 0;
  CycleCost cost_{};
};

}  // namespace KilnBench
