// An independent count of the capacity rows, from the chip's tables, FAPs and profiles and the external
// users.
#pragma once

#include <string>

#include "kiln/agent/host/EmbeddedAgent.h"

namespace KilnSim {

/// The differences between the capacity rows and the count, as text; empty if there are none. The rows are
/// taken from the dump or, which is faster, from the server's collection.
std::string capacityDifference(const KilnAgent::EmbeddedAgent& agent, bool ofDump = true);

}  // namespace KilnSim
