// Reports the agent's state to the service manager.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "kiln/agent/io/FileDescriptor.h"

namespace KilnAgent {

/// Implements the notification protocol of systemd: datagrams of VARIABLE=value lines to the socket that
/// $NOTIFY_SOCKET names. Does nothing if that is not set; a message that cannot be delivered is lost.
class SdNotify {
 public:
  /// Reads the environment.
  SdNotify();

  /// For example "READY=1".
  void tell(std::string_view message) const;
  /// The interval within which the manager expects a message, from $WATCHDOG_USEC; none if it expects none.
  [[nodiscard]] std::optional<std::chrono::microseconds> watchdog() const { return watchdog_; }

 private:
  std::string address_;  ///< as in sockaddr_un, whose abstract names begin with a zero
  FileDescriptor socket_;
  std::optional<std::chrono::microseconds> watchdog_;
};

}  // namespace KilnAgent
