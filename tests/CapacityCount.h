// An independent count of the capacity rows, from the chip's tables, FAPs and profiles and the external
// users.
#pragma once

#include <string>

#include "agent/EmbeddedAgent.h"

namespace KilnTests {

/// What of the dump's capacity rows differs from the count, in words; empty where nothing does.
std::string capacityDifference(const KilnAgent::EmbeddedAgent& agent);

}  // namespace KilnTests
