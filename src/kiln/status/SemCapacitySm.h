// Reports how full the service exact-match tables of each chip are.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kiln/platform/Hardware.h"
#include "kiln/platform/KilnTunnelNiLib.h"
#include "kiln/program/EmSwTableWriterSm.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/status/CapacityHelper.h"

namespace KilnEmServer {

// Usage and maxima are in units of 60-bit entries. An unknown key type, external type or FAP type is an
// assertion failure.

/// Width of an entry of a key type.
std::uint32_t entryWidth60Bit(EmResolvedKeyUnionTag tag);
/// Width of an entry of an external user.
std::uint32_t entryWidth60Bit(KilnTunnelNiLib::SemType semType);
/// The physical table that holds the entries of a key type. The two ISEM tables swap their roles between FAP
/// type 3 and FAP types 4 and 5.
KilnMdb::PhysicalTableId physicalTableIdForKeyType(EmResolvedKeyUnionTag tag,
                                                   Hardware::Kiln::FapType fapType);
/// Whether the FAP type supports the external type.
bool externalTypeKnown(KilnTunnelNiLib::SemType semType, Hardware::Kiln::FapType fapType);
/// The physical table that holds the entries of an external user; the same for every core.
KilnMdb::PhysicalTableId physicalTableIdForExternalType(KilnTunnelNiLib::SemType semType,
                                                        Hardware::Kiln::FapType fapType, std::uint16_t core);
/// Whether a table is counted on a core. On FAP type 3 the cores share their tables, which are counted once.
bool isTableOnFapTypeCore(Hardware::Kiln::FapType fapType, Hardware::Kiln::LocalCoreId localCoreId,
                          KilnMdb::PhysicalTableId tableId);

/// Names of the reported tables.
using CapacityTableNames = std::map<KilnMdb::PhysicalTableId, std::string>;

/// Usage comes from the table writers, each of which counts its own entries, and from external users of the
/// same tables; maxima come from the chips' MDB profiles. The cost of an update depends on the number of
/// tables, FAPs, cores and external users, not on the number of entries. An update follows each operation
/// that a writer issues and each answer: a table may change its size with either.
class SemCapacitySm final : public CapacityHelper {
 public:
  /// A change of `emSwTableStatus` triggers an update; its content is not read.
  SemCapacitySm(Ref<KilnPlatform::TableCapacity> tableCapacity, Ref<const Clock> clock, std::string agentName,
                Ref<const Hardware::Kiln::Status> hardwareStatus,
                Ref<const KilnMdb::CapabilitiesStatus> capabilitiesStatus,
                Ref<const KilnMdb::MdbLocalStatus> mdbLocalStatus,
                Ref<const KilnTunnelNiLib::SemCapacityExternalDir> externalDir,
                Ref<const EmSwTableStatus> emSwTableStatus, const StageControl& control);
  ~SemCapacitySm() override;

  // Registers a writer whose entries are counted. The writer of a LEM table is not registered.
  void swTableWriterIs(Ref<const EmSwTableWriterSm> writer);
  void swTableWriterDel(EmResolvedKeyUnionTag tag);
  void swTableWriterDelAll();
  [[nodiscard]] const std::map<EmResolvedKeyUnionTag, Ref<const EmSwTableWriterSm>>& swTableWriter() const {
    return swTableWriter_;
  }

  [[nodiscard]] const CapacityTableNames& mdbTableToTableName() const { return mdbTableToTableName_; }
  /// The number of 60-bit entries that the FAP's MDB profile gives the table. It is an assertion failure if
  /// the FAP has no profile, the profile is unknown, or the table is not an exact-match table of it.
  [[nodiscard]] std::uint32_t calculateMdbEmMax(KilnMdb::PhysicalTableId tableId,
                                                Hardware::Kiln::FapId fapId) const;
  void noteState(StateDigest& digest) const override;

 private:
  using FapId = Hardware::Kiln::FapId;
  using FapType = Hardware::Kiln::FapType;
  using LocalCoreId = Hardware::Kiln::LocalCoreId;
  using PhysicalTableId = KilnMdb::PhysicalTableId;

  /// The usage of one table by one feature in one place. It is the sum of the external users' usage and of
  /// the entries of the table's writers, given by their indexes in `counted_`.
  struct CapacityUsage {
    std::uint32_t external = 0;
    std::uint32_t max = 0;
    std::vector<std::size_t> counted;
  };
  using UsageByFeature = std::map<std::string, CapacityUsage>;
  using UsageByTable = std::map<PhysicalTableId, UsageByFeature>;
  /// A row of the capacity table.
  struct Row {
    TableKey key;
    std::string chip;
    CapacityUsage usage;
    bool changed = true;  ///< since it was last written
  };
  /// One core of one FAP.
  struct Place {
    FapId fapId;
    FapType fapType;
    LocalCoreId core;
  };
  /// The usage of one writer in one place.
  struct Counted {
    const EmSwTableWriterSm* writer;  ///< one of swTableWriter_
    FapId fapId;
    LocalCoreId core;
    std::uint32_t width;        ///< of an entry
    std::uint32_t entries = 0;  ///< at the last count
    std::size_t row = 0;        ///< index of the row in which it is counted
  };
  using ExternalUsage =
      std::map<std::pair<FapId, LocalCoreId>, std::vector<KilnTunnelNiLib::SemExternalUsage>>;

  /// Notified of the writers' operations, which change the content of their tables.
  class OperationMark final : public Asic::ChangeSubscriber {
   public:
    explicit OperationMark(Task& task) : task_(task) {}
    void handleChange() override { task_.scheduleTask(); }

   private:
    Task& task_;
  };

  void initCapacityTableFeatureMaps() override;
  [[nodiscard]] bool usageUnchanged() override;
  void findRows();
  void updateCapacityTable() override;

  [[nodiscard]] const KilnMdb::ProfileCapabilities* profileCapabilitiesOf(FapId fapId) const;
  [[nodiscard]] bool countedHere(PhysicalTableId tableId, const Place& place) const;
  [[nodiscard]] ExternalUsage externalUsage() const;
  void addMaxima(UsageByTable& usage, const Place& place) const;
  void addWriters(UsageByTable& usage, const Place& place);
  void addExternal(UsageByTable& usage, const Place& place, const ExternalUsage& external) const;
  void addRows(UsageByTable&& usage, const std::string& chip);
  [[nodiscard]] std::uint32_t usedBy(const CapacityUsage& usage) const;

  Ref<const KilnMdb::CapabilitiesStatus> capabilitiesStatus_;
  Ref<const KilnMdb::MdbLocalStatus> mdbLocalStatus_;
  Ref<const KilnTunnelNiLib::SemCapacityExternalDir> externalDir_;
  Ref<const EmSwTableStatus> emSwTableStatus_;
  CapacityTableNames mdbTableToTableName_;
  OperationMark operationMark_{task()};
  std::map<EmResolvedKeyUnionTag, Ref<const EmSwTableWriterSm>> swTableWriter_;
  // Derived from everything but usage.
  std::vector<Counted> counted_;  ///< the writers, on each core on which their table is counted
  std::vector<Row> tableRows_;
  ChangeMark<std::uint32_t, KilnMdb::ProfileCapabilities> capabilitiesMark_;
  ChangeMark<FapId, std::uint32_t> profileIdMark_;
  ChangeMark<std::string, KilnTunnelNiLib::SemCapacityExternal> externalMark_;
  ChangeMark<EmHwKey, EmSwTableStatusEntry> statusMark_;
};

/// Creates the stage without starting it: writers are registered first, then handleInitialized is called.
Ref<SemCapacitySm> semCapacitySmFactory(Ref<KilnPlatform::TableCapacity> tableCapacity,
                                        Ref<const Clock> clock, std::string agentName,
                                        Ref<const Hardware::Kiln::Status> hardwareStatus,
                                        Ref<const KilnMdb::CapabilitiesStatus> capabilitiesStatus,
                                        Ref<const KilnMdb::MdbLocalStatus> mdbLocalStatus,
                                        Ref<const KilnTunnelNiLib::SemCapacityExternalDir> externalDir,
                                        Ref<const EmSwTableStatus> emSwTableStatus,
                                        const StageControl& control);

}  // namespace KilnEmServer
