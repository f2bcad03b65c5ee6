// The writer of the esemFodoVd table.
#pragma once

#include <string>

#include "kiln/program/SwTableWriter.h"

namespace KilnEmServer {

class EsemFodoVdSwTableWriter final
    : public SwTableWriter<EmResolvedKeyUnionTag::esemFodoVdEntryKey,
                           InterfaceHolder<Asic::EsemFodoVdKilnInterface, Asic::EsemFodoVdKilnSwTable>> {
 public:
  using SwTableWriter::SwTableWriter;
};

Ref<EsemFodoVdSwTableWriter> esemFodoVdSwTableWriterFactory(
    Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, Ref<Asic::EsemFodoVdKilnInterface> table, StageControl control,
    SwTableWriterOptions options = {});

}  // namespace KilnEmServer
