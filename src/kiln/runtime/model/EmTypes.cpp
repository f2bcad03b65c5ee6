#include "kiln/runtime/model/EmTypes.h"

namespace KilnEmServer {

EmLogicalKeyState::State translateState(ResolutionState::State state) {
  KILN_ASSERT(state <= ResolutionState::resolutionSuccess_);
  return static_cast<EmLogicalKeyState::State>(state);
}

EmLogicalKeyState::State translateState(EmHwKeyStatus::State state) {
  using To = EmLogicalKeyState::State;
  static constexpr std::array<To, 4> kTable = {To::hwPending, To::hwSuccess, To::hwFail, To::hwKeyConflict};
  KILN_ASSERT(static_cast<std::size_t>(state) < kTable.size());
  return kTable[static_cast<std::size_t>(state)];
}

KilnPlatform::PartitionSet<EmLogicalKey> partitionsOf(FeatureType feature) {
  using Partition = KilnPlatform::KeyPartition<EmLogicalKey>;
  auto selected = partitionsOfTypes([](EmComposerKeyUnionTag /*type*/) { return false; });
  for (const KeyTypeInfo& type : kKeyTypeInfo) selected.set(Partition::of(feature, type.composerType));
  return selected;
}

KilnPlatform::PartitionSet<EmHwKey> partitionsOf(EmResolvedKeyUnionTag table) {
  KilnPlatform::PartitionSet<EmHwKey> selected;
  selected.set(static_cast<std::size_t>(EmResolvedKeyUnionTag::undefined_));
  selected.set(static_cast<std::size_t>(table));
  return selected;
}

EmComposerKeyUnionTag emComposerTypeFromUnion(const EmComposerKey& key) {
  KILN_ASSERT_MESSAGE(visitKeyType(key.tag(), []<class Row>() {}), "Unrecognized union alternative {}",
                      static_cast<int>(key.tag()));
  return key.tag();
}

EmResolvedKeyUnionTag emResolvedKeyEnumFromUnion(const EmResolvedKey& key) {
  KILN_ASSERT_MESSAGE(visitKeyType(key.tag(), []<class Row>() {}), "Unrecognized union alternative {}",
                      static_cast<int>(key.tag()));
  return key.tag();
}

}  // namespace KilnEmServer

namespace KilnPlatform {
template std::string textOf(const KilnEmServer::EmRequestKey&);
template std::string textOf(const KilnEmServer::EmLogicalKey&);
template std::string textOf(const KilnEmServer::EmConfigEntry&);
template std::string textOf(const KilnEmServer::EmLogicalKeyAndEntry&);
template std::string textOf(const KilnEmServer::EmHwKey&);
template std::string textOf(const KilnEmServer::EmHwEntry&);
template std::string textOf(const KilnEmServer::EmHwKeyStatus&);
template std::string textOf(const KilnEmServer::EmRequestStatus&);
template std::string textOf(const KilnEmServer::EmSwTableStatusEntry&);
}  // namespace KilnPlatform
