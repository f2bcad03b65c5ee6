// The manager that starts stages in the order of what they depend on.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "kiln/platform/InplaceFunction.h"

namespace KilnPlatform {

/// One stage of a stage map. Collections go by name; the member of a collection of collections by
/// "name[ key ]", which exists when its holder does.
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
  /// Collections that the stage reads without waiting for those who write them.
  std::vector<std::string> feedbackReads;
  /// Collections that the stage writes.
  std::vector<std::string> writes;
  /// Stages that must be complete first, whatever they write.
  std::vector<std::string> after = {};
};
using StageMap = std::vector<StageMapEntry>;

/// Runs each action of a stage map once, when what it depends on is there.
class DependencyManager {
 public:
  virtual ~DependencyManager() = default;
  virtual void registerStageMap(StageMap stageMap) = 0;
  virtual void start() = 0;
};

}  // namespace KilnPlatform
