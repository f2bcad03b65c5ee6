// The writer of the isem1Tag table.
#pragma once

#include <string>

#include "kiln/program/SwTableWriter.h"

namespace KilnEmServer {

class Isem1TagSwTableWriter final
    : public SwTableWriter<EmResolvedKeyUnionTag::isem1TagEntryKey,
                           InterfaceHolder<Asic::Isem1TagKilnInterface, Asic::Isem1TagKilnSwTable>> {
 public:
  using SwTableWriter::SwTableWriter;
};

Ref<Isem1TagSwTableWriter> isem1TagSwTableWriterFactory(
    Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, Ref<Asic::Isem1TagKilnInterface> table, StageControl control,
    SwTableWriterOptions options = {});

}  // namespace KilnEmServer
