#include "kiln/agent/io/LineSocket.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "kiln/agent/io/InputError.h"

namespace KilnAgent {
namespace {

constexpr int kBacklog = 64;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    throw InputError(
        fmt::format("{}: a socket's path has 1 to {} characters", path, sizeof address.sun_path - 1));
  }
  path.copy(address.sun_path, path.size());
  return address;
}

const sockaddr* generic(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

/// Removes an old socket that has no listener any more.
void removeStale(const std::string& path, const sockaddr_un& address) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return;
  if (!S_ISSOCK(status.st_mode))
    throw InputError(fmt::format("{}: is not a socket; it is left as it is", path));
  const FileDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (::connect(probe.number(), generic(address), sizeof address) == 0 || errno != ECONNREFUSED) {
    throw InputError(fmt::format("{}: another process listens there", path));
  }
  ::unlink(path.c_str());
}

}  // namespace

bool LineConnection::receive() {
  if (!mayReceive()) return false;
  received_.erase(0, taken_);
  scanned_ -= taken_;
  taken_ = 0;
  const std::size_t before = received_.size();
  received_.resize(before + kReadBytes);
  const ssize_t count = ::recv(number(), received_.data() + before, kReadBytes, MSG_DONTWAIT);
  const bool failed = count < 0 && errno != EAGAIN && errno != EINTR;
  received_.resize(before + static_cast<std::size_t>(count > 0 ? count : 0));
  ended_ = count == 0 || failed;
  return count > 0;
}

bool LineConnection::flush() {
  bool progress = false;
  while (hasUnsent()) {
    const ssize_t count =
        ::send(number(), unsent_.data() + sent_, unsent_.size() - sent_, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) break;
    progress = true;
    peerClosed_ = peerClosed_ || count < 0;
    sent_ += count < 0 ? unsent() : static_cast<std::size_t>(count);
  }
  // Drops the sent part, so that it does not grow if a client reads slowly.
  if (!hasUnsent() || sent_ >= kReadBytes) unsent_.erase(0, std::exchange(sent_, 0));
  return progress;
}

std::optional<LineConnection::Line> LineConnection::takeLine() {
  const std::size_t end = received_.find('\n', scanned_);
  const bool complete = end != std::string::npos;
  const std::size_t length = (complete ? end : received_.size()) - taken_;
  scanned_ = received_.size();
  if (!complete && !passingOver_ && length > kMaxLine) {
    taken_ = received_.size();
    passingOver_ = true;
    return Line{++lines_, {}, true, false};
  }
  if (passingOver_) {
    taken_ = scanned_ = complete ? end + 1 : received_.size();
    passingOver_ = !complete;
    return complete ? takeLine() : std::nullopt;
  }
  if (!complete && (!ended_ || length == 0)) return std::nullopt;
  Line line{++lines_, received_.substr(taken_, length), length > kMaxLine, !complete};
  taken_ = scanned_ = complete ? end + 1 : received_.size();
  return line;
}

LineListener::LineListener(std::string path) : path_(std::move(path)) {
  const sockaddr_un address = addressOf(path_);
  removeStale(path_, address);
  socket_ = FileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const mode_t mask = ::umask(0177);
  const bool bound = socket_.valid() && ::bind(number(), generic(address), sizeof address) == 0;
  ::umask(mask);
  struct stat status {};
  if (!bound || ::lstat(path_.c_str(), &status) != 0 || ::listen(number(), kBacklog) != 0) {
    throw InputError(fmt::format("{}: cannot be listened on: {}", path_, std::strerror(errno)));
  }
  device_ = status.st_dev;
  inode_ = status.st_ino;
}

/// While the socket is open, no other file can have its inode.
LineListener::~LineListener() {
  struct stat status {};
  const bool found = ::lstat(path_.c_str(), &status) == 0;
  if (found && status.st_dev == device_ && status.st_ino == inode_) ::unlink(path_.c_str());
}

std::optional<LineConnection> LineListener::accept() {
  FileDescriptor client(::accept4(number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  outOfDescriptors_ = !client.valid() && (errno == EMFILE || errno == ENFILE);
  if (!client.valid()) return std::nullopt;
  return LineConnection(std::move(client));
}

FileDescriptor connectTo(const std::string& path) {
  const sockaddr_un address = addressOf(path);
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (::connect(socket.number(), generic(address), sizeof address) != 0) {
    throw InputError(fmt::format("{}: no agent listens there: {}", path, std::strerror(errno)));
  }
  return socket;
}

}  // namespace KilnAgent
