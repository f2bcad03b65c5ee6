// When a slice has used its share: the policies that the agent offers.
#pragma once

#include <chrono>
#include <cstdint>

#include "platform/TaskScheduler.h"

namespace KilnAgent {

/// Yields after every `items` items of work.
class EveryItems final : public KilnPlatform::YieldPolicy {
 public:
  /// `items` is at least 1.
  explicit EveryItems(std::uint32_t items) : items_(items) {}
  std::uint32_t sliceBegins() override { return items_; }
  std::uint32_t ask(std::uint32_t /*itemsDone*/) override { return 0; }

 private:
  std::uint32_t items_;
};

/// Yields once a slice has run for `budget` of the machine's steady clock, which it reads every few items
/// only. Runs under it are not repeatable.
class TimeBudget final : public KilnPlatform::YieldPolicy {
 public:
  explicit TimeBudget(std::chrono::nanoseconds budget) : budget_(budget) {}
  std::uint32_t sliceBegins() override {
    begin_ = std::chrono::steady_clock::now();
    return kItemsPerLook;
  }
  std::uint32_t ask(std::uint32_t /*itemsDone*/) override {
    return std::chrono::steady_clock::now() - begin_ >= budget_ ? 0 : kItemsPerLook;
  }

 private:
  static constexpr std::uint32_t kItemsPerLook = 64;
  std::chrono::nanoseconds budget_;
  std::chrono::steady_clock::time_point begin_;
};

}  // namespace KilnAgent
