// The agent's final state as JSON, for programs.
#pragma once

#include <string>

#include "agent/EmbeddedAgent.h"

namespace KilnAgent {

/// The state as one JSON object, its keys sorted, a line for each row of its arrays, which are sorted too.
/// Depends on nothing but the state, and on no time. Ends with a line's end.
std::string dumpText(const EmbeddedAgent& agent);

}  // namespace KilnAgent
