// Which rarely taken paths were taken: each is marked by its trace.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kiln/platform/TraceSink.h"

namespace KilnSim {

/// Counts messages by their text, without formatting them, and keeps those that must never occur.
class Marks final : public KilnPlatform::TraceSink {
 public:
  bool wants(const KilnPlatform::TraceDescriptor& descriptor) override;
  void write(const KilnPlatform::TraceRecord& record) override;

  /// The number of messages with this text; after "..." with texts that end in it.
  [[nodiscard]] std::uint64_t count(std::string_view text) const;
  /// The forbidden messages since the last call.
  [[nodiscard]] std::string takeUnexpected();
  void clear() { counts_.clear(); }

  /// The marks that a file lists, one text per line, # before comments. Throws InputError if the file cannot
  /// be read.
  static std::vector<std::string> listed(const std::string& path);

 private:
  struct Count {
    std::string_view text;
    std::uint64_t count = 0;
  };
  std::unordered_map<const char*, Count> counts_;  ///< by the address of the text
  std::string unexpected_;
};

}  // namespace KilnSim
