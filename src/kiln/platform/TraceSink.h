// Receivers of trace messages.
#pragma once

#include <cstdint>
#include <string_view>

namespace KilnPlatform {

/// One message of the program: its level, 0 (unexpected data) to 9 (scan and reconciliation progress), and
/// its text with `{}` placeholders, by which a sink can recognise it whatever its arguments. The path of an
/// output is part of the text; a name that a stage is given when it is created is an argument. Its address
/// stays valid, and that of this text, until the program ends.
struct TraceDescriptor {
  std::uint8_t level;
  std::string_view text;
};

/// One message with its arguments. All views end with the call that passes it.
struct TraceRecord {
  const TraceDescriptor& descriptor;
  std::string_view stage;    ///< name of the stage, or of the component outside the server
  std::string_view message;  ///< the text with its arguments in place
};

/// Receives the messages that pass the filters.
class TraceSink {
 public:
  virtual ~TraceSink() = default;
  /// Called before a message is formatted: whether write() is to be called for it. A sink that only counts
  /// returns false and costs no formatting.
  virtual bool wants(const TraceDescriptor& /*descriptor*/) { return true; }
  virtual void write(const TraceRecord& record) = 0;
};

}  // namespace KilnPlatform
