#include "kiln/server/ReconcileProgress.h"

#include <utility>

#include "kiln/server/DependencyManagerSm.h"
#include "kiln/server/StageRow.h"

namespace KilnEmServer {

std::vector<StageProgress> progressOf(const Wiring& wiring, const DependencyManagerSm& manager,
                                      const DependencyStatus& dependencyStatus) {
  std::vector<StageProgress> all;
  for (const StageGraph::Node& node : manager.graph().nodes) {
    StageProgress progress{
        node.stage, dependencyStatus.completed().has(node.stage), manager.waitsFor(node.stage), {}};
    wiring.find(node.stage)->forEachStage([&](const StageBase& stage) {
      for (const OutputBase* output : stage.outputs()) {
        progress.outputs.push_back({output->name(), output->ready(), output->reconciliationCounts()});
      }
      for (std::string& work : stage.waitsFor()) progress.waitsFor.push_back(std::move(work));
    });
    all.push_back(std::move(progress));
  }
  return all;
}

}  // namespace KilnEmServer
