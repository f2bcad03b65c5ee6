// Common functions of the fuzz targets. A target gives libFuzzer one function; a violated property ends the
// process by an assertion, as does any exception that a parser must not throw.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kiln/agent/io/InputError.h"
#include "kiln/platform/Assert.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace KilnFuzz {

inline std::string_view textIn(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// The error of `call` for its input; nothing if the input is accepted. The error must be one line that is
/// not empty.
template <class Call>
std::optional<std::string> refusalOf(Call&& call) {
  try {
    call();
    return std::nullopt;
  } catch (const KilnAgent::InputError& error) {
    const std::string message = error.what();
    KILN_ASSERT(!message.empty() && message.find_first_of("\r\n") == std::string::npos);
    return message;
  }
}

}  // namespace KilnFuzz
