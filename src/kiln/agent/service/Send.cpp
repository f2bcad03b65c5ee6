#include "kiln/agent/service/Send.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "kiln/agent/io/FileDescriptor.h"
#include "kiln/agent/io/InputError.h"
#include "kiln/agent/io/LineSocket.h"
#include "kiln/agent/scenario/Scenario.h"

namespace KilnAgent {
namespace {

constexpr std::size_t kBufferBytes = std::size_t{1} << 16U;

/// The transfer of one file to an agent. Lines are sent while answers are received, so that neither side's
/// buffer fills up.
class Transfer {
 public:
  Transfer(const std::string& socket, const std::string& file, bool quiet)
      : file_(file == "-" ? ::dup(STDIN_FILENO) : ::open(file.c_str(), O_RDONLY | O_CLOEXEC)), quiet_(quiet) {
    if (!file_.valid()) throw InputError(fmt::format("{}: cannot be read", file));
    socket_ = connectTo(socket);
  }

  SendOutcome run() {
    while (!endOfAnswers_) {
      if (unsent_.empty() && !endOfFile_) readFile();
      pollfd watched{socket_.number(), static_cast<short>(unsent_.empty() ? POLLIN : POLLIN | POLLOUT), 0};
      if (::poll(&watched, 1, -1) < 0 && errno != EINTR) throw std::runtime_error(std::strerror(errno));
      if ((watched.revents & POLLOUT) != 0) sendSome();
      if ((watched.revents & (POLLIN | POLLHUP | POLLERR)) != 0) receiveSome();
    }
    if (outcome_.answered < expected_ || !endOfFile_ || !unsent_.empty()) {
      throw std::runtime_error(fmt::format("the agent ended after {} answers", outcome_.answered));
    }
    return outcome_;
  }

 private:
  void readFile() {
    const std::size_t before = line_.size();
    unsent_.resize(kBufferBytes);
    const ssize_t count = ::read(file_.number(), unsent_.data(), unsent_.size());
    if (count < 0) throw InputError(fmt::format("cannot be read: {}", std::strerror(errno)));
    unsent_.resize(static_cast<std::size_t>(count));
    endOfFile_ = count == 0;
    if (endOfFile_ && before != 0) unsent_ = "\n";
    expectAnswers(unsent_);
    if (endOfFile_ && unsent_.empty()) ::shutdown(socket_.number(), SHUT_WR);
  }

  /// Counts the lines for which an answer is expected.
  void expectAnswers(std::string_view text) {
    for (const char byte : text) {
      if (byte != '\n') {
        line_ += byte;
        continue;
      }
      if (!Scenario::isBlank(line_)) ++expected_;
      line_.clear();
    }
  }

  void sendSome() {
    const ssize_t count =
        ::send(socket_.number(), unsent_.data(), unsent_.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count > 0) unsent_.erase(0, static_cast<std::size_t>(count));
    if (unsent_.empty() && endOfFile_) ::shutdown(socket_.number(), SHUT_WR);
  }

  void receiveSome() {
    std::vector<char> buffer(kBufferBytes);
    const ssize_t count = ::recv(socket_.number(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    endOfAnswers_ = count <= 0;
    if (count <= 0) return;
    for (const char byte : std::string_view(buffer.data(), static_cast<std::size_t>(count))) {
      answer_ += byte;
      if (byte == '\n') takeAnswer();
    }
  }

  void takeAnswer() {
    const bool ok = answer_.find(R"("ok":true)") != std::string::npos;
    ++outcome_.answered;
    if (!ok) ++outcome_.failed;
    if (!ok || !quiet_) std::fwrite(answer_.data(), 1, answer_.size(), stdout);
    answer_.clear();
  }

  FileDescriptor file_;
  FileDescriptor socket_;
  bool quiet_;
  std::string unsent_;
  std::string line_;    ///< the part of the last line read so far
  std::string answer_;  ///< the part of the last answer received so far
  std::uint64_t expected_ = 0;
  SendOutcome outcome_;
  bool endOfFile_ = false;
  bool endOfAnswers_ = false;
};

}  // namespace

SendOutcome sendFile(const std::string& socket, const std::string& file, bool quiet) {
  const SendOutcome outcome = Transfer(socket, file, quiet).run();
  if (std::fflush(stdout) != 0) throw InputError("standard output: cannot be written");
  return outcome;
}

}  // namespace KilnAgent
