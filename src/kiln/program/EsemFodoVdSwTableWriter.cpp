#include "kiln/program/EsemFodoVdSwTableWriter.h"

#include <utility>

namespace KilnEmServer {

Ref<EsemFodoVdSwTableWriter> esemFodoVdSwTableWriterFactory(
    Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, Ref<Asic::EsemFodoVdKilnInterface> table, StageControl control,
    SwTableWriterOptions options) {
  return makeStage<EsemFodoVdSwTableWriter>(std::move(emSwTableConfig), std::move(emSwTableStatus),
                                            std::move(name), std::move(dependencyStatus), std::move(table),
                                            std::move(control), std::move(options));
}

}  // namespace KilnEmServer
