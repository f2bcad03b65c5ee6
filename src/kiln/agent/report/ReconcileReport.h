// The report on a restart, for people and for programs.
#pragma once

#include <string>
#include <vector>

#include "kiln/agent/host/ReconcileMonitor.h"
#include "kiln/agent/io/JsonValue.h"

namespace KilnAgent {

/// One restart as JSON. `disturbed` is 0 if the restart was hitless.
Json reconcileJson(const ReconcileReport& report);
/// The same as text, rendered from the JSON: outputs that found nothing, and tables that held nothing and
/// were not called, are summarised.
std::string reconcileText(const Json& report);

}  // namespace KilnAgent
