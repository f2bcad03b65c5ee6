// Turns the desired content of one table into writes and removals, and the table's answers into statuses.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "platform/Asic.h"
#include "runtime/EmCollections.h"
#include "runtime/Input.h"
#include "runtime/LocalState.h"
#include "runtime/Stage.h"

namespace KilnEmServer {

/// The base of the eight table writers. Every writer sees every key of the shared configuration and keeps
/// only those of its own table. A newer request for a key supersedes an outstanding one; the older one's
/// answer is recognised by its version and dropped. A failed write is not retried.
class EmSwTableWriterSm : public Stage,
                          public KeyFollower<EmHwKey>,
                          public std::enable_shared_from_this<EmSwTableWriterSm> {
 public:
  using ResponseHandler = Asic::OrderedSwTable::ResponseHandler;
  using EntryState = Asic::SwTableBase::EntryState;
  using EntryHandleRef = Ref<const Asic::OrderedSwTable::EntryHandle>;

  ~EmSwTableWriterSm() override;

  [[nodiscard]] EmResolvedKeyUnionTag emResolvedKeyType() const { return emResolvedKeyType_; }

  /// Programs or overwrites the entry; calls `handler` once with the table's answer. Throws std::range_error,
  /// without a call of `handler`, where key or entry is not one of this writer's table.
  virtual void writeTableEntry(const EmHwKey& hwKey, const EmEntry& entry, ResponseHandler handler);
  /// Removes the entry; calls `handler` once when done. Throws like writeTableEntry.
  virtual void deleteTableEntry(const EmHwKey& hwKey, ResponseHandler handler);
  /// Number of entries that this writer's table holds on that FAP and core.
  [[nodiscard]] virtual std::uint32_t numEntries(Hardware::Kiln::FapId fapId,
                                                 Hardware::Kiln::LocalCoreId localCoreId) const;
  /// A request for the key will be handled soon. What its table has under it is fetched ahead.
  void expect(const EmHwKey& hwKey) const { expectTableKey(hwKey, false); }
  void expectNow(const EmHwKey& hwKey) const final { expectTableKey(hwKey, true); }

 protected:
  EmSwTableWriterSm(EmResolvedKeyUnionTag emResolvedKeyType, Ref<const EmSwTableConfig> emSwTableConfig,
                    Ref<EmSwTableStatus> emSwTableStatus, std::string name,
                    Ref<DependencyStatus> dependencyStatus, StageControl control);

  void handleInitialized() override;
  void handleDeleteAll() override;
  /// Announces the key to the table, where it is one of this writer's.
  virtual void expectTableKey(const EmHwKey& /*hwKey*/, bool /*next*/) const {}

 private:
  [[nodiscard]] bool isOwn(const EmHwKey& hwKey) const {
    return emResolvedKeyEnumFromUnion(hwKey.emResolvedKey) == emResolvedKeyType_;
  }
  void handleRequest(const EmHwKey& hwKey, const EmLogicalKeyAndEntry* logicalKeyAndEntry);
  void handleLeftStatus(const EmHwKey& hwKey, const EmSwTableStatusEntry* status);
  void handleDivergent(const EmHwKey& hwKey, const EmLogicalKeyAndEntry* logicalKeyAndEntry);
  void requestWrite(const EmHwKey& hwKey, const EmLogicalKeyAndEntry& logicalKeyAndEntry);
  void removeUnwritable(const EmHwKey& hwKey, const EmLogicalKeyAndEntry& logicalKeyAndEntry,
                        std::uint32_t version);
  void requestDelete(const EmHwKey& hwKey);
  void handleWriteResponse(EntryState entryState, const EmHwKey& answered,
                           const EmLogicalKeyAndEntry& logicalKeyAndEntry, std::uint32_t version);
  void handleDeleteResponse(EntryState entryState, const EmHwKey& hwKey, std::uint32_t version);
  void writeStatus(const EmHwKey& hwKey, const EmLogicalKeyAndEntry& logicalKeyAndEntry,
                   EmHwKeyStatus::State state);

  /// The latest issued version per hardware key, of one kind of request; 0 for a key without one.
  class Versions final : public LocalState {
   public:
    Versions(Stage& stage, std::string_view name) : LocalState(stage, name) { stage.companionIs(latest_); }
    /// Issues the next version for the key; the counter skips 0.
    std::uint32_t issue(const EmHwKey& hwKey);
    [[nodiscard]] std::uint32_t latest(const EmHwKey& hwKey) const;
    void del(const EmHwKey& hwKey) { latest_.del(hwKey); }
    [[nodiscard]] std::size_t size() const override { return latest_.size(); }
    void clear() override { latest_.clear(); }

   private:
    std::uint32_t counter_ = 0;
    LocalMap<EmHwKey, std::uint32_t> latest_;
  };

  EmResolvedKeyUnionTag emResolvedKeyType_;
  Input<EmSwTableConfig::configAttr, "emSwTableConfig", &EmSwTableWriterSm::handleRequest,
        "from( emSwTableConfig.config[] ): hwKey={}", Reaction::queued, &EmSwTableWriterSm::isOwn>
      emSwTableConfig_;
  /// What stood in the status before this writer came, and is wanted no more, is removed from the table.
  Input<EmSwTableStatus::statusAttr, "emSwTableStatus", &EmSwTableWriterSm::handleLeftStatus,
        "from( emSwTableStatus.status[] ): hwKey={}", Reaction::none>
      leftStatus_;
  Ref<EmSwTableStatus> emSwTableStatus_;
  Versions keyLatestWriteVersion_;
  Versions keyLatestDeleteVersion_;
};

}  // namespace KilnEmServer
