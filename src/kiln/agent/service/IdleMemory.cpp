#include "kiln/agent/service/IdleMemory.h"

#include <malloc.h>

#include <algorithm>

#include "kiln/runtime/collections/PageArena.h"

namespace KilnAgent {
namespace {

/// Smaller amounts are not given back.
constexpr std::size_t kWorthwhile = std::size_t{32} << 20U;
constexpr std::chrono::milliseconds kRest{1000};
constexpr std::size_t kBlocksPerStep = 8;

}  // namespace

void IdleMemory::turn(bool idle) {
  auto& arena = KilnEmServer::PageArena::instance();
  const std::size_t inUse = arena.counters().bytes;
  peak_ = std::max(peak_, inUse);
  due_ = peak_ - inUse >= kWorthwhile;
  if (!idle) {
    idleSince_ = Clock::now();
    begun_ = false;
  }
  if (!idle || !due_ || Clock::now() - idleSince_ < kRest) return;
  begun_ = true;
  if (arena.giveBack(kBlocksPerStep)) return;
  ::malloc_trim(0);
  peak_ = inUse;
  due_ = begun_ = false;
}

std::optional<std::chrono::milliseconds> IdleMemory::patience() const {
  if (!due_) return std::nullopt;
  return begun_ ? std::chrono::milliseconds(0) : kRest;
}

}  // namespace KilnAgent
