#include "kiln/agent/host/DroppingTraceSink.h"

#include <fmt/format.h>
#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace KilnAgent {
namespace {

/// Whether a write of up to PIPE_BUF bytes returns immediately.
bool writable(int descriptor) {
  pollfd watched{descriptor, POLLOUT, 0};
  return ::poll(&watched, 1, 0) == 1 && (watched.revents & POLLOUT) != 0;
}

}  // namespace

void DroppingTraceSink::write(const KilnPlatform::TraceRecord& record) {
  fmt::memory_buffer line;
  fmt::format_to(std::back_inserter(line), "{} {} {}\n", record.descriptor.level, record.stage,
                 record.message);
  for (std::size_t written = 0; written < line.size();) {
    if (!writable(descriptor_)) return;
    const std::size_t piece = std::min<std::size_t>(line.size() - written, PIPE_BUF);
    const ssize_t count = ::write(descriptor_, line.data() + written, piece);
    if (count <= 0) return;
    written += static_cast<std::size_t>(count);
  }
}

}  // namespace KilnAgent
