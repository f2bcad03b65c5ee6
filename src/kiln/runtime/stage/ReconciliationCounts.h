// What reconciliation did to one output.
#pragma once

#include <cstddef>

namespace KilnEmServer {

/// What reconciliation did to the output's entries, each counted once.
struct ReconciliationCounts {
  std::size_t found = 0;      ///< existed at start
  std::size_t kept = 0;       ///< written again with an equal value
  std::size_t rewritten = 0;  ///< written again with another value
  std::size_t inserted = 0;   ///< written under a new key
  std::size_t deleted = 0;    ///< stale

  /// Number of found keys that are not decided yet: all of them at start; at the end those that are kept
  /// unchanged until their value is known.
  [[nodiscard]] std::size_t waiting() const { return found - kept - rewritten - deleted; }
  friend bool operator==(const ReconciliationCounts&, const ReconciliationCounts&) = default;
};

}  // namespace KilnEmServer
