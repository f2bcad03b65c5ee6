// Which of the paths that runs rarely take were taken: each is marked by the trace that stands there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kiln/platform/TraceSink.h"

namespace KilnSim {

/// Counts messages by their text, without having them put together, and keeps those that must never come.
class Marks final : public KilnPlatform::TraceSink {
 public:
  bool wants(const KilnPlatform::TraceDescriptor& descriptor) override;
  void write(const KilnPlatform::TraceRecord& record) override;

  /// How often the message with this text came.
  [[nodiscard]] std::uint64_t count(std::string_view text) const;
  /// What must never come and did, since this was asked last.
  [[nodiscard]] std::string takeUnexpected();
  void clear() { counts_.clear(); }

  /// The marks that a file lists, one text per line, # before comments. Throws InputError where it cannot be
  /// read.
  static std::vector<std::string> listed(const std::string& path);

 private:
  struct Count {
    std::string_view text;
    std::uint64_t count = 0;
  };
  std::unordered_map<const char*, Count> counts_;  ///< by where the text stands in the program
  std::string unexpected_;
};

}  // namespace KilnSim
