// Lines of text over Unix sockets: an end that listens, and the connections of its clients.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "agent/FileDescriptor.h"

namespace KilnAgent {

/// One client's connection, which never blocks. What cannot be sent yet waits in memory.
class LineConnection {
 public:
  /// A longer line is passed over.
  static constexpr std::size_t kMaxLine = std::size_t{1} << 20U;
  /// With more than this waiting to be sent, nothing more is read.
  static constexpr std::size_t kMaxUnsent = std::size_t{1} << 22U;

  explicit LineConnection(FileDescriptor socket) : socket_(std::move(socket)) {}

  [[nodiscard]] int number() const { return socket_.number(); }
  /// Reads what has come, up to a bound.
  void receive();
  /// Sends what can be sent; drops it where the client does not listen any more.
  void flush();
  /// A line of the client, with its number from 1, without its end.
  struct Line {
    std::uint64_t number = 0;
    std::string text;
    bool tooLong = false;
    bool cutOff = false;  ///< the client ended in its middle
  };
  std::optional<Line> takeLine();
  void send(std::string_view text) {
    if (!deaf_) unsent_ += text;
  }

  [[nodiscard]] bool hasUnsent() const { return sent_ != unsent_.size(); }
  /// Whether the client takes its answers fast enough to be heard further.
  [[nodiscard]] bool keepsUp() const { return unsent_.size() - sent_ <= kMaxUnsent; }
  [[nodiscard]] bool mayReceive() const {
    return !ended_ && received_.size() - taken_ <= kMaxLine && keepsUp();
  }
  /// The descriptor says that the client hung up.
  void hungUp() { deaf_ = deaf_ || ended_; }
  /// Nothing more is to be expected from the descriptor; what was received can still be taken.
  [[nodiscard]] bool closed() const { return ended_ && deaf_; }
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
  bool deaf_ = false;         ///< nor does it listen
};

/// A listening socket in the file system, for its owner's processes only.
class LineListener {
 public:
  /// Takes the place of a socket on which nobody listens any more. Throws InputError where another process
  /// listens there, where something else is in the way, which stays, or where the path is too long.
  explicit LineListener(std::string path);
  /// Removes the socket.
  ~LineListener();
  LineListener(const LineListener&) = delete;
  LineListener& operator=(const LineListener&) = delete;

  [[nodiscard]] int number() const { return socket_.number(); }
  /// The next client, if one waits.
  std::optional<LineConnection> accept();

 private:
  std::string path_;
  FileDescriptor socket_;
};

/// Connects to a socket that an agent listens on; blocking. Throws InputError where it cannot.
FileDescriptor connectTo(const std::string& path);

}  // namespace KilnAgent
