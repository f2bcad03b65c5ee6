// The writer of the lemVpwsAc table.
#pragma once

#include <string>

#include "kiln/program/SwTableWriter.h"

namespace KilnEmServer {

class LemVpwsAcSwTableWriter final : public SwTableWriter<EmResolvedKeyUnionTag::lemVpwsAcEntryKey,
                                                          TableHolder<Asic::LemVpwsAcKilnSwTable>> {
 public:
  using SwTableWriter::SwTableWriter;
};

Ref<LemVpwsAcSwTableWriter> lemVpwsAcSwTableWriterFactory(
    Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, Ref<Asic::LemVpwsAcKilnSwTable> table, StageControl control,
    SwTableWriterOptions options = {});

}  // namespace KilnEmServer
