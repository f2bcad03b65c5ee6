// Files and sockets that a target owns.
#pragma once

#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include "kiln/agent/io/FileDescriptor.h"
#include "kiln/platform/Assert.h"

namespace KilnFuzz {

/// A directory that exists as long as the object; in memory if the system has such a place.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    const bool inMemory = std::filesystem::is_directory("/dev/shm");
    path_ = (inMemory ? std::filesystem::path("/dev/shm") : std::filesystem::temp_directory_path()) /
            "kiln-fuzz-XXXXXX";
    KILN_ASSERT(mkdtemp(path_.data()) != nullptr);
  }
  ~ScratchDirectory() { std::filesystem::remove_all(path_); }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  [[nodiscard]] std::string operator/(const char* file) const { return path_ + "/" + file; }

 private:
  std::string path_;
};

inline std::string readWhole(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}
inline void writeWhole(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

/// Two ends of a connection; neither blocks.
inline std::pair<KilnAgent::FileDescriptor, KilnAgent::FileDescriptor> connection() {
  int ends[2] = {-1, -1};
  KILN_ASSERT(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
  return {KilnAgent::FileDescriptor(ends[0]), KilnAgent::FileDescriptor(ends[1])};
}

/// The bytes received at an end of a connection.
inline std::string received(const KilnAgent::FileDescriptor& end) {
  std::string all;
  char bytes[4096];
  for (ssize_t count = 0; (count = ::recv(end.number(), bytes, sizeof bytes, MSG_DONTWAIT)) > 0;) {
    all.append(bytes, static_cast<std::size_t>(count));
  }
  return all;
}

}  // namespace KilnFuzz
