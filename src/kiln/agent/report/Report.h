// The outcome of a run, for people.
#pragma once

#include <cstddef>
#include <string>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/scenario/Scenario.h"

namespace KilnAgent {

/// A number with its digits in groups of three: "1,000,000".
std::string grouped(std::uint64_t number);

/// The statuses by feature and database (counts first, then up to `rowLimit` rows of each), the hardware keys
/// that more than one request wants with winner and losers (up to `rowLimit`), the fill of each table, and
/// the counters of the run. Keys are written as in scenarios.
std::string reportText(const EmbeddedAgent& agent, const ScenarioCounters& counters,
                       std::size_t rowLimit = 20);

}  // namespace KilnAgent
