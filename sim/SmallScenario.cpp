#include "sim/SmallScenario.h"

#include <fmt/format.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <variant>

#include "kiln/agent/io/InputError.h"
#include "kiln/agent/scenario/Scenario.h"

namespace KilnSim {
namespace {

using KilnAgent::InputError;
using KilnAgent::Operation;

constexpr std::string_view kHeader = "// explore:";
constexpr std::string_view kFromHere = "// explored from here";

void readHeader(const std::string& line, SmallScenario& scenario) {
  std::istringstream words(line.substr(kHeader.size()));
  const auto number = [&](unsigned& into) { return static_cast<bool>(words >> into); };
  for (std::string key; words >> key;) {
    std::string value;
    const bool read = key == "refusals"   ? number(scenario.troubles.refusals)
                      : key == "restarts" ? number(scenario.troubles.restarts)
                      : key == "crashes"  ? number(scenario.troubles.crashes)
                      : key == "losses"   ? number(scenario.troubles.losses)
                      : key == "bound"    ? number(scenario.bound)
                      : key == "ends"     ? words >> value && value == "differ"
                                          : false;
    if (!read) throw InputError(fmt::format("{}: \"{}\" is not understood", scenario.file, line));
    if (key == "ends") scenario.endsDiffer = true;
  }
}

/// Operations whose effect the explorer chooses itself: running tasks, and delivering answers.
bool isChosen(const Operation& operation) {
  return std::visit(
      []<class T>(const T&) {
        return std::is_same_v<T, KilnAgent::RunOperation> || std::is_same_v<T, KilnAgent::SliceOperation> ||
               std::is_same_v<T, KilnAgent::AnswerOperation> ||
               std::is_same_v<T, KilnAgent::WatchOperation> ||
               std::is_same_v<T, KilnAgent::ExpectOperation> ||
               std::is_same_v<T, KilnAgent::ExpectTableOperation>;
      },
      operation);
}

}  // namespace

SmallScenario readSmallScenario(const std::string& file) {
  std::ifstream lines(file);
  SmallScenario scenario;
  scenario.file = file;
  std::string line;
  if (!std::getline(lines, line) || !line.starts_with(kHeader)) {
    throw InputError(fmt::format("{}: the first line must begin with \"{}\"", file, kHeader));
  }
  readHeader(line, scenario);
  for (std::size_t number = 2; std::getline(lines, line); ++number) {
    if (line.starts_with(kFromHere)) scenario.setUp = std::exchange(scenario.explored, {});
    if (KilnAgent::Scenario::isBlank(line)) continue;
    Operation operation = KilnAgent::parseOperation(line);
    if (isChosen(operation)) {
      throw InputError(fmt::format("{}:{}: the explorer chooses this by itself", file, number));
    }
    scenario.explored.push_back(std::move(operation));
  }
  if (scenario.explored.size() > kMostExplored) {
    throw InputError(fmt::format("{}: more than {} operations to be explored", file, kMostExplored));
  }
  return scenario;
}

}  // namespace KilnSim
