#include "kiln/program/Isem1TagSwTableWriter.h"

#include <utility>

namespace KilnEmServer {

Ref<Isem1TagSwTableWriter> isem1TagSwTableWriterFactory(Ref<const EmSwTableConfig> emSwTableConfig,
                                                        Ref<EmSwTableStatus> emSwTableStatus,
                                                        std::string name,
                                                        Ref<DependencyStatus> dependencyStatus,
                                                        Ref<Asic::Isem1TagKilnInterface> table,
                                                        StageControl control, SwTableWriterOptions options) {
  return makeStage<Isem1TagSwTableWriter>(std::move(emSwTableConfig), std::move(emSwTableStatus),
                                          std::move(name), std::move(dependencyStatus), std::move(table),
                                          std::move(control), std::move(options));
}

}  // namespace KilnEmServer
