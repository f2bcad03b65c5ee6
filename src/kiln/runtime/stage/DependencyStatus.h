// The dependency-status record of one server.
#pragma once

#include <string>

#include "kiln/platform/DependencyStatus.h"
#include "kiln/platform/Value.h"
#include "kiln/runtime/collections/Collection.h"

namespace KilnEmServer {

/// Holds the names of the stages that are ready.
class DependencyStatusRecord final : public KilnPlatform::DependencyStatus {
 public:
  [[nodiscard]] const Completed& completed() const override { return completed_; }
  [[nodiscard]] bool completedHas(const std::string& name) const { return completed_.has(name); }
  void completedIs(const std::string& name) override { completed_.is(name, {}); }
  void completedDel(const std::string& name) override { completed_.del(name); }

 private:
  Collection<std::string, KilnPlatform::Unit> completed_;
};

}  // namespace KilnEmServer
