#include "kiln/agent/service/SdNotify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace KilnAgent {
namespace {

std::string_view environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string_view() : std::string_view(value);
}

std::optional<std::int64_t> numberOf(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  return number;
}

/// WATCHDOG_USEC is for the process that WATCHDOG_PID names, or for any process if that is not set.
std::optional<std::chrono::microseconds> watchdogOf() {
  const std::string_view process = environment("WATCHDOG_PID");
  if (!process.empty() && numberOf(process) != ::getpid()) return std::nullopt;
  const auto time = numberOf(environment("WATCHDOG_USEC"));
  if (!time || *time <= 0) return std::nullopt;
  return std::chrono::microseconds(*time);
}

}  // namespace

SdNotify::SdNotify() : address_(environment("NOTIFY_SOCKET")), watchdog_(watchdogOf()) {
  const bool usable = (address_.starts_with('/') || address_.starts_with('@')) && address_.size() > 1 &&
                      address_.size() < sizeof(sockaddr_un::sun_path);
  if (!usable) return;
  if (address_.front() == '@') address_.front() = '\0';
  socket_ = FileDescriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

void SdNotify::tell(std::string_view message) const {
  if (!socket_.valid()) return;
  sockaddr_un to{};
  to.sun_family = AF_UNIX;
  address_.copy(to.sun_path, address_.size());
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());
  (void)::sendto(socket_.number(), message.data(), message.size(), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&to), length);
}

}  // namespace KilnAgent
