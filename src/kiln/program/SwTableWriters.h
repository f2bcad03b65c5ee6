// The table writer of each key type, for example IsemMplsSwTableWriter, and its factory,
// isemMplsSwTableWriterFactory.
#pragma once

#include <string>

#include "kiln/program/SwTableWriter.h"

namespace KilnEmServer {

#define KILN_SW_TABLE_WRITER(stem, Stem, ...)                                                              \
  class Stem##SwTableWriter final : public SwTableWriter<KeyType<EmResolvedKeyUnionTag::stem##EntryKey>> { \
   public:                                                                                                 \
    using SwTableWriter::SwTableWriter;                                                                    \
  };                                                                                                       \
  Ref<Stem##SwTableWriter> stem##SwTableWriterFactory(                                                     \
      Ref<const EmSwTableConfig> emSwTableConfig, Ref<EmSwTableStatus> emSwTableStatus, std::string name,  \
      Ref<DependencyStatus> dependencyStatus, Ref<Stem##SwTableWriter::Held> held, StageControl control,   \
      SwTableWriterOptions options = {});                                                                  \
  template <>                                                                                              \
  struct SwTableWriterOf<KeyType<EmResolvedKeyUnionTag::stem##EntryKey>> {                                 \
    using Writer = Stem##SwTableWriter;                                                                    \
    static constexpr auto kFactory = &stem##SwTableWriterFactory;                                          \
  };

KILN_KEY_TYPES(KILN_SW_TABLE_WRITER)
#undef KILN_SW_TABLE_WRITER

}  // namespace KilnEmServer
