#include "kiln/program/IsemUntaggedSwTableWriter.h"

#include <utility>

namespace KilnEmServer {

Ref<IsemUntaggedSwTableWriter> isemUntaggedSwTableWriterFactory(
    Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, Ref<Asic::IsemUntaggedKilnInterface> table, StageControl control,
    SwTableWriterOptions options) {
  return makeStage<IsemUntaggedSwTableWriter>(std::move(emSwTableConfig), std::move(emSwTableStatus),
                                              std::move(name), std::move(dependencyStatus), std::move(table),
                                              std::move(control), std::move(options));
}

}  // namespace KilnEmServer
