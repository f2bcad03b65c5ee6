// Lines of text over Unix sockets: a listener, and the connections of its clients.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kiln/agent/io/FileDescriptor.h"

namespace KilnAgent {

/// One client's connection; never blocks. Unsent bytes are kept in memory.
class LineConnection {
 public:
  /// A longer line is skipped.
  static constexpr std::size_t kMaxLine = std::size_t{1} << 20U;
  /// If more than this is unsent, nothing more is read.
  static constexpr std::size_t kMaxUnsent = std::size_t{1} << 20U;

  explicit LineConnection(FileDescriptor socket) : socket_(std::move(socket)) {}

  [[nodiscard]] int number() const { return socket_.number(); }
  /// Reads received bytes, up to a limit. Returns whether there were any.
  bool receive();
  /// Sends as much as possible; drops the rest if the client does not read any more. Returns whether anything
  /// was sent.
  bool flush();
  /// A line of the client, with its number from 1, without its end.
  struct Line {
    std::uint64_t number = 0;
    std::string text;
    bool tooLong = false;
    bool cutOff = false;  ///< the client closed the connection inside the line
  };
  std::optional<Line> takeLine();
  void send(std::string_view text) {
    if (!peerClosed_) unsent_ += text;
  }

  /// Number of unsent bytes.
  [[nodiscard]] std::size_t unsent() const { return unsent_.size() - sent_; }
  [[nodiscard]] bool hasUnsent() const { return unsent() != 0; }
  /// Whether the client reads its answers fast enough for more of its lines to be read.
  [[nodiscard]] bool keepsUp() const { return unsent() <= kMaxUnsent; }
  /// Whether takeLine may find a line in the received bytes.
  [[nodiscard]] bool mayHaveLine() const {
    return scanned_ != received_.size() || (ended_ && taken_ != received_.size());
  }
  [[nodiscard]] bool mayReceive() const {
    return !ended_ && received_.size() - taken_ <= kMaxLine && keepsUp();
  }
  /// The descriptor says that the client hung up.
  void hungUp() { peerClosed_ = peerClosed_ || ended_; }
  /// The descriptor will report nothing more; received lines can still be taken.
  [[nodiscard]] bool closed() const { return ended_ && peerClosed_; }
  /// The client will send no more, and every line was taken.
  [[nodiscard]] bool exhausted() const { return ended_ && taken_ == received_.size(); }

 private:
  static constexpr std::size_t kReadBytes = std::size_t{1} << 16U;

  FileDescriptor socket_;
  std::string received_;
  std::size_t taken_ = 0;    ///< of the received bytes
  std::size_t scanned_ = 0;  ///< of the received bytes; no line end before it
  std::string unsent_;
  std::size_t sent_ = 0;  ///< of what is in unsent_
  std::uint64_t lines_ = 0;
  bool passingOver_ = false;  ///< skipping the rest of a line that is too long
  bool ended_ = false;        ///< the client sends no more
  bool peerClosed_ = false;   ///< the client does not read any more
};

/// A listening socket in the file system, accessible only to its owner's processes.
class LineListener {
 public:
  /// Replaces a socket that has no listener any more. Throws InputError if another process listens there, if
  /// a file of another kind is there (it is kept), or if the path is too long.
  explicit LineListener(std::string path);
  /// Removes the socket, unless another one has its name by then.
  ~LineListener();
  LineListener(const LineListener&) = delete;
  LineListener& operator=(const LineListener&) = delete;

  [[nodiscard]] int number() const { return socket_.number(); }
  /// The next client, if one waits.
  std::optional<LineConnection> accept();
  /// Whether the latest accept() failed because the process or the system has no descriptor left.
  [[nodiscard]] bool outOfDescriptors() const { return outOfDescriptors_; }

 private:
  std::string path_;
  FileDescriptor socket_;
  // Identity of the socket's file.
  dev_t device_ = 0;
  ino_t inode_ = 0;
  bool outOfDescriptors_ = false;
};

/// Connects to a socket on which an agent listens; blocking. Throws InputError on failure.
FileDescriptor connectTo(const std::string& path);

}  // namespace KilnAgent
