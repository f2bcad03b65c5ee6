// How the description of one FAP is read, in chip files and in scenarios.
#pragma once

#include "kiln/agent/chip/ChipConfig.h"
#include "kiln/agent/io/JsonValue.h"

namespace KilnAgent {

/// Reads {id, name, type, cores, profile?}. Throws InputError where something is missing, unknown or wrong.
ChipConfig::Fap readFap(const Json& json, const JsonPath& path);

}  // namespace KilnAgent
