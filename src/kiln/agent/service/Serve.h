// The agent as a service: operations come as lines over a socket, each is answered by a line.
#pragma once

#include <string>

#include "kiln/agent/host/EmbeddedAgent.h"

namespace KilnAgent {

struct ServeOptions {
  AgentOptions agent;        ///< with a state directory
  std::string socket;        ///< where to listen; empty for the state directory's own place
  std::size_t reserved = 0;  ///< bytes of memory for entries that are taken from the system at the start
};

/// Serves until SIGTERM or SIGINT, which withdraws nothing. A line is an operation of the scenario language,
/// or {"op":"show","what":NAME}. The answers to a client come in the order of its lines:
///
///   {"line":7,"ok":true,"durable":true}     the operation and all before it survive the agent's death
///   {"line":7,"ok":true,"durable":false}    executed; what it set does not survive
///   {"line":7,"ok":true}                    executed; there is nothing of its own to survive
///   {"line":7,"ok":false,"error":TEXT}      refused, malformed, or an expectation that did not hold
///
/// An answer to {"op":"show"} has a member NAME with the content. Operations that discard what was
/// acknowledged are refused. Clients share each turn equally by time; the one that has been idle for longest
/// makes room for a new one if there are too many.
///
/// Blank lines and comments count, but are not answered. Throws InputError where the state or the socket
/// cannot be used, std::runtime_error where a commit fails; what was not answered may then be lost.
void serve(const ServeOptions& options);

}  // namespace KilnAgent
