#include "kiln/program/Isem2TagSwTableWriter.h"

#include <utility>

namespace KilnEmServer {

Ref<Isem2TagSwTableWriter> isem2TagSwTableWriterFactory(Ref<const EmSwTableConfig> emSwTableConfig,
                                                        Ref<EmSwTableStatus> emSwTableStatus,
                                                        std::string name,
                                                        Ref<DependencyStatus> dependencyStatus,
                                                        Ref<Asic::Isem2TagKilnInterface> table,
                                                        StageControl control, SwTableWriterOptions options) {
  return makeStage<Isem2TagSwTableWriter>(std::move(emSwTableConfig), std::move(emSwTableStatus),
                                          std::move(name), std::move(dependencyStatus), std::move(table),
                                          std::move(control), std::move(options));
}

}  // namespace KilnEmServer
