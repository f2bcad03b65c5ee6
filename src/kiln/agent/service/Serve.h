// The agent as a service: it receives operations as lines over a socket and answers each with a line.
#pragma once

#include <string>

#include "kiln/agent/host/EmbeddedAgent.h"

namespace KilnAgent {

struct ServeOptions {
  AgentOptions agent;        ///< with a state directory
  std::string socket;        ///< the path to listen on; empty for the default path in the state directory
  std::size_t reserved = 0;  ///< bytes of memory for entries, reserved at the start
};

/// Serves until SIGTERM or SIGINT; entries and state survive. A line is an operation of the scenario
/// language, or {"op":"show","what":NAME}. A client gets its answers in the order of its lines:
///
///   {"line":7,"ok":true,"durable":true}     the operation and all before it survive the agent's death
///   {"line":7,"ok":true,"durable":false}    executed; what it set does not survive
///   {"line":7,"ok":true}                    executed; there is nothing of its own to survive
///   {"line":7,"ok":false,"error":TEXT}      refused, malformed, or an expectation that did not hold
///
/// An answer to {"op":"show"} has a member NAME with the content. Operations that would discard acknowledged
/// state are refused. Clients share each turn equally by time. If there are too many, the one that has been
/// idle for longest is closed for a new one.
///
/// Blank lines and comments are counted, but not answered. Throws InputError if the state or the socket
/// cannot be used, std::runtime_error if a commit fails; unanswered operations may then be lost.
void serve(const ServeOptions& options);

}  // namespace KilnAgent
