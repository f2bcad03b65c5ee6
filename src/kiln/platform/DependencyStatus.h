// Which stages are ready: the record that orders their release.
#pragma once

#include <string>
#include <string_view>

#include "kiln/platform/Collection.h"
#include "kiln/platform/Value.h"

namespace KilnPlatform {

/// The dependency-status record: the names of the stages whose outputs are reconciled.
class DependencyStatus {
 public:
  using Completed = KeyedCollection<std::string, Unit>;
  virtual ~DependencyStatus() = default;
  [[nodiscard]] virtual const Completed& completed() const = 0;
  /// Adds a stage's name.
  virtual void completedIs(const std::string& name) = 0;
  /// Removes a stage's name: the stage is torn down or no longer ready.
  virtual void completedDel(const std::string& name) = 0;
};

}  // namespace KilnPlatform
