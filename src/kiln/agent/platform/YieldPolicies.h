// When a slice has used up its time: the policies that the agent offers.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

#include "kiln/platform/TaskScheduler.h"

namespace KilnAgent {

/// Yields after every `items` items of work; never if that is 0.
class EveryItems final : public KilnPlatform::YieldPolicy {
 public:
  explicit EveryItems(std::uint32_t items) : items_(items) {}
  std::uint32_t sliceBegins() override { return items_; }
  std::uint32_t ask(std::uint32_t /*itemsDone*/) override { return 0; }

 private:
  std::uint32_t items_;
};

/// Yields once a slice has run for `budget` of the machine's steady clock. It reads the clock only every few
/// items, and more often towards the end: a slice exceeds its budget by about one item, unless items suddenly
/// take much longer. Runs under it are not repeatable.
class TimeBudget final : public KilnPlatform::YieldPolicy {
 public:
  explicit TimeBudget(std::chrono::nanoseconds budget) : budget_(budget) {}
  std::uint32_t sliceBegins() override {
    begin_ = std::chrono::steady_clock::now();
    items_ = 0;
    return kItemsToFirstLook;
  }
  std::uint32_t ask(std::uint32_t itemsDone) override {
    items_ += itemsDone;
    const std::chrono::nanoseconds used = std::chrono::steady_clock::now() - begin_;
    if (used >= budget_) return 0;
    // The number of items that fit into half of the remaining time, if they take as long as those before.
    const double perItem = static_cast<double>(used.count() + 1) / items_;
    const double fit = static_cast<double>((budget_ - used).count()) / (2 * perItem);
    return static_cast<std::uint32_t>(std::clamp(fit, 1.0, kMostItemsPerLook));
  }

 private:
  static constexpr std::uint32_t kItemsToFirstLook = 16;
  static constexpr double kMostItemsPerLook = 64;
  std::chrono::nanoseconds budget_;
  std::chrono::steady_clock::time_point begin_;
  std::uint32_t items_ = 0;  ///< of this slice
};

}  // namespace KilnAgent
