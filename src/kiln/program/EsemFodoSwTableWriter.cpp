#include "kiln/program/EsemFodoSwTableWriter.h"

#include <utility>

namespace KilnEmServer {

Ref<EsemFodoSwTableWriter> esemFodoSwTableWriterFactory(Ref<const EmSwTableConfig> emSwTableConfig,
                                                        Ref<EmSwTableStatus> emSwTableStatus,
                                                        std::string name,
                                                        Ref<DependencyStatus> dependencyStatus,
                                                        Ref<Asic::EsemFodoKilnSwTable> table,
                                                        StageControl control, SwTableWriterOptions options) {
  return makeStage<EsemFodoSwTableWriter>(std::move(emSwTableConfig), std::move(emSwTableStatus),
                                          std::move(name), std::move(dependencyStatus), std::move(table),
                                          std::move(control), std::move(options));
}

}  // namespace KilnEmServer
