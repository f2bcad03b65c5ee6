// Makes a failing run short.
#pragma once

#include <string>

#include "sim/Plan.h"
#include "sim/Run.h"

namespace KilnSim {

/// Runs a plan in a process of its own, so that a failed assertion is a verdict like others.
Verdict runApart(const Plan& plan);

/// The plan without what its failure does not need, found by leaving out ever smaller parts. `plan` must
/// fail; so does the result, though maybe otherwise.
Plan minimize(Plan plan);

/// The scenario of a plan, in which `kiln-agent run` does the same: with what `verdict` expects at its end.
std::string scenarioOf(const Plan& plan, const Verdict& verdict);

/// How kiln-agent is called for that scenario.
std::string replayCommand(const Plan& plan, const std::string& file);

}  // namespace KilnSim
