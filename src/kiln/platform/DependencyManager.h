// The manager that starts stages in the order of what they depend on.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kiln/platform/InplaceFunction.h"

namespace KilnPlatform {

/// One stage of a stage map. Collections are named; the member of a collection of collections is named "name[
/// key ]" and exists when its holder does.
struct StageMapEntry {
  using Action = InplaceFunction<void(), 48>;
  std::string stage;
  /// Creates what the stage consists of.
  Action action;
  /// Collections that must exist first.
  std::vector<std::string> waitsFor;
  /// Collections that the stage reads: it is released when every other stage that writes one of them is
  /// complete.
  std::vector<std::string> reads;
  /// Collections that the stage reads without waiting for the stages that write them.
  std::vector<std::string> feedbackReads;
  /// Collections that the stage writes.
  std::vector<std::string> writes;
  /// Stages that must be complete first, whatever they write.
  std::vector<std::string> after = {};
};
using StageMap = std::vector<StageMapEntry>;

/// Runs each action of a stage map once, as soon as its dependencies exist and are complete.
class DependencyManager {
 public:
  virtual ~DependencyManager() = default;
  virtual void registerStageMap(StageMap stageMap) = 0;
  virtual void start() = 0;
};

}  // namespace KilnPlatform
