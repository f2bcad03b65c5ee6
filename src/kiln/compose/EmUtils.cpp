#include "kiln/compose/EmUtils.h"

namespace KilnEmServer {
namespace {

using namespace KilnTunnelNiLib;

// The fields of a braced list are checked from left to right, so the first field out of range is the one that
// is reported.
EmResolvedKey translate(const EmComposerKey& key) {
  switch (key.tag()) {
    case EmComposerKeyUnionTag::isemInnerEthEntryKey: {
      const auto& from = key.get<IsemInnerEthComposerKey>();
      return IsemInnerEthEntryKey{from.vsi, from.profile};
    }
    case EmComposerKeyUnionTag::isemMplsEntryKey: {
      const auto& from = key.get<IsemMplsComposerKey>();
      return IsemMplsEntryKey{from.label, from.labelSpace};
    }
    case EmComposerKeyUnionTag::esemFodoEntryKey:
      return EsemFodoEntryKey{U18(key.get<EsemFodoComposerKey>().fodoId)};
    case EmComposerKeyUnionTag::lemVpwsAcEntryKey: {
      const auto& from = key.get<LemVpwsAcComposerKey>();
      return LemVpwsAcEntryKey{U20(from.inLif), U12(from.outerVlanId), U12(from.innerVlanId),
                               U3(from.outerPcp), U3(from.innerPcp)};
    }
    default:
      break;
  }
  KILN_ASSERT_MESSAGE(false, "Unrecognized union alternative {}", static_cast<int>(key.tag()));
  return {};
}

}  // namespace

EmHwKey translateToSwTableKey(const EmLogicalKey& key) {
  return {key.fapId, key.localCoreId, translate(key.emComposerKey)};
}

}  // namespace KilnEmServer
