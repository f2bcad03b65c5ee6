// The agent's state as JSON, for programs.
#pragma once

#include <memory>
#include <string>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/io/TextSource.h"

namespace KilnAgent {

/// The state as one JSON object, its keys sorted, a line for each row of its arrays, which are sorted too.
/// Depends on nothing but the state, and on no time. Ends with a line's end.
std::string dumpText(const EmbeddedAgent& agent);

/// The same object in one line, piece by piece, while the agent may go on between two pieces. Rows are in the
/// order of their collections, not sorted. The member "oneMoment" comes last and is true if the agent was
/// idle all the time, so that all rows show one moment. Else each row was true when it was written: what was
/// there all the time has a row, what moved in the meantime may have none or two. The agent must outlive it.
std::unique_ptr<TextSource> dumpInPieces(const EmbeddedAgent& agent);

}  // namespace KilnAgent
