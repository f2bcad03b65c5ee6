// The error of whoever wrote what the agent was given to read.
#pragma once

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>

namespace KilnAgent {

/// A text in one line for people: its control characters are spaces, and a long one is cut.
inline std::string oneLine(std::string text) {
  constexpr std::size_t kMaxLength = 300;
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; };
  std::replace_if(text.begin(), text.end(), isControl, ' ');
  if (text.size() <= kMaxLength) return text;
  std::size_t end = kMaxLength;
  while (end != 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;  // a character's middle
  return text.replace(end, std::string::npos, "...");
}

/// What is wrong with something that was read or named, in one line for whoever wrote it.
class InputError : public std::runtime_error {
 public:
  explicit InputError(std::string text) : std::runtime_error(oneLine(std::move(text))) {}
};

}  // namespace KilnAgent
