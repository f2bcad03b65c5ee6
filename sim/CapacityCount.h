// An independent count of the capacity rows, from the chip's tables, FAPs and profiles and the external
// users.
#pragma once

#include <string>

#include "kiln/agent/host/EmbeddedAgent.h"

namespace KilnSim {

/// What of the capacity rows differs from the count, in words; empty where nothing does. The rows are taken
/// from the dump, or in less time from where the server publishes them.
std::string capacityDifference(const KilnAgent::EmbeddedAgent& agent, bool ofDump = true);

}  // namespace KilnSim
