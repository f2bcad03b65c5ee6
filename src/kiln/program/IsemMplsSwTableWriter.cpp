#include "kiln/program/IsemMplsSwTableWriter.h"

#include <utility>

namespace KilnEmServer {

Ref<IsemMplsSwTableWriter> isemMplsSwTableWriterFactory(Ref<const EmSwTableConfig> emSwTableConfig,
                                                        Ref<EmSwTableStatus> emSwTableStatus,
                                                        std::string name,
                                                        Ref<DependencyStatus> dependencyStatus,
                                                        Ref<Asic::IsemMplsKilnInterface> table,
                                                        StageControl control, SwTableWriterOptions options) {
  return makeStage<IsemMplsSwTableWriter>(std::move(emSwTableConfig), std::move(emSwTableStatus),
                                          std::move(name), std::move(dependencyStatus), std::move(table),
                                          std::move(control), std::move(options));
}

}  // namespace KilnEmServer
