// The writer of the isem2Tag table.
#pragma once

#include <string>

#include "kiln/program/SwTableWriter.h"

namespace KilnEmServer {

class Isem2TagSwTableWriter final
    : public SwTableWriter<EmResolvedKeyUnionTag::isem2TagEntryKey,
                           InterfaceHolder<Asic::Isem2TagKilnInterface, Asic::Isem2TagKilnSwTable>> {
 public:
  using SwTableWriter::SwTableWriter;
};

Ref<Isem2TagSwTableWriter> isem2TagSwTableWriterFactory(
    Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, Ref<Asic::Isem2TagKilnInterface> table, StageControl control,
    SwTableWriterOptions options = {});

}  // namespace KilnEmServer
