#include "kiln/compose/EmUtils.h"

#include "kiln/compose/KeyFields.h"

namespace KilnEmServer {
namespace {

EmResolvedKey translate(const EmComposerKey& key) {
  EmResolvedKey hwKey;
  visitKeyType(key.tag(), [&]<class Row>() {
    if constexpr (Row::kResolver == ResolverKeyUnionTag::undefined_) {
      hwKey = entryKeyOf<Row>(key.template get<typename Row::ComposerKey>());
    }
  });
  KILN_ASSERT_MESSAGE(hwKey.tag() != EmResolvedKeyUnionTag::undefined_, "Unrecognized union alternative {}",
                      static_cast<int>(key.tag()));
  return hwKey;
}

}  // namespace

EmHwKey translateToSwTableKey(const EmLogicalKey& key) {
  return {key.fapId, key.localCoreId, translate(key.emComposerKey)};
}

}  // namespace KilnEmServer
