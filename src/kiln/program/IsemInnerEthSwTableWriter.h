// The writer of the isemInnerEth table.
#pragma once

#include <string>

#include "kiln/program/SwTableWriter.h"

namespace KilnEmServer {

class IsemInnerEthSwTableWriter final
    : public SwTableWriter<EmResolvedKeyUnionTag::isemInnerEthEntryKey,
                           InterfaceHolder<Asic::IsemInnerEthKilnInterface, Asic::IsemInnerEthKilnSwTable>> {
 public:
  using SwTableWriter::SwTableWriter;
};

Ref<IsemInnerEthSwTableWriter> isemInnerEthSwTableWriterFactory(
    Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name,
    Ref<DependencyStatus> dependencyStatus, Ref<Asic::IsemInnerEthKilnInterface> table, StageControl control,
    SwTableWriterOptions options = {});

}  // namespace KilnEmServer
