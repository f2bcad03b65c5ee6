// The error of whoever wrote what the agent was given to read.
#pragma once

#include <stdexcept>

namespace KilnAgent {

/// What is wrong with something that was read or named, in words for whoever wrote it.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace KilnAgent
