#include "kiln/status/SemCapacitySm.h"

#include <algorithm>
#include <limits>
#include <memory>

#include "kiln/platform/Assert.h"

namespace KilnEmServer {
namespace {

using Hardware::Kiln::FapType;
using KilnMdb::PhysicalTableId;
using KilnTunnelNiLib::SemType;
using Tag = EmResolvedKeyUnionTag;

constexpr PhysicalTableId kIsem1 = 64;
constexpr PhysicalTableId kIsem2 = 65;
constexpr PhysicalTableId kIsem3 = 66;
constexpr PhysicalTableId kEsem = 37;

/// The feature name of the external users' rows; rows of the server itself have the empty name.
constexpr const char* kExternalFeature = "SRv6";

const KilnMdb::TableCapabilities* tableOf(const KilnMdb::ProfileCapabilities& profile, PhysicalTableId id) {
  const auto found =
      std::find_if(profile.tables.begin(), profile.tables.end(),
                   [id](const KilnMdb::TableCapabilities& table) { return table.table == id; });
  return found == profile.tables.end() ? nullptr : &*found;
}

std::uint32_t nofEntriesForEntryWidth(const KilnMdb::TableCapabilities& table, std::uint16_t bits) {
  for (const auto& [width, entries] : table.entriesByWidth) {
    if (width == bits) return entries;
  }
  return 0;
}

/// Adds `entries` entries of `width` to `used`; saturates at the counter's greatest value.
std::uint32_t addEntries(std::uint32_t used, std::uint32_t entries, std::uint32_t width) {
  const std::uint64_t sum = used + std::uint64_t{entries} * width;
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(sum, std::numeric_limits<std::uint32_t>::max()));
}

}  // namespace

std::uint32_t entryWidth60Bit(Tag tag) {
  KILN_ASSERT_MESSAGE(tag != Tag::undefined_ && kKeyTypeInfo[tag].memory != TableMemory::none,
                      "Unsupported keyType {}", tag);
  return kKeyTypeInfo[tag].width60Bit;
}

std::uint32_t entryWidth60Bit(SemType semType) {
  KILN_ASSERT_MESSAGE(semType == 0 || semType == 2, "Unsupported type {}", static_cast<int>(semType));
  return semType == 0 ? 2 : 1;
}

PhysicalTableId physicalTableIdForKeyType(Tag tag, FapType fapType) {
  KILN_ASSERT_MESSAGE(fapType >= 3 && fapType <= 5, "Unsupported FapType {}", static_cast<int>(fapType));
  switch (tag == Tag::undefined_ ? TableMemory::none : kKeyTypeInfo[tag].memory) {
    case TableMemory::isemNarrow:
      return fapType == 3 ? kIsem1 : kIsem2;
    case TableMemory::isemWide:
      return fapType == 3 ? kIsem2 : kIsem1;
    case TableMemory::esem:
      return kEsem;
    case TableMemory::none:
      break;
  }
  KILN_ASSERT_MESSAGE(false, "Unsupported keyType {}", tag);
  return 0;
}

bool externalTypeKnown(SemType semType, FapType fapType) {
  return semType == 0 || (semType == 2 && fapType != 3);
}

PhysicalTableId physicalTableIdForExternalType(SemType semType, FapType fapType, std::uint16_t /*core*/) {
  KILN_ASSERT_MESSAGE(fapType >= 3 && fapType <= 5, "Unsupported FapType {}", static_cast<int>(fapType));
  KILN_ASSERT_MESSAGE(externalTypeKnown(semType, fapType), "Unsupported type {}", static_cast<int>(semType));
  return fapType == 3 ? kIsem2 : kIsem1;
}

bool isTableOnFapTypeCore(FapType fapType, Hardware::Kiln::LocalCoreId localCoreId, PhysicalTableId tableId) {
  KILN_ASSERT_MESSAGE(fapType >= 3 && fapType <= 5, "Unsupported fapType {}", static_cast<int>(fapType));
  if (fapType == 3) return localCoreId.number() == 0;
  return tableId == kIsem1 || tableId == kIsem2 || tableId == kEsem;
}

SemCapacitySm::SemCapacitySm(Ref<KilnPlatform::TableCapacity> tableCapacity, Ref<const Clock> clock,
                             std::string agentName, Ref<const Hardware::Kiln::Status> hardwareStatus,
                             Ref<const KilnMdb::CapabilitiesStatus> capabilitiesStatus,
                             Ref<const KilnMdb::MdbLocalStatus> mdbLocalStatus,
                             Ref<const KilnTunnelNiLib::SemCapacityExternalDir> externalDir,
                             Ref<const EmSwTableStatus> emSwTableStatus, const StageControl& control)
    : CapacityHelper(std::move(tableCapacity), std::move(clock), std::move(agentName),
                     std::move(hardwareStatus), control),
      capabilitiesStatus_(std::move(capabilitiesStatus)),
      mdbLocalStatus_(std::move(mdbLocalStatus)),
      externalDir_(std::move(externalDir)),
      emSwTableStatus_(std::move(emSwTableStatus)),
      capabilitiesMark_(capabilitiesStatus_->profileCapabilities(), task(), &settingChanged()),
      profileIdMark_(mdbLocalStatus_->profileId(), task(), &settingChanged()),
      externalMark_(externalDir_->user(), task(), &settingChanged()),
      statusMark_(emSwTableStatus_->status(), task()) {
  readEntityIs(capabilitiesStatus_.get());
  readEntityIs(mdbLocalStatus_.get());
  readEntityIs(externalDir_.get());
  readEntityIs(emSwTableStatus_.get());
  SemCapacitySm::initCapacityTableFeatureMaps();
}

SemCapacitySm::~SemCapacitySm() {
  swTableWriterDelAll();
}

// External users hold entries of "ISEM1", or on FAP type 3 of "ISEM2".
void SemCapacitySm::initCapacityTableFeatureMaps() {
  mdbTableToTableName_ = {{kIsem1, "ISEM1"}, {kIsem2, "ISEM2"}, {kIsem3, "ISEM3"}, {kEsem, "ESEM"}};
  for (const auto& [tableId, name] : mdbTableToTableName_) initCapacityTableFeature("", agentName(), name);
  for (const PhysicalTableId tableId : {kIsem1, kIsem2}) {
    initCapacityTableFeature(kExternalFeature, agentName(), mdbTableToTableName_.at(tableId));
  }
}

void SemCapacitySm::swTableWriterIs(Ref<const EmSwTableWriterSm> writer) {
  const Tag tag = writer->emResolvedKeyType();
  swTableWriterDel(tag);
  writer->subscribe(operationMark_);
  swTableWriter_[tag] = std::move(writer);
  settingChanged() = true;
  scheduleUpdate();
}

void SemCapacitySm::swTableWriterDel(Tag tag) {
  const auto at = swTableWriter_.find(tag);
  if (at == swTableWriter_.end()) return;
  at->second->unsubscribe(operationMark_);
  swTableWriter_.erase(at);
  settingChanged() = true;
  scheduleUpdate();
}

void SemCapacitySm::swTableWriterDelAll() {
  while (!swTableWriter_.empty()) swTableWriterDel(swTableWriter_.begin()->first);
}

std::uint32_t SemCapacitySm::calculateMdbEmMax(PhysicalTableId tableId, FapId fapId) const {
  const auto profileId = mdbLocalStatus_->profileId(fapId);
  KILN_ASSERT_MESSAGE(profileId.has_value(), "mdbLocalStatus()->profileIdHas( fapId )");
  const auto* profileCapabilities = capabilitiesStatus_->profileCapabilities().find(*profileId);
  KILN_ASSERT_MESSAGE(profileCapabilities != nullptr, "profileCapabilities");
  const KilnMdb::TableCapabilities* capabilities = tableOf(*profileCapabilities, tableId);
  KILN_ASSERT_MESSAGE(capabilities != nullptr, "profileCapabilities->tableHas( tableId )");
  KILN_ASSERT_MESSAGE(capabilities->exactMatch, "emCapabilities");
  return nofEntriesForEntryWidth(*capabilities, 60);
}

// --- Updates -----------------------------------------------------------------------------------------------

/// Null if the FAP has no profile, or one that the chip does not describe.
const KilnMdb::ProfileCapabilities* SemCapacitySm::profileCapabilitiesOf(FapId fapId) const {
  const auto* profileId = mdbLocalStatus_->profileId().find(fapId);
  return profileId == nullptr ? nullptr : capabilitiesStatus_->profileCapabilities().find(*profileId);
}

bool SemCapacitySm::countedHere(PhysicalTableId tableId, const Place& place) const {
  if (!isTableOnFapTypeCore(place.fapType, place.core, tableId)) return false;
  const KilnMdb::TableCapabilities* table = tableOf(*profileCapabilitiesOf(place.fapId), tableId);
  return table != nullptr && table->exactMatch;
}

// Most changes of the tables' status are new versions of stored entries, which do not change usage.
bool SemCapacitySm::usageUnchanged() {
  if (settingChanged()) findRows();
  bool unchanged = true;
  for (Counted& each : counted_) {
    const std::uint32_t entries = each.writer->numEntries(each.fapId, each.core);
    if (std::exchange(each.entries, entries) == entries) continue;
    unchanged = false;
    tableRows_[each.row].changed = true;
  }
  return unchanged;
}

void SemCapacitySm::findRows() {
  counted_.clear();
  tableRows_.clear();
  const ExternalUsage external = externalUsage();
  KilnPlatform::forEachIn(hardwareStatus().fap(), [&](FapId fapId, const Hardware::Kiln::FapInfo& info) {
    if (profileCapabilitiesOf(fapId) == nullptr) return;
    for (const LocalCoreId core : info.cores) {
      const Place place{fapId, info.fapType, core};
      UsageByTable usage;
      addMaxima(usage, place);
      addWriters(usage, place);
      addExternal(usage, place, external);
      addRows(std::move(usage), fapNameToChipExternalComponent(info.name, core));
    }
  });
}

// If only usage changed, the other rows are up to date.
void SemCapacitySm::updateCapacityTable() {
  for (Row& row : tableRows_) {
    if (!std::exchange(row.changed, false)) continue;
    const std::uint32_t used = usedBy(row.usage);
    const std::uint32_t max = row.usage.max;
    updateCapacityEntry(row.key, row.chip, used, used < max ? max - used : 0, 0, max);
  }
}

std::uint32_t SemCapacitySm::usedBy(const CapacityUsage& usage) const {
  std::uint32_t used = usage.external;
  for (const std::size_t at : usage.counted)
    used = addEntries(used, counted_[at].entries, counted_[at].width);
  return used;
}

SemCapacitySm::ExternalUsage SemCapacitySm::externalUsage() const {
  ExternalUsage byPlace;
  KilnPlatform::forEachIn(externalDir_->user(), [&](const std::string& /*name*/, const auto& user) {
    for (const auto& usage : user.usage) byPlace[{usage.fapId, usage.localCoreId}].push_back(usage);
  });
  return byPlace;
}

void SemCapacitySm::addMaxima(UsageByTable& usage, const Place& place) const {
  for (const auto& [tableId, name] : mdbTableToTableName_) {
    if (!countedHere(tableId, place)) continue;
    const std::uint32_t max = calculateMdbEmMax(tableId, place.fapId);
    usage[tableId][""].max = max;
    if (tableId == kIsem1) usage[tableId][kExternalFeature].max = max;
  }
}

void SemCapacitySm::addWriters(UsageByTable& usage, const Place& place) {
  for (const auto& [tag, writer] : swTableWriter_) {
    const PhysicalTableId tableId = physicalTableIdForKeyType(tag, place.fapType);
    if (!countedHere(tableId, place)) continue;
    usage[tableId][""].counted.push_back(counted_.size());
    counted_.push_back({writer.get(), place.fapId, place.core, entryWidth60Bit(tag)});
  }
}

void SemCapacitySm::addExternal(UsageByTable& usage, const Place& place,
                                const ExternalUsage& external) const {
  const auto here = external.find({place.fapId, place.core});
  if (here == external.end()) return;
  for (const KilnTunnelNiLib::SemExternalUsage& user : here->second) {
    if (!externalTypeKnown(user.semType, place.fapType)) continue;
    const PhysicalTableId tableId =
        physicalTableIdForExternalType(user.semType, place.fapType, place.core.number());
    if (!countedHere(tableId, place)) continue;
    CapacityUsage& feature = usage[tableId][kExternalFeature];
    feature.external = addEntries(feature.external, user.entries, entryWidth60Bit(user.semType));
    feature.max = calculateMdbEmMax(tableId, place.fapId);
  }
}

void SemCapacitySm::addRows(UsageByTable&& usage, const std::string& chip) {
  for (auto& [tableId, byFeature] : usage) {
    for (auto& [feature, capacity] : byFeature) {
      for (const std::size_t at : capacity.counted) counted_[at].row = tableRows_.size();
      tableRows_.push_back(
          {{mdbTableToTableName_.at(tableId), feature, agentName()}, chip, std::move(capacity)});
    }
  }
}

// The order of the rows follows the FAPs, whose order depends on a walk.
void SemCapacitySm::noteState(StateDigest& digest) const {
  CapacityHelper::noteState(digest);
  for (const auto& [tag, writer] : swTableWriter_) digest.add(tag);
  digest.walked([&](auto&& item) {
    for (const Row& row : tableRows_) {
      item(row.key.table, row.key.feature, row.chip, row.usage.external, row.usage.max, row.changed);
    }
  });
  digest.walked([&](auto&& item) {
    for (const Counted& each : counted_) {
      item(each.writer->emResolvedKeyType(), each.fapId, each.core, each.width, each.entries);
    }
  });
}

Ref<SemCapacitySm> semCapacitySmFactory(Ref<KilnPlatform::TableCapacity> tableCapacity,
                                        Ref<const Clock> clock, std::string agentName,
                                        Ref<const Hardware::Kiln::Status> hardwareStatus,
                                        Ref<const KilnMdb::CapabilitiesStatus> capabilitiesStatus,
                                        Ref<const KilnMdb::MdbLocalStatus> mdbLocalStatus,
                                        Ref<const KilnTunnelNiLib::SemCapacityExternalDir> externalDir,
                                        Ref<const EmSwTableStatus> emSwTableStatus,
                                        const StageControl& control) {
  return std::make_shared<SemCapacitySm>(std::move(tableCapacity), std::move(clock), std::move(agentName),
                                         std::move(hardwareStatus), std::move(capabilitiesStatus),
                                         std::move(mdbLocalStatus), std::move(externalDir),
                                         std::move(emSwTableStatus), control);
}

}  // namespace KilnEmServer
