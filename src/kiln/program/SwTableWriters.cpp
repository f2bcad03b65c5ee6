#include "kiln/program/SwTableWriters.h"

#include <utility>

namespace KilnEmServer {

#define KILN_SW_TABLE_WRITER_FACTORY(stem, Stem, ...)                                                     \
  Ref<Stem##SwTableWriter> stem##SwTableWriterFactory(                                                    \
      Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name, \
      Ref<DependencyStatus> dependencyStatus, Ref<Stem##SwTableWriter::Held> held, StageControl control,  \
      SwTableWriterOptions options) {                                                                     \
    return makeStage<Stem##SwTableWriter>(std::move(emSwTableConfig), std::move(emSwTableStatus),         \
                                          std::move(name), std::move(dependencyStatus), std::move(held),  \
                                          std::move(control), std::move(options));                        \
  }

KILN_KEY_TYPES(KILN_SW_TABLE_WRITER_FACTORY)
#undef KILN_SW_TABLE_WRITER_FACTORY

}  // namespace KilnEmServer
