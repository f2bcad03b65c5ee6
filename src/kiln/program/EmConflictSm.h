// Lets the highest-priority feature win each hardware key, and gives every other contender a conflict status.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kiln/program/ConflictKeySet.h"
#include "kiln/runtime/collections/PendingKeys.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/LocalState.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// Groups the logical keys by hardware key, decides each hardware key that changed, and publishes the winner
/// as the table's desired content and a status for every loser.
///
/// A logical key without a hardware key has a status as well. From the requested entries and the compose
/// failures it carries the requested entry and version, and is `hwFail` if the key cannot be composed, else
/// `hwPending`. A key that is no longer requested has none. Only the insertion of `hwPending` is deferred to
/// a lower priority, so that a key that composes immediately never passes through it.
///
/// A divergent hardware key (one chip, one core) also competes with its convergent twin (all chips, all
/// cores). While it has contenders of its own, its content is the winner over both; without any, its content
/// is deleted. It is decided again whenever its twin is.
class EmConflictSm final : public Stage {
 public:
  /// Maximum number of runs of other tasks for which the insertion of a pending status is deferred.
  static constexpr std::uint32_t kPendingPatience = 4096;

  EmConflictSm(Ref<const EmMergedEntry> emMergedEntry, Ref<EmSwTableConfig> emSwTableConfig,
               Ref<EmConflictStatus> emConflictStatus, std::string name,
               Ref<DependencyStatus> dependencyStatus, StageControl control,
               Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry = nullptr,
               Ref<const EmComposeFailureByComposerType> emComposeFailure = nullptr);
  ~EmConflictSm() override;

  /// Prefetches the keys that the handler looks up in addition to its own.
  void prefetchFor(const EmLogicalKey& emLogicalKey) const {
    if (const EmHwKey* hwKey = cacheAttr0_.peek(emLogicalKey)) {
      prefetchKey(*hwKey);
    } else if (const EmHwEntry* hwEntry = emMergedEntry_.find(emLogicalKey)) {
      prefetchKey(hwEntry->emHwKey);
    }
  }

 private:
  /// One hardware key to decide: a contender was added or changed, or one was removed.
  struct WorkItem {
    const EmHwKey& hwKey;
    bool insert;
  };

  void eventToInputStream(const EmLogicalKey& emLogicalKey, const EmHwEntry* hwEntryOpt);
  /// Whether the key has no hardware entry. A key that loses its hardware entry is handled as a separate
  /// change.
  [[nodiscard]] bool unplaced(const EmLogicalKey& emLogicalKey) const {
    return emMergedEntry_.find(emLogicalKey) == nullptr;
  }
  void handleRequestedEntry(const EmLogicalKey& emLogicalKey, const EmConfigEntry* entryOpt);
  void handleComposeFailure(const EmComposerKeyUnionTag& composerType, const EmLogicalKey& emLogicalKey,
                            const std::string* failureOpt);

  void eventToConflictStatusStream(const EmLogicalKey& emLogicalKey, const EmHwEntry* hwEntryOpt);
  void eventToProcessInputStream(const EmLogicalKey& emLogicalKey, const EmHwEntry* hwEntryOpt);
  void processWorkItem(const WorkItem& item, const EmLogicalKey& emLogicalKey, const EmHwEntry* hwEntryOpt);
  void decide(const EmHwKey& hwKey, const EmLogicalKey* changed);
  void eventToConflictStatusStream2(const EmHwKey& hwKey,
                                    const std::optional<EmLogicalKeyAndEntry>& logicalKeyAndEntryOpt,
                                    const EmLogicalKey* previousWinner, const EmLogicalKey* changed);
  void writeContenderStatus(const EmHwKey& hwKey, const EmLogicalKey& winner, const EmLogicalKey& contender);
  void traceContenders(const EmHwKey& hwKey) const;

  void decideUnplaced(const EmLogicalKey& emLogicalKey);
  void writeUnplaced(const EmLogicalKey& emLogicalKey, const EmConfigEntry& entry, EmStatus status);
  [[nodiscard]] const std::string* failureOf(const EmLogicalKey& emLogicalKey) const;
  void insertPending();
  void handleInitialized() override;
  void handleDeleteAll() override;

  Input<EmMergedEntry::emMergedEntryAttr, "emMergedEntry", &EmConflictSm::eventToInputStream,
        "inputStream = from( emMergedEntry.emMergedEntry[] ): emLogicalKey={}">
      emMergedEntry_;
  using RequestedEntryInput =
      Input<EmLogicalKeyToEntry::emLogicalKeyToEntryAttr, "emLogicalKeyToEntry",
            &EmConflictSm::handleRequestedEntry,
            "requestStream = from( emLogicalKeyToEntry.emLogicalKeyToEntry[] ): emLogicalKey={}",
            Reaction::queued, nullptr, &EmConflictSm::unplaced>;
  std::optional<RequestedEntryInput> emLogicalKeyToEntry_;
  using ComposeFailureInput = NestedInput<
      EmComposeFailureByComposerType::configAttr, EmComposeFailure::failureAttr, "emComposeFailure",
      &EmConflictSm::handleComposeFailure,
      "failureStream = from( emComposeFailure.config[].failure[] ): composerType={} emLogicalKey={}">;
  std::optional<ComposeFailureInput> emComposeFailure_;

  ConflictKeySet conflictKeySet_;
  Cache<EmLogicalKey, EmHwKey> cacheAttr0_;
  Output<EmSwTableConfig::configAttr, "emSwTableConfig", "hwKey"> emSwTableConfig_;
  /// Written under "emLogicalKey" for a key without a hardware key, under "logicalKey" for a contender.
  Output<EmConflictStatus::statusAttr, "emConflictStatus", "emLogicalKey", KeyMismatch::report>
      emConflictStatus_;

  /// Keys that may need a pending status; each is decided again when it is handled.
  class Waiting final : public LocalState {
   public:
    explicit Waiting(Stage& stage) : LocalState(stage, "waiting") {}
    PendingKeys<EmLogicalKey> keys;
    [[nodiscard]] std::size_t size() const override { return keys.size(); }
    void clear() override { keys.clear(); }
    void noteState(StateDigest& digest) const override {
      keys.forEach([&](const EmLogicalKey& emKey, Arrival /*arrival*/) { digest.add(emKey); });
    }
  };
  Waiting waiting_;
  std::unique_ptr<Task> pendingTask_;
};

Ref<EmConflictSm> emConflictSmFactory(Ref<const EmMergedEntry> emMergedEntry,
                                      Ref<EmSwTableConfig> emSwTableConfig,
                                      Ref<EmConflictStatus> emConflictStatus, std::string name,
                                      Ref<DependencyStatus> dependencyStatus, StageControl control,
                                      Ref<const EmLogicalKeyToEntry> emLogicalKeyToEntry = nullptr,
                                      Ref<const EmComposeFailureByComposerType> emComposeFailure = nullptr);

}  // namespace KilnEmServer
