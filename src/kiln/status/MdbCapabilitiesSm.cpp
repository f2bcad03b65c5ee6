#include "kiln/status/MdbCapabilitiesSm.h"

#include <memory>
#include <set>
#include <utility>
#include <vector>

namespace KilnEmServer {

MdbCapabilitiesSm::MdbCapabilitiesSm(Ref<const KilnMdb::MdbLocalStatus> mdbLocalStatus,
                                     Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
                                     Ref<KilnMdb::CapabilitiesStatus> mdbCapabilitiesStatus, std::string name,
                                     Ref<DependencyStatus> dependencyStatus)
    : name_(std::move(name)),
      tracer_(name_),
      mdbLocalStatus_(std::move(mdbLocalStatus)),
      hardwareMdbStatus_(std::move(hardwareMdbStatus)),
      mdbCapabilitiesStatus_(std::move(mdbCapabilitiesStatus)),
      dependencyStatus_(std::move(dependencyStatus)) {
  mdbLocalStatus_->profileId().subscribe(*this);
  hardwareMdbStatus_->profile().subscribe(*this);
}

MdbCapabilitiesSm::~MdbCapabilitiesSm() {
  mdbLocalStatus_->profileId().unsubscribe(*this);
  hardwareMdbStatus_->profile().unsubscribe(*this);
}

void MdbCapabilitiesSm::handleInitialized() {
  tracer_.trace<8>("handleInitialized");
  update();
  dependencyStatus_->completedIs(name_);
}

void MdbCapabilitiesSm::update() {
  const KilnPlatform::RunningStageScope scope(name_);
  std::set<std::uint32_t> used;
  KilnPlatform::forEachIn(mdbLocalStatus_->profileId(),
                          [&](const auto& /*fapId*/, std::uint32_t id) { used.insert(id); });
  std::vector<std::uint32_t> stale;
  KilnPlatform::forEachIn(mdbCapabilitiesStatus_->profileCapabilities(), [&](std::uint32_t id, const auto&) {
    if (!used.contains(id) || !hardwareMdbStatus_->profile().has(id)) stale.push_back(id);
  });
  for (const std::uint32_t id : stale) {
    tracer_.trace<7>("into( mdbCapabilitiesStatus.profileCapabilities[ id ] ): deleting k1={}", id);
    mdbCapabilitiesStatus_->profileCapabilitiesDel(id);
  }
  for (const std::uint32_t id : used) {
    const auto* capabilities = hardwareMdbStatus_->profile().find(id);
    if (capabilities == nullptr) continue;
    tracer_.trace<7>("into( mdbCapabilitiesStatus.profileCapabilities[ id ] ): inserting k1={}", id);
    mdbCapabilitiesStatus_->profileCapabilitiesIs(id, *capabilities);
  }
}

Ref<MdbCapabilitiesSm> mdbCapabilitiesSmFactory(Ref<const KilnMdb::MdbLocalStatus> mdbLocalStatus,
                                                Ref<const Hardware::Kiln::MdbStatus> hardwareMdbStatus,
                                                Ref<KilnMdb::CapabilitiesStatus> mdbCapabilitiesStatus,
                                                std::string name, Ref<DependencyStatus> dependencyStatus) {
  auto sm = std::make_shared<MdbCapabilitiesSm>(std::move(mdbLocalStatus), std::move(hardwareMdbStatus),
                                                std::move(mdbCapabilitiesStatus), std::move(name),
                                                std::move(dependencyStatus));
  sm->handleInitialized();
  return sm;
}

}  // namespace KilnEmServer
