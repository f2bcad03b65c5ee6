// Traces for a reader who may be slow, on a descriptor that is shared with others.
#pragma once

#include "kiln/platform/TraceSink.h"

namespace KilnAgent {

/// Writes "level stage message" lines to a descriptor that it does not own, and never waits: what its reader
/// does not take is lost. The descriptor keeps its mode, since other processes may share it.
class DroppingTraceSink final : public KilnPlatform::TraceSink {
 public:
  explicit DroppingTraceSink(int descriptor) : descriptor_(descriptor) {}
  void write(const KilnPlatform::TraceRecord& record) override;

 private:
  int descriptor_;
};

}  // namespace KilnAgent
