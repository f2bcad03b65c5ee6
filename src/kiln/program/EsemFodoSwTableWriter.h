// The writer of the esemFodo table.
#pragma once

#include <string>

#include "kiln/program/SwTableWriter.h"

namespace KilnEmServer {

class EsemFodoSwTableWriter final
    : public SwTableWriter<EmResolvedKeyUnionTag::esemFodoEntryKey, TableHolder<Asic::EsemFodoKilnSwTable>> {
 public:
  using SwTableWriter::SwTableWriter;
};

Ref<EsemFodoSwTableWriter> esemFodoSwTableWriterFactory(
    Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, Ref<Asic::EsemFodoKilnSwTable> table, StageControl control,
    SwTableWriterOptions options = {});

}  // namespace KilnEmServer
