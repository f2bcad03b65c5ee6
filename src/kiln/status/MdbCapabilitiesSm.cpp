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
    : StageBase(std::move(name)),
      mdbLocalStatus_(std::move(mdbLocalStatus)),
      hardwareMdbStatus_(std::move(hardwareMdbStatus)),
      mdbCapabilitiesStatus_(*this, std::move(mdbCapabilitiesStatus)),
      dependencyStatus_(std::move(dependencyStatus)) {
  readEntityIs(mdbLocalStatus_.get());
  readEntityIs(hardwareMdbStatus_.get());
  mdbLocalStatus_->profileId().subscribe(*this);
  hardwareMdbStatus_->profile().subscribe(*this);
}

MdbCapabilitiesSm::~MdbCapabilitiesSm() {
  mdbLocalStatus_->profileId().unsubscribe(*this);
  hardwareMdbStatus_->profile().unsubscribe(*this);
}

void MdbCapabilitiesSm::handleInitialized() {
  tracer().trace<8>("handleInitialized");
  update();
  dependencyStatus_->completedIs(name());
}

bool MdbCapabilitiesSm::addReads(std::vector<const void*>& collections) const {
  using KilnPlatform::addressOf;
  collections.push_back(addressOf(mdbLocalStatus_->profileId()));
  collections.push_back(addressOf(hardwareMdbStatus_->profile()));
  collections.push_back(addressOf(mdbCapabilitiesStatus_.collection()));
  return true;
}

void MdbCapabilitiesSm::update() {
  const KilnPlatform::RunningStageScope scope(name());
  std::set<std::uint32_t> used;
  KilnPlatform::forEachIn(mdbLocalStatus_->profileId(),
                          [&](const auto& /*fapId*/, std::uint32_t id) { used.insert(id); });
  std::vector<std::uint32_t> stale;
  KilnPlatform::forEachIn(mdbCapabilitiesStatus_.collection(), [&](std::uint32_t id, const auto&) {
    if (!used.contains(id) || !hardwareMdbStatus_->profile().has(id)) stale.push_back(id);
  });
  for (const std::uint32_t id : stale) {
    tracer().trace<7>("into( mdbCapabilitiesStatus.profileCapabilities[ id ] ): deleting k1={}", id);
    mdbCapabilitiesStatus_.erase(id);
  }
  for (const std::uint32_t id : used) {
    const auto* capabilities = hardwareMdbStatus_->profile().find(id);
    if (capabilities == nullptr) continue;
    tracer().trace<7>("into( mdbCapabilitiesStatus.profileCapabilities[ id ] ): inserting k1={}", id);
    mdbCapabilitiesStatus_.insert(id, *capabilities);
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
