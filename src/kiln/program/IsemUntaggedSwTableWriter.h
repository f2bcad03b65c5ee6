// The writer of the isemUntagged table.
#pragma once

#include <string>

#include "kiln/program/SwTableWriter.h"

namespace KilnEmServer {

class IsemUntaggedSwTableWriter final
    : public SwTableWriter<EmResolvedKeyUnionTag::isemUntaggedEntryKey,
                           InterfaceHolder<Asic::IsemUntaggedKilnInterface, Asic::IsemUntaggedKilnSwTable>> {
 public:
  using SwTableWriter::SwTableWriter;
};

Ref<IsemUntaggedSwTableWriter> isemUntaggedSwTableWriterFactory(
    Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, Ref<Asic::IsemUntaggedKilnInterface> table, StageControl control,
    SwTableWriterOptions options = {});

}  // namespace KilnEmServer
