#include "kiln/agent/chip/SoftChip.h"

#include "kiln/platform/Assert.h"

namespace KilnAgent {
namespace {

using Hardware::Kiln::FapId;

Ref<Hardware::Kiln::MdbStatus> makeMdbStatus(const ChipConfig& config) {
  auto status = std::make_shared<Hardware::Kiln::MdbStatus>(
      makeCollection<FapId, std::uint32_t>(), makeCollection<std::uint32_t, KilnMdb::ProfileCapabilities>());
  for (const ChipConfig::Fap& fap : config.faps) {
    if (fap.profile) status->profileId().is(fap.fapId, *fap.profile);
  }
  for (const auto& [id, capabilities] : config.profiles) status->profile().is(id, capabilities);
  return status;
}

}  // namespace

SoftChip::SoftChip(const ChipConfig& config, const Ref<KilnPlatform::TaskScheduler>& scheduler,
                   std::optional<std::uint64_t> seed, const std::string& directory)
    : chipStatus_(std::make_shared<Hardware::Kiln::Status>(makeCollection<FapId, Hardware::Kiln::FapInfo>())),
      mdbStatus_(makeMdbStatus(config)) {
  for (const ChipConfig::Fap& fap : config.faps) fapIs(fap.fapId, &fap.info);
  if (seed) random_.emplace(*seed);
  const auto make = [&]<class Own>(Ref<Own>& own) {
    const std::string_view stem = KilnEmServer::tableStem(Own::kTag);
    const SoftTable::Setting setting{
        stem,
        config.tableSizes[Own::kTag],
        scheduler,
        random_ ? &*random_ : nullptr,
        pending_.get(),
        &room_,
        directory.empty() ? std::string() : fmt::format("{}/{}", directory, stem)};
    own = std::make_shared<Own>(setting, faps_);
    tables_[Own::kTag] = &own->table();
    room_.tableIs(Own::kTag, own->table());
  };
  std::apply([&](auto&... own) { (make(own), ...); }, interfaces_);
}

SoftTable& SoftChip::table(KilnEmServer::EmResolvedKeyUnionTag tag) const {
  return *tables_[tag];
}

HardwareCounters SoftChip::counters() const {
  HardwareCounters sum;
  forEachTable([&](const SoftTable& table) {
    sum.written += table.counters().written;
    sum.removed += table.counters().removed;
    sum.unchanged += table.counters().unchanged;
  });
  return sum;
}

void SoftChip::addFap(const ChipConfig::Fap& fap) {
  fapIs(fap.fapId, &fap.info);
  profileIs(fap.fapId, fap.profile);
}

void SoftChip::removeFap(FapId fapId) {
  profileIs(fapId, std::nullopt);
  fapIs(fapId, nullptr);
}

void SoftChip::fapIs(const FapId& fapId, const Hardware::Kiln::FapInfo* info) {
  if (fapId.number() < faps_.size()) faps_.set(fapId.number(), info != nullptr);
  if (info != nullptr) {
    chipStatus_->fap().is(fapId, *info);
  } else {
    chipStatus_->fap().del(fapId);
  }
}

void SoftChip::profileIs(FapId fapId, std::optional<std::uint32_t> profile) {
  if (profile) {
    mdbStatus_->profileId().is(fapId, *profile);
  } else {
    mdbStatus_->profileId().del(fapId);
  }
}

void SoftChip::reconcileComplete() {
  forEachTable([](SoftTable& table) { table.reconcileComplete(); });
}

void SoftChip::commitHwWrites() {
  forEachTable([](SoftTable& table) { table.commit(); });
}

void SoftChip::applyIssued() {
  forEachTable([](SoftTable& table) { table.applyIssued(); });
}

void SoftChip::serverEnded() {
  forEachTable([](SoftTable& table) { table.serverEnded(); });
}

void SoftChip::serverDied() {
  subscribers_.forgetAll();
  pending_->forgetSubscribers();
  forgetSubscribers(chipStatus_->fap());
  forgetSubscribers(mdbStatus_->profileId());
  forgetSubscribers(mdbStatus_->profile());
  room_.subscribe();
  forEachTable([](SoftTable& table) { table.serverDied(); });
}

void SoftChip::noteState(KilnEmServer::StateDigest& digest) const {
  digest.addPart("fap", chipStatus_->fap());
  digest.addPart("profileId", mdbStatus_->profileId());
  digest.addPart("profile", mdbStatus_->profile());
  digest.begin("SoftChip");
  digest.add(*pending_);
  if (random_) {  // the next number represents the generator's state
    auto copy = *random_;
    digest.add(copy());
  }
  forEachTable([&](const SoftTable& table) { table.noteState(digest); });
}

}  // namespace KilnAgent
