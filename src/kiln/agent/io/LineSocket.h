// Lines of text over Unix sockets: an end that listens, and the connections of its clients.
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

/// One client's connection, which never blocks. What cannot be sent yet waits in memory.
class LineConnection {
 public:
  /// A longer line is passed over.
  static constexpr std::size_t kMaxLine = std::size_t{1} << 20U;
  /// With more than this waiting to be sent, nothing more is read.
  static constexpr std::size_t kMaxUnsent = std::size_t{1} << 20U;

  explicit LineConnection(FileDescriptor socket) : socket_(std::move(socket)) {}

  [[nodiscard]] int number() const { return socket_.number(); }
  /// Reads what was received, up to a bound. Returns whether there was anything.
  bool receive();
  /// Sends what can be sent; drops it if the client does not listen any more. Returns whether anything was
  /// sent.
  bool flush();
  /// A line of the client, with its number from 1, without its end.
  struct Line {
    std::uint64_t number = 0;
    std::string text;
    bool tooLong = false;
    bool cutOff = false;  ///< the client ended in its middle
  };
  std::optional<Line> takeLine();
  void send(std::string_view text) {
    if (!peerClosed_) unsent_ += text;
  }

  /// Bytes that wait to be sent.
  [[nodiscard]] std::size_t unsent() const { return unsent_.size() - sent_; }
  [[nodiscard]] bool hasUnsent() const { return unsent() != 0; }
  /// Whether the client takes its answers fast enough for more of its lines to be read.
  [[nodiscard]] bool keepsUp() const { return unsent() <= kMaxUnsent; }
  /// Whether takeLine may find a line in what was received.
  [[nodiscard]] bool mayHaveLine() const {
    return scanned_ != received_.size() || (ended_ && taken_ != received_.size());
  }
  [[nodiscard]] bool mayReceive() const {
    return !ended_ && received_.size() - taken_ <= kMaxLine && keepsUp();
  }
  /// The descriptor says that the client hung up.
  void hungUp() { peerClosed_ = peerClosed_ || ended_; }
  /// Nothing more is to be expected from the descriptor; what was received can still be taken.
  [[nodiscard]] bool closed() const { return ended_ && peerClosed_; }
  /// The client will send no more, and every line of it was taken.
  [[nodiscard]] bool exhausted() const { return ended_ && taken_ == received_.size(); }

 private:
  static constexpr std::size_t kReadBytes = std::size_t{1} << 16U;

  FileDescriptor socket_;
  std::string received_;
  std::size_t taken_ = 0;    ///< of what was received
  std::size_t scanned_ = 0;  ///< of what was received, no line's end before
  std::string unsent_;
  std::size_t sent_ = 0;  ///< of what is in unsent_
  std::uint64_t lines_ = 0;
  bool passingOver_ = false;  ///< in the rest of a line that is too long
  bool ended_ = false;        ///< the client sends no more
  bool peerClosed_ = false;   ///< nor does it listen
};

/// A listening socket in the file system, for its owner's processes only.
class LineListener {
 public:
  /// Takes the place of a socket on which nobody listens any more. Throws InputError where another process
  /// listens there, where something else is in the way, which stays, or where the path is too long.
  explicit LineListener(std::string path);
  /// Removes the socket, unless another one has its name now.
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
  // Of the socket's name in the file system.
  dev_t device_ = 0;
  ino_t inode_ = 0;
  bool outOfDescriptors_ = false;
};

/// Connects to a socket that an agent listens on; blocking. Throws InputError where it cannot.
FileDescriptor connectTo(const std::string& path);

}  // namespace KilnAgent
