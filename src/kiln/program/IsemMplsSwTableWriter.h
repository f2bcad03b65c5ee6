// The writer of the isemMpls table.
#pragma once

#include <string>

#include "kiln/program/SwTableWriter.h"

namespace KilnEmServer {

class IsemMplsSwTableWriter final
    : public SwTableWriter<EmResolvedKeyUnionTag::isemMplsEntryKey,
                           InterfaceHolder<Asic::IsemMplsKilnInterface, Asic::IsemMplsKilnSwTable>> {
 public:
  using SwTableWriter::SwTableWriter;
};

Ref<IsemMplsSwTableWriter> isemMplsSwTableWriterFactory(
    Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, Ref<Asic::IsemMplsKilnInterface> table, StageControl control,
    SwTableWriterOptions options = {});

}  // namespace KilnEmServer
