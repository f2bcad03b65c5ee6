#include "kiln/program/LemVpwsAcSwTableWriter.h"

#include <utility>

namespace KilnEmServer {

Ref<LemVpwsAcSwTableWriter> lemVpwsAcSwTableWriterFactory(
    Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, Ref<Asic::LemVpwsAcKilnSwTable> table, StageControl control,
    SwTableWriterOptions options) {
  return makeStage<LemVpwsAcSwTableWriter>(std::move(emSwTableConfig), std::move(emSwTableStatus),
                                           std::move(name), std::move(dependencyStatus), std::move(table),
                                           std::move(control), std::move(options));
}

}  // namespace KilnEmServer
