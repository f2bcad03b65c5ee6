// Traces for a slow reader, on a descriptor that is shared with other processes.
#pragma once

#include "kiln/platform/TraceSink.h"

namespace KilnAgent {

/// Writes "level stage message" lines to a descriptor that it does not own, and never waits: lines that the
/// reader does not take in time are lost. The mode of the descriptor is not changed, since other processes
/// may share it.
class DroppingTraceSink final : public KilnPlatform::TraceSink {
 public:
  explicit DroppingTraceSink(int descriptor) : descriptor_(descriptor) {}
  void write(const KilnPlatform::TraceRecord& record) override;

 private:
  int descriptor_;
};

}  // namespace KilnAgent
