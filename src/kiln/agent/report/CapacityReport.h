// How full the exact-match tables are, for programs and for people.
#pragma once

#include <memory>
#include <string>

#include "kiln/agent/host/CapacityMonitor.h"
#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/io/TextSource.h"

namespace KilnAgent {

/// One JSON object: "tables", one row for each table on each core, with the usage of each feature, its
/// high-watermark and its alarm; "resources", the requested entries per key type; "alarms", the latest
/// crossings of the thresholds in the order in which they happened. All amounts but those of "resources" are
/// in units of 60-bit entries, all times are nanoseconds of the agent's clock. Ends with a line end.
std::string capacityJson(const EmbeddedAgent& agent, const CapacityMonitor& monitor);

/// The same in one line, piece by piece, while the agent may run in between: each row is true when it is
/// written. Agent and monitor must outlive it.
std::unique_ptr<TextSource> capacityInPieces(const EmbeddedAgent& agent, const CapacityMonitor& monitor);

/// The same as text, with a bar for each table.
std::string capacityText(const EmbeddedAgent& agent, const CapacityMonitor& monitor);

}  // namespace KilnAgent
