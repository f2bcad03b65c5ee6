// Sends operations to a serving agent.
#pragma once

#include <cstdint>
#include <string>

namespace KilnAgent {

struct SendOutcome {
  std::uint64_t answered = 0;  ///< lines that the agent answered
  std::uint64_t failed = 0;    ///< answers among them that were not ok
};

/// Sends a file's lines (standard input for -) to the agent that listens on `socket` and writes its answers
/// to standard output, or only those that are not ok, until each line is answered. Throws InputError if file
/// or socket cannot be used, std::runtime_error if the agent closes the connection before it has answered.
SendOutcome sendFile(const std::string& socket, const std::string& file, bool quiet);

}  // namespace KilnAgent
