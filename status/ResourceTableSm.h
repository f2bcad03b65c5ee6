// Counts what became of the requested entries, per database and table.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "runtime/EmCollections.h"
#include "runtime/Input.h"
#include "runtime/LocalState.h"
#include "runtime/Output.h"
#include "runtime/Stage.h"

namespace KilnEmServer {

/// How many entries of one table are requested, and what became of them. One that lost its hardware key to
/// another feature is requested only: it takes no room, and waits for none.
struct ResourceCounts {
  std::uint32_t requested = 0;
  std::uint32_t programmed = 0;
  std::uint32_t waiting = 0;  ///< for their VLAN domain or the table's answer
  std::uint32_t failed = 0;   ///< refused by the table, or not to be composed
  KILN_VALUE(KilnEmServer, ResourceCounts, requested, programmed, waiting, failed)
};

/// The counts of one database, by the table's stem. A table of which nothing is requested has none.
class ResourceTable {
  KILN_COLLECTION(ResourceTable, resource, std::string, ResourceCounts)
};

/// Files every requested logical key under the state of its status. A key's change costs the same however
/// many keys there are.
class ResourceTableSm final : public Stage {
 public:
  ResourceTableSm(Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                  Ref<const EmLogicalKeyToStatus> emStatusMerged, Ref<ResourceTable> isemResourceTable,
                  Ref<ResourceTable> esemResourceTable, Ref<ResourceTable> lemResourceTable, std::string name,
                  Ref<DependencyStatus> dependencyStatus, StageControl control);

 protected:
  void handleInitialized() override;

 private:
  /// The status under which each key was counted last.
  class Counted final : public LocalState {
   public:
    explicit Counted(Stage& stage) : LocalState(stage, "counted") {}
    /// Files a key under another status, or under none; returns what it was filed under before.
    std::optional<EmStatus> exchange(const EmLogicalKey& key, std::optional<EmStatus> status);
    [[nodiscard]] std::optional<EmStatus> status(const EmLogicalKey& key) const;
    [[nodiscard]] bool has(const EmLogicalKey& key) const { return statuses_.find(key) != nullptr; }
    [[nodiscard]] std::size_t size() const override { return statuses_.size(); }
    void clear() override { statuses_.clear(); }
    [[nodiscard]] const auto& statuses() const { return statuses_; }

   private:
    LocalMap<EmLogicalKey, EmStatus> statuses_;
  };

  void handleEntry(const EmLogicalKey& emKey, const EmConfigEntry* entryOpt);
  void handleStatus(const EmLogicalKey& emKey, const EmRequestStatus* statusOpt);
  /// Whether a request came or went that is filed, or not, otherwise; its status has changes of its own.
  [[nodiscard]] bool unfiled(const EmLogicalKey& emKey) const {
    return !ready() || counted_.has(emKey) != (emLogicalKeyToEntry_.find(emKey) != nullptr);
  }
  /// Whether the key is filed under another status than it has.
  [[nodiscard]] bool misfiled(const EmLogicalKey& emKey) const {
    return !ready() || counted_.status(emKey) != statusOf(emKey);
  }
  [[nodiscard]] std::optional<EmStatus> statusOf(const EmLogicalKey& emKey) const;
  void count(const EmLogicalKey& emKey);
  void publish(EmComposerKeyUnionTag type);

  template <FixedString Argument>
  using CountsOutput = Output<ResourceTable::resourceAttr, Argument, "name">;

  Input<EmLogicalKeyToEntry::emLogicalKeyToEntryAttr, "emLogicalKeyToEntry", &ResourceTableSm::handleEntry,
        "from( emLogicalKeyToEntry.emLogicalKeyToEntry[] ): emKey={} entryOpt={}", Reaction::queued,
        &ResourceTableSm::unfiled, nullptr>
      emLogicalKeyToEntry_;
  Input<EmLogicalKeyToStatus::statusAttr, "emStatusMerged", &ResourceTableSm::handleStatus,
        "from( emStatusMerged.status[] ): emKey={} statusOpt={}", Reaction::queued,
        &ResourceTableSm::misfiled, nullptr>
      emStatusMerged_;
  Counted counted_;
  std::array<ResourceCounts, KilnPlatform::kTableStems.size()> counts_{};  ///< by the number of the key type
  CountsOutput<"isemResourceTable"> isem_;
  CountsOutput<"esemResourceTable"> esem_;
  CountsOutput<"lemResourceTable"> lem_;
};

Ref<ResourceTableSm> resourceTableSmFactory(Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                                            Ref<const EmLogicalKeyToStatus> emStatusMerged,
                                            Ref<ResourceTable> isemResourceTable,
                                            Ref<ResourceTable> esemResourceTable,
                                            Ref<ResourceTable> lemResourceTable, std::string name,
                                            Ref<DependencyStatus> dependencyStatus, StageControl control);

}  // namespace KilnEmServer
