// Which orders of steps need not be tried, since the steps have nothing to do with each other.
#pragma once

#include <cstdint>
#include <vector>

#include "sim/ExploredSpace.h"
#include "sim/ScheduleRun.h"

namespace KilnSim {

/// The state before a step, to find out what the step changed.
class Footprints {
 public:
  explicit Footprints(const ScheduleRun& run) : before_(run.digest().parts()) {}
  /// What the step that was taken since, by this choice, changed and may have read.
  [[nodiscard]] Footprint until(const ScheduleRun& run, const Choice& choice, ExploredSpace& space) const;

 private:
  std::vector<KilnEmServer::StateDigest::Part> before_;
};

/// Looks at the default steps that follow a state.
class Reduction {
 public:
  explicit Reduction(const ExploredSpace& space) : space_(space) {}
  /// False if the choice leads nowhere else than the default step does, sooner or later.
  [[nodiscard]] bool needed(const Branch& branch) const;

 private:
  const ExploredSpace& space_;
};

}  // namespace KilnSim
