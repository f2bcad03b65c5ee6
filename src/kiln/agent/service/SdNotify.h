// Tells the service manager how the agent is.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "kiln/agent/io/FileDescriptor.h"

namespace KilnAgent {

/// Speaks the notification protocol of systemd: datagrams of VARIABLE=value lines to the socket that
/// $NOTIFY_SOCKET names. Does nothing where there is none; a message that cannot be delivered is lost.
class SdNotify {
 public:
  /// Reads the environment.
  SdNotify();

  /// For example "READY=1".
  void tell(std::string_view message) const;
  /// Within what time the manager wants to hear a sign of life, from $WATCHDOG_USEC; none where it does not.
  [[nodiscard]] std::optional<std::chrono::microseconds> watchdog() const { return watchdog_; }

 private:
  std::string address_;  ///< as in sockaddr_un, whose abstract names begin with a zero
  FileDescriptor socket_;
  std::optional<std::chrono::microseconds> watchdog_;
};

}  // namespace KilnAgent
