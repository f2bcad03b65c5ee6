// Shortens a failing run.
#pragma once

#include <string>

#include "sim/Plan.h"
#include "sim/Run.h"

namespace KilnSim {

/// Runs a plan in a process of its own, so that a failed assertion is a verdict like others.
Verdict runApart(const Plan& plan);

/// The plan without the parts that its failure does not need, found by leaving out ever smaller parts. `plan`
/// must fail; the result fails too, possibly with another failure.
Plan minimize(Plan plan);

/// The scenario of a plan, with which `kiln-agent run` does the same: it ends with the expectations of
/// `verdict`.
std::string scenarioOf(const Plan& plan, const Verdict& verdict);

/// The command line of kiln-agent for that scenario.
std::string replayCommand(const Plan& plan, const std::string& file);

}  // namespace KilnSim
