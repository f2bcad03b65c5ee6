#include "kiln/server/ReconcileProgress.h"

namespace KilnEmServer {

std::vector<OutputProgress> outputProgress(const StageBase& stage) {
  std::vector<OutputProgress> outputs;
  for (const OutputBase* output : stage.outputs()) {
    outputs.push_back({output->name(), output->ready(), output->reconciliationCounts()});
  }
  return outputs;
}

}  // namespace KilnEmServer
