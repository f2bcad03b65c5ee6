// Generates scenarios of realistic shape.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string_view>

namespace KilnAgent {

/// The kinds of requests in a generated scenario.
enum class ScenarioMix : std::uint8_t {
  metro,   ///< a metro edge: all key types, VLAN domains allotted by hand
  direct,  ///< only the key types that need no VLAN domain
  vlan,    ///< only the key types that need one
};

/// The names of the mixes, in the order of their values.
inline constexpr std::string_view kScenarioMixNames[] = {"metro", "direct", "vlan"};

/// Writes a scenario with `requests` different requests, which depends on its arguments alone: requests that
/// overlap on some hardware keys, some of kind hold, then new versions of a few, withdrawals, late and
/// changed VLAN domains, and at the end expectations for some requests with which nothing interferes. Throws
/// InputError if writing to `out` fails.
void generateScenario(std::FILE* out, std::uint64_t requests, std::uint64_t seed, ScenarioMix mix);

}  // namespace KilnAgent
