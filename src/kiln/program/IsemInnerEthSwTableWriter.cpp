#include "kiln/program/IsemInnerEthSwTableWriter.h"

#include <utility>

namespace KilnEmServer {

Ref<IsemInnerEthSwTableWriter> isemInnerEthSwTableWriterFactory(
    Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, Ref<Asic::IsemInnerEthKilnInterface> table, StageControl control,
    SwTableWriterOptions options) {
  return makeStage<IsemInnerEthSwTableWriter>(std::move(emSwTableConfig), std::move(emSwTableStatus),
                                              std::move(name), std::move(dependencyStatus), std::move(table),
                                              std::move(control), std::move(options));
}

}  // namespace KilnEmServer
