// Lines that publish and withdraw, and what is said of input that is refused.
#pragma once

#include <fmt/format.h>

#include <string>

#include "agent/InputError.h"

namespace KilnTests {

/// An operation that publishes an MPLS request for this label.
inline std::string publishLine(int label, int version = 1) {
  return fmt::format(R"({{"op":"publish","feature":"mpls","database":"isem","requestVersion":{},)"
                     R"("key":{{"isemMplsEntryKey":{{"label":{},"labelSpace":0}}}},)"
                     R"("entry":{{"isemMplsEntry":{{"lif":7,"vsi":3}}}}}})",
                     version, label);
}

/// The operation that withdraws it.
inline std::string withdrawLine(int label) {
  return fmt::format(
      R"({{"op":"withdraw","feature":"mpls","database":"isem","key":{{"isemMplsEntryKey":{{"label":{},"labelSpace":0}}}}}})",
      label);
}

/// What `call` says of its input.
template <class Call>
std::string errorOf(Call call) {
  try {
    call();
  } catch (const KilnAgent::InputError& error) {
    return error.what();
  }
  return "no error";
}

}  // namespace KilnTests
