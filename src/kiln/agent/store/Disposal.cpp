#include "kiln/agent/store/Disposal.h"

namespace KilnAgent {

Disposal::Disposal(const KilnPlatform::Ref<KilnPlatform::TaskScheduler>& scheduler)
    : control_{scheduler},
      task_(
          scheduler, control_.priority, "Disposal",
          [](void* owner) { static_cast<Disposal*>(owner)->runSlice(); }, this, kAgentPatience) {}

void Disposal::take(std::unique_ptr<Waste> waste) {
  waste_.push_back(std::move(waste));
  task_.scheduleTask();
}

void Disposal::resume() {
  if (!waste_.empty()) task_.scheduleTask();
}

void Disposal::runSlice() {
  const auto dropNext = [this] {
    if (!waste_.front()->dropNext()) waste_.pop_front();
  };
  const auto left = [this] {
    std::size_t items = waste_.size();
    for (const auto& waste : waste_) items += waste->size();
    return items;
  };
  control_.runSlice(
      task_, [this] { return !waste_.empty(); }, dropNext, left);
}

}  // namespace KilnAgent
