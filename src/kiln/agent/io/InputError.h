// Invalid user input.
#pragma once

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>

namespace KilnAgent {

/// A text in one line for people: control characters become spaces, and a long text is truncated.
inline std::string oneLine(std::string text) {
  constexpr std::size_t kMaxLength = 300;
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7F'; };
  std::replace_if(text.begin(), text.end(), isControl, ' ');
  if (text.size() <= kMaxLength) return text;
  std::size_t end = kMaxLength;
  while (end != 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;  // whole characters
  return text.replace(end, std::string::npos, "...");
}

/// Invalid user input, described in one line for its author.
class InputError : public std::runtime_error {
 public:
  explicit InputError(std::string text) : std::runtime_error(oneLine(std::move(text))) {}
};

}  // namespace KilnAgent
