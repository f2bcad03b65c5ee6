// What reconciliation did to one output.
#pragma once

#include <cstddef>

namespace KilnEmServer {

/// What reconciliation did to the output's entries, each counted once.
struct ReconciliationCounts {
  std::size_t found = 0;      ///< stood there at start
  std::size_t kept = 0;       ///< written again with the value that stood there
  std::size_t rewritten = 0;  ///< written again with another value
  std::size_t inserted = 0;   ///< written where nothing stood
  std::size_t deleted = 0;    ///< stale

  /// Of those found, the ones about which nothing was decided: all of them at start; at the end those
  /// that stay as they stood until something is known of them.
  [[nodiscard]] std::size_t waiting() const { return found - kept - rewritten - deleted; }
  friend bool operator==(const ReconciliationCounts&, const ReconciliationCounts&) = default;
};

}  // namespace KilnEmServer
