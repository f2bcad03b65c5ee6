// Reads the description of one FAP, in chip files and in scenarios.
#pragma once

#include "kiln/agent/chip/ChipConfig.h"
#include "kiln/agent/io/JsonValue.h"

namespace KilnAgent {

/// Reads {id, name, type, cores, profile?}. Throws InputError if a member is missing, unknown or invalid.
ChipConfig::Fap readFap(const Json& json, const JsonPath& path);

}  // namespace KilnAgent
