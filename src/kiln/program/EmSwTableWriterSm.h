// Turns the desired content of one table into writes and removals, and the table's answers into statuses.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kiln/platform/Asic.h"
#include "kiln/program/RefusedKeys.h"
#include "kiln/program/WrittenKeys.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/LocalState.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// Optional functions of a writer.
struct SwTableWriterOptions {
  /// The room of the physical table, which its writers share. Writes that the table refused and that are
  /// still wanted are written again: the first refused one each time that an entry left the physical table,
  /// and all of them once when retryRefused() is called. Without it a refused write stays refused until the
  /// wanted content of its hardware key changes.
  Ref<TableRoom> retryRoom;
  /// The collection in which to publish the logical keys for which the tables hold entries, or may still
  /// write them; null for none.
  Ref<EmWrittenKeys> emWrittenKeys;
};

/// The base of the table writers. Every writer reads the shared configuration and selects the keys of its own
/// table. A newer request for a key supersedes an outstanding one; the older one's answer is recognised by
/// its version and dropped.
class EmSwTableWriterSm : public Stage,
                          public KeyFollower<EmHwKey>,
                          public std::enable_shared_from_this<EmSwTableWriterSm>,
                          private RefusedKeys::Retrying {
 public:
  using ResponseHandler = Asic::OrderedSwTable::ResponseHandler;
  using EntryState = Asic::SwTableBase::EntryState;
  using EntryHandleRef = Ref<const Asic::OrderedSwTable::EntryHandle>;

  ~EmSwTableWriterSm() override;

  [[nodiscard]] EmResolvedKeyUnionTag emResolvedKeyType() const { return emResolvedKeyType_; }
  /// Whether this writer owns the key, in collections that all writers write.
  [[nodiscard]] bool owns(const EmHwKey& hwKey) const { return isOwn(hwKey); }
  [[nodiscard]] bool owns(const EmLogicalKey& emLogicalKey) const {
    return emLogicalKey.emComposerKey.tag() == composerTypeOf(emResolvedKeyType_);
  }

  // The versions of the newest write and of the newest removal that were issued; 0 before the first one.
  [[nodiscard]] std::uint32_t writeVersion() const { return writeVersion_; }
  [[nodiscard]] std::uint32_t deleteVersion() const { return deleteVersion_; }

  /// Programs or overwrites the entry; calls `handler` once with the table's answer. Throws std::range_error,
  /// without a call of `handler`, if key or entry is not one of this writer's table.
  virtual void writeTableEntry(const EmHwKey& hwKey, const EmEntry& entry, ResponseHandler handler);
  /// Removes the entry; calls `handler` once when done. Throws like writeTableEntry.
  virtual void deleteTableEntry(const EmHwKey& hwKey, ResponseHandler handler);
  /// Number of entries of this writer's table on that FAP and core.
  [[nodiscard]] virtual std::uint32_t numEntries(Hardware::Kiln::FapId fapId,
                                                 Hardware::Kiln::LocalCoreId localCoreId) const;
  /// Reconciliation has completed: writes each refused entry once more, including those whose refusal is not
  /// known yet.
  void retryRefused();
  /// Subscribers are notified after each operation issued to the table, and after each answer; they must stay
  /// alive until removed.
  void subscribe(Asic::ChangeSubscriber& subscriber) const { operationSubscribers_.push_back(&subscriber); }
  void unsubscribe(Asic::ChangeSubscriber& subscriber) const {
    std::erase(operationSubscribers_, &subscriber);
  }
  /// Hint: a request for the key will be handled soon. Prefetches what its table has under the key.
  void prefetchFor(const EmHwKey& hwKey) const { prefetchTableKey(hwKey, false); }
  void prefetchNow(const EmHwKey& hwKey) const final { prefetchTableKey(hwKey, true); }

  /// Describes the effect of an answer that a table owes: adds it to `digest`, with the state of the writer
  /// that it is for. False if the handler is not a writer's.
  static bool noteAnswer(StateDigest& digest, const ResponseHandler& handler);
  /// The hardware key of the operation that the handler waits for; null if the handler is not a writer's.
  [[nodiscard]] static const EmHwKey* keyOf(const ResponseHandler& handler);

 protected:
  EmSwTableWriterSm(EmResolvedKeyUnionTag emResolvedKeyType, Ref<const EmSwTableConfig> emSwTableConfig,
                    Ref<EmSwTableStatus> emSwTableStatus, std::string name,
                    Ref<DependencyStatus> dependencyStatus, StageControl control,
                    SwTableWriterOptions options);

  void handleInitialized() override;
  /// Announces the key to the table, if it is one of this writer's.
  virtual void prefetchTableKey(const EmHwKey& /*hwKey*/, bool /*next*/) const {}

 private:
  /// One operation issued to the table.
  struct Issued {
    std::uint32_t version = 0;      ///< among its hardware key's operations of the same kind
    OperationNumber operation = 0;  ///< among all operations of this writer
    std::uint32_t moment = 0;       ///< RefusedKeys::moment() when it was issued
  };
  // The handlers of the answer to a write, to a removal, and to the removal that replaces a write.
  struct WriteHandler {
    std::weak_ptr<EmSwTableWriterSm> writer;
    EmHwKey hwKey;
    EmLogicalKeyAndEntry logicalKeyAndEntry;
    Issued issued;
    void operator()(const EntryHandleRef& handle) const;
  };
  struct DeleteHandler {
    std::weak_ptr<EmSwTableWriterSm> writer;
    EmHwKey hwKey;
    Issued issued;
    void operator()(const EntryHandleRef& handle) const;
  };
  struct UnwritableHandler {
    std::weak_ptr<EmSwTableWriterSm> writer;
    EmHwKey hwKey;
    EmLogicalKeyAndEntry logicalKeyAndEntry;
    Issued issued;
    void operator()(const EntryHandleRef& handle) const;
  };
  /// Calls `visitor(handler)` with the handler by its type; false if it is of none of them.
  template <class Visitor>
  static bool visit(const ResponseHandler& handler, Visitor&& visitor);
  [[nodiscard]] KilnPlatform::PartitionSet<EmHwKey> ownKeys() const {
    return partitionsOf(emResolvedKeyType_);
  }
  [[nodiscard]] bool isOwn(const EmHwKey& hwKey) const {
    return emResolvedKeyEnumFromUnion(hwKey.emResolvedKey) == emResolvedKeyType_;
  }
  void handleRequest(const EmHwKey& hwKey, const EmLogicalKeyAndEntry* logicalKeyAndEntry);
  void handleLeftStatus(const EmHwKey& hwKey, const EmSwTableStatusEntry* status);
  void handleDivergent(const EmHwKey& hwKey, const EmLogicalKeyAndEntry* logicalKeyAndEntry);
  void requestWrite(const EmHwKey& hwKey, const EmLogicalKeyAndEntry& logicalKeyAndEntry);
  void removeUnwritable(const EmHwKey& hwKey, const EmLogicalKeyAndEntry& logicalKeyAndEntry,
                        const Issued& issued);
  void requestDelete(const EmHwKey& hwKey);
  void retry(const EmHwKey& hwKey) override;
  // The version of the next write, and of the next removal. 0 means none and is skipped.
  std::uint32_t writeVersionInc() { return ++writeVersion_ == 0 ? ++writeVersion_ : writeVersion_; }
  std::uint32_t deleteVersionInc() { return ++deleteVersion_ == 0 ? ++deleteVersion_ : deleteVersion_; }
  [[nodiscard]] Issued issue(std::uint32_t version);
  void handleWriteResponse(EntryState entryState, const EmHwKey& hwKey,
                           const EmLogicalKeyAndEntry& logicalKeyAndEntry, const Issued& issued);
  /// True if the answer is for the latest write of a key that is still wanted, and so takes effect.
  bool takeWriteAnswer(bool success, const EmHwKey& answered, const EmLogicalKeyAndEntry& logicalKeyAndEntry,
                       const Issued& issued);
  void handleDeleteResponse(EntryState entryState, const EmHwKey& hwKey, const Issued& issued);
  void noteDeparture();
  void tellOperation() const;
  void writeStatus(const EmHwKey& hwKey, const EmLogicalKeyAndEntry& logicalKeyAndEntry,
                   EmHwKeyStatus::State state);

  /// The latest issued version per hardware key, of one kind of request; 0 for a key without one.
  class Versions final : public LocalState {
   public:
    Versions(Stage& stage, std::string_view name) : LocalState(stage, name) { stage.prefetchSetAdd(latest_); }
    void is(const EmHwKey& hwKey, std::uint32_t version) { latest_.obtain(hwKey) = version; }
    [[nodiscard]] std::uint32_t latest(const EmHwKey& hwKey) const;
    void del(const EmHwKey& hwKey) { latest_.del(hwKey); }
    [[nodiscard]] std::size_t size() const override { return latest_.size(); }
    void clear() override { latest_.clear(); }
    /// Unanswered operations are described with the fact whether theirs is the latest version.
    void noteState(StateDigest& digest) const override {
      digest.unordered([&](auto&& item) {
        latest_.forEach([&](const EmHwKey& hwKey, std::uint32_t /*version*/) { item(hwKey); });
      });
    }

   private:
    LocalMap<EmHwKey, std::uint32_t> latest_;
  };

  EmResolvedKeyUnionTag emResolvedKeyType_;
  Input<EmSwTableConfig::configAttr, "emSwTableConfig", &EmSwTableWriterSm::handleRequest,
        "from( emSwTableConfig.config[] ): hwKey={}", Reaction::queued, &EmSwTableWriterSm::ownKeys>
      emSwTableConfig_;
  /// A status from before this writer existed, if no longer wanted, causes a removal from the table.
  Input<EmSwTableStatus::statusAttr, "emSwTableStatus", &EmSwTableWriterSm::handleLeftStatus,
        "from( emSwTableStatus.status[] ): hwKey={}", Reaction::none, &EmSwTableWriterSm::ownKeys>
      leftStatus_;
  DirectOutput<EmSwTableStatus::statusAttr, "emSwTableStatus"> emSwTableStatus_;
  std::uint32_t writeVersion_ = 0;
  Versions keyLatestWriteVersion_;
  std::uint32_t deleteVersion_ = 0;
  Versions keyLatestDeleteVersion_;
  WrittenKeys writtenKeys_;
  OperationNumber operations_ = 0;
  std::uint64_t answers_ = 0;  ///< number of answers that took effect on a status
  std::optional<RefusedKeys> refusedKeys_;
  mutable std::vector<Asic::ChangeSubscriber*> operationSubscribers_;
};

}  // namespace KilnEmServer
