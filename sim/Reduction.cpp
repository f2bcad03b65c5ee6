#include "sim/Reduction.h"

namespace KilnSim {

Footprint Footprints::until(const ScheduleRun& run, const Choice& /*choice*/, ExploredSpace& space) const {
  Footprint footprint;
  (void)run;
  (void)space;
  return footprint;
}

bool Reduction::needed(const Branch& branch) const {
  (void)branch;
  (void)space_;
  return true;
}

}  // namespace KilnSim
