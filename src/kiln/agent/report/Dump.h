// The agent's state as JSON, for programs.
#pragma once

#include <memory>
#include <string>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/io/TextSource.h"

namespace KilnAgent {

/// The state as one JSON object: its keys are sorted, and each row of its arrays, which are sorted too, has a
/// line. Depends on nothing but the state, and contains no time. Ends with a line end.
std::string dumpText(const EmbeddedAgent& agent);

/// The same object in one line, piece by piece, while the agent may run between two pieces. Rows are in the
/// order of their collections, not sorted. The member "oneMoment" is the last one and is true if the agent
/// was idle all the time, so that all rows show one moment. Otherwise each row was true when it was written:
/// an object that existed all the time has a row, an object that moved in the meantime may have none or two.
/// The agent must outlive it.
std::unique_ptr<TextSource> dumpInPieces(const EmbeddedAgent& agent);

}  // namespace KilnAgent
