// Lines that publish and withdraw, and the errors of refused input.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>

#include "kiln/agent/io/InputError.h"

namespace KilnTest {

/// A line that publishes or withdraws a request of an isem table. `key` and `entry` are the fields, in JSON.
inline std::string isemLine(std::string_view op, std::string_view feature, std::string_view table,
                            std::string_view key, std::string_view entry, int version = 1) {
  const auto request =
      fmt::format(R"({{"op":"{}","feature":"{}","database":"isem","key":{{"{}EntryKey":{{{}}}}})", op,
                  feature, table, key);
  if (op == "withdraw") return request + "}";
  return fmt::format(R"({},"entry":{{"{}Entry":{{{}}}}},"requestVersion":{}}})", request, table, entry,
                     version);
}
inline std::string mplsLine(std::string_view op, std::string_view feature, int label, int lif = 7,
                            int version = 1, int labelSpace = 0) {
  return isemLine(op, feature, "isemMpls", fmt::format(R"("label":{},"labelSpace":{})", label, labelSpace),
                  fmt::format(R"("lif":{},"vsi":3)", lif), version);
}
inline std::string untaggedLine(std::string_view op, std::string_view feature, int intfId, int lif = 1,
                                int version = 1, int systemTcamId = 0) {
  return isemLine(op, feature, "isemUntagged",
                  fmt::format(R"("intfId":{},"systemTcamId":{})", intfId, systemTcamId),
                  fmt::format(R"("lif":{},"vsi":1,"profile":0)", lif), version);
}
inline std::string publishLine(int label, int version = 1) {
  return mplsLine("publish", "mpls", label, 7, version);
}
inline std::string withdrawLine(int label) {
  return mplsLine("withdraw", "mpls", label);
}

/// The error of `call` for its input.
template <class Call>
std::string errorOf(Call call) {
  try {
    call();
  } catch (const KilnAgent::InputError& error) {
    return error.what();
  }
  return "no error";
}

}  // namespace KilnTest
