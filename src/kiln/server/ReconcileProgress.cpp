#include "kiln/server/ReconcileProgress.h"

#include <fmt/format.h>

namespace KilnEmServer {

std::vector<std::string> ownWork(const Stage& stage) {
  std::vector<std::string> work;
  for (const InputBase* input : stage.inputs()) {
    if (!input->inputScanComplete()) work.push_back(fmt::format("scan of {}", input->childName()));
  }
  if (!work.empty()) return work;
  for (const OutputBase* output : stage.outputs()) {
    if (!output->ready()) work.push_back(fmt::format("deletion scan of {}", output->name()));
  }
  return work;
}

std::vector<OutputProgress> outputProgress(const Stage& stage) {
  std::vector<OutputProgress> outputs;
  for (const OutputBase* output : stage.outputs()) {
    outputs.push_back({output->name(), output->ready(), output->reconciliationCounts()});
  }
  return outputs;
}

}  // namespace KilnEmServer
