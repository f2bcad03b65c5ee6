// Counts the requested entries and their outcomes, per database and table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/LocalState.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// Counts every requested logical key under its status, inside the call that changes the status; that changes
/// only the stage's own counters. Changed rows are published on the stage's task, each once, however many
/// keys changed it.
class ResourceTableSm final : public Stage {
 public:
  ResourceTableSm(Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry,
                  Ref<const EmLogicalKeyToStatus> emStatusMerged, Ref<ResourceTable> isemResourceTable,
                  Ref<ResourceTable> esemResourceTable, Ref<ResourceTable> lemResourceTable, std::string name,
                  Ref<DependencyStatus> dependencyStatus, StageControl control);

  void noteState(StateDigest& digest) const override {
    Stage::noteState(digest);
    for (const ResourceCounts& counts : counts_) digest.add(counts);
  }

 protected:
  void handleInitialized() override;

 private:
  /// The tables whose counters changed since they were published, in the order of their first change.
  class ChangedTables final : public WorkQueue {
   public:
    explicit ChangedTables(ResourceTableSm& owner) : WorkQueue(owner, "changedTables"), owner_(owner) {}
    void add(EmComposerKeyUnionTag type);

    [[nodiscard]] std::size_t pendingCount() const override { return count_; }
    [[nodiscard]] Arrival headArrival() const override { return changes_[first()].arrival; }
    void notePending(PendingDigests& pending) const override;

   private:
    void handleNext() override;
    /// The counts of the scan are published before the deletion scan checks rows of an earlier stage.
    bool scanItem() override;
    [[nodiscard]] EmComposerKeyUnionTag first() const;

    ResourceTableSm& owner_;
    struct Change {
      bool pending = false;
      Arrival arrival = 0;
    };
    ByKeyType<Change> changes_;
    std::size_t count_ = 0;
  };

  void handleEntry(const EmLogicalKey& emKey, const EmConfigEntry* entryOpt);
  void handleStatus(const EmLogicalKey& emKey, const EmRequestStatus* statusOpt);
  /// Counts a key under another status, or under none if it is null.
  void count(const EmLogicalKey& emKey, const EmStatus* was, const EmStatus* now);
  void publish(EmComposerKeyUnionTag type);

  template <FixedString Argument>
  using CountsOutput = Output<ResourceTable::resourceAttr, Argument, "name">;

  Input<EmLogicalKeyToEntry::emLogicalKeyToEntryAttr, "emLogicalKeyToEntry", &ResourceTableSm::handleEntry,
        "from( emLogicalKeyToEntry.emLogicalKeyToEntry[] ): emKey={} entryOpt={}", Reaction::immediate>
      emLogicalKeyToEntry_;
  Input<EmLogicalKeyToStatus::statusAttr, "emStatusMerged", &ResourceTableSm::handleStatus,
        "from( emStatusMerged.status[] ): emKey={} statusOpt={}", Reaction::immediate>
      emStatusMerged_;
  ChangedTables changedTables_;
  /// The status under which each requested key is counted.
  LocalCollection<EmLogicalKey, EmStatus> counted_;
  ByKeyType<ResourceCounts> counts_;
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
