// The base of the composers whose hardware keys need a value from a resolver.
//
// A composer requests a resource under a resolver key as soon as one requested logical key needs it. It
// composes the hardware keys once the resource is resolved, and acknowledges the resolved value when the
// hardware outcome of every logical key that uses it is known. It releases the resource when no requested key
// needs it and no trace is left of the keys that needed it: no hardware status, and no entry that a table
// holds or may still write.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "kiln/compose/Departures.h"
#include "kiln/runtime/collections/PendingKeys.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/LocalState.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/PlacedKeys.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// The logical keys of one composer that use one resolver key, and their progress. Never empty.
class ResolverEmLogicalKeyColl {
 public:
  /// `places` has the positions of the logical keys of all resolver keys of the same type.
  ResolverEmLogicalKeyColl(const ResolverKey& resolverKey, KeyPlaces<EmLogicalKey>& places)
      : resolverKey_(resolverKey), emLogicalKeySet_(places) {}
  [[nodiscard]] const ResolverKey& resolverKey() const { return resolverKey_; }
  [[nodiscard]] const PlacedKeys<EmLogicalKey>& emLogicalKeySet() const { return emLogicalKeySet_; }
  [[nodiscard]] PlacedKeys<EmLogicalKey>& emLogicalKeySet() { return emLogicalKeySet_; }

  /// Keys of the set that are resolved and wait for their hardware outcome.
  std::size_t outcomesAwaited = 0;
  /// Keys of the set whose hardware outcome is known.
  std::size_t outcomesKnown = 0;
  /// The resolution with which every key of the set was handled; none while a change of it is being handled.
  std::optional<ResolutionState> handled;
  /// The epoch in which the composer last told the resolver that the resolution is in use. A change of the
  /// resolution begins a new epoch.
  std::optional<std::uint64_t> inUseSince;

  /// Without the epoch, which the composer compares.
  void noteState(StateDigest& digest) const {
    digest.add(std::tie(outcomesAwaited, outcomesKnown, handled));
    digest.walked([&](auto&& item) {
      KilnPlatform::ScanCursor<EmLogicalKey> cursor;
      while (const EmLogicalKey* emKey = emLogicalKeySet_.scanNext(cursor)) item(*emKey);
    });
  }

 private:
  ResolverKey resolverKey_;
  PlacedKeys<EmLogicalKey> emLogicalKeySet_;
};

/// One per composer type that needs resolution. The base serves any number of resolver types; the derived
/// class defines which ones, and how a key is composed.
class ComposerSm : public Stage, private Departures::Composer {
 public:
  /// `className` must outlive the stage.
  ComposerSm(EmComposerKeyUnionTag composerType, EmResolvedKeyUnionTag emResolvedKeyType,
             Ref<const EmLogicalKeyConfig> emLogicalKeyConfig, Ref<SwTableKeyConfig> swTableKeyConfig,
             Ref<const ResolvedKeyStatus> resolvedKeyStatus, Ref<ResolverConfigDir> resolverConfigDir,
             Ref<const ResolverStatusDir> resolverStatusDir, std::string_view className, std::string name,
             Ref<DependencyStatus> dependencyStatus, StageControl smControl,
             Ref<EmComposeFailure> emComposeFailure, KeyTraces traces = {});

  /// Whether this composer uses resources of that type.
  [[nodiscard]] virtual bool isSupportedResolverType(ResolverKeyUnionTag resolverType) const;
  /// The resolver key under which the logical key's resource is requested: a function of the key alone.
  [[nodiscard]] virtual ResolverKey getResolverKey(ResolverKeyUnionTag resolverType,
                                                   const EmLogicalKey& emLogicalKey) const;
  /// The hardware key of a logical key whose resources are all resolved. Throws std::range_error if a field
  /// does not fit the hardware's width.
  [[nodiscard]] virtual EmHwKey composeKey(const EmLogicalKey& emLogicalKey) const;

  [[nodiscard]] EmComposerKeyUnionTag composerType() const { return composerType_; }
  [[nodiscard]] EmResolvedKeyUnionTag emResolvedKeyType() const { return emResolvedKeyType_; }
  /// The composer's epoch: grows with each change of a resolution.
  [[nodiscard]] std::uint64_t inUseVer() const { return inUseVer_; }
  void inUseVerInc(std::uint64_t n) { inUseVer_ += n; }

  [[nodiscard]] bool emLogicalKeyStateHas(const EmLogicalKey& emLogicalKey) const;
  [[nodiscard]] std::optional<EmLogicalKeyState> emLogicalKeyState(const EmLogicalKey& emLogicalKey) const;
  /// The logical keys that use a resolver key, or null.
  [[nodiscard]] Ref<const ResolverEmLogicalKeyColl> resolverKeyToEmLogicalKey(const ResolverKey& key) const;

  /// The logical key was requested or withdrawn, or one of its resolutions changed.
  void handleRequest(const EmLogicalKey& emLogicalKey);
  /// Adds the logical key to those that use the resolver key, or removes it.
  void updateResolverToEmKeyColl(const ResolverKey& resolverKey, const EmLogicalKey& emLogicalKey, bool add);
  /// Composes a requested key whose resources are resolved; deletes any other key's hardware key.
  void maybeComposeKey(const EmLogicalKey& emLogicalKey);
  /// The least of the key's resolution states; success if it needs no resource.
  [[nodiscard]] ResolutionState::State getResolutionState(const EmLogicalKey& emLogicalKey) const;
  /// The resolved value of a resource whose resolution succeeded; anything else is an assertion failure.
  [[nodiscard]] std::uint64_t getResult(ResolverKeyUnionTag resolverType,
                                        const EmLogicalKey& emLogicalKey) const;
  /// Brings the key's state in line with its hardware status, then acknowledges or releases its resources.
  void handleStatus(const EmLogicalKey& emLogicalKey);
  /// Acknowledges the resolved value unless a key still waits for its hardware outcome.
  void maybeAckInUse(const ResolverKey& resolverKey, ResolverKeyUnionTag resolverType);
  /// A resolution changed: every logical key that uses it is handled again, in slices.
  void handleResourceUpdate(const ResolverKey& resolverKey, ResolverKeyUnionTag resolverType,
                            const ResolutionState* state);

  void noteState(StateDigest& digest) const override;
  /// Without the collections that the departures' task reads.
  [[nodiscard]] bool addReads(std::vector<const void*>& collections) const override;

 protected:
  void handleInitialized() override;

 private:
  using State = EmLogicalKeyState::State;

  /// The resolver keys whose change is being handled. One of them is walked at a time, with one logical key
  /// per item. The walk stays valid when its own handlers change the set.
  class ResourceWalk final : public WorkQueue {
   public:
    explicit ResourceWalk(ComposerSm& composer);
    /// Queues another walk over the resolver key's logical keys. A change of a resolution is handled after
    /// the walk that arrived before it.
    void add(const ResolverKey& resolverKey);

    [[nodiscard]] std::size_t pendingCount() const override { return waiting_.size() + (current_ ? 1 : 0); }
    [[nodiscard]] Arrival headArrival() const override {
      return current_ ? arrival_ : waiting_.headArrival();
    }
    void noteState(StateDigest& digest) const override;
    void notePending(PendingDigests& pending) const override;

   private:
    void handleNext() override;

    ComposerSm& composer_;
    PendingKeys<ResolverKey> waiting_;
    std::optional<ResolverKey> current_;
    Arrival arrival_ = 0;
    KilnPlatform::ScanCursor<EmLogicalKey> cursor_;
    std::optional<ResolutionState> state_;  ///< the resolution when the walk began
  };

  /// The requests of this composer to the resolvers. The deletion scan releases what an earlier composer
  /// requested and is no longer needed. Nothing is counted, since the server creates composers over new
  /// requests. No deletion is held back: until the sweep the resolver releases nothing, so a resource that is
  /// requested again still exists.
  class RequestedResources final : public OutputBase {
   public:
    RequestedResources(ComposerSm& composer, Ref<ResolverConfigDir> resolverConfigDir);

    /// The types of the resolvers that exist.
    [[nodiscard]] const std::vector<ResolverKeyUnionTag>& resolverTypes() const;
    /// The requests to a type's resolver; null before the first one.
    [[nodiscard]] const ResolverComposerConfig* of(ResolverKeyUnionTag resolverType) const;
    /// Requests the resource, unless it is requested already.
    void request(const ResolverKey& resolverKey);
    /// Tells the resolver that the value is in use, in this epoch of the composer.
    void acknowledge(const ResolverKey& resolverKey, ResolverKeyUnionTag resolverType, std::uint64_t value,
                     std::uint64_t epoch);
    /// Releases the resource. True if it was requested.
    bool release(const ResolverKey& resolverKey);

    void checkArgument() const override;
    bool deleteNext() override;
    void addReads(std::vector<const void*>& collections) const override;
    [[nodiscard]] std::size_t size() const override;
    void noteState(StateDigest& digest) const override;
    /// The resolvers' collections are described by the resolvers.
    void noteContent(StateDigest& /*digest*/) const override {}

   private:
    void beginSeen() override { rewind(); }
    bool deletionScanItem(bool& deleted) override;
    [[nodiscard]] std::size_t seenCount() const override { return 0; }
    void forgetNextSeen() override {}
    void endSeen() override {}
    /// The next resource of a walk over the requested ones.
    std::optional<ResolverKey> next();
    void rewind();

    /// This composer's requests to a type's resolver, created with the first one.
    [[nodiscard]] ResolverComposerConfig& obtain(ResolverKeyUnionTag resolverType);

    ComposerSm& composer_;
    Ref<ResolverConfigDir> resolverConfigDir_;
    mutable std::vector<ResolverKeyUnionTag> resolverTypes_;
    std::size_t type_ = 0;  ///< index of the resolver type whose resources are walked
    KilnPlatform::ScanCursor<ResolverKey> cursor_;
  };

  void handleRequestChange(const EmLogicalKey& emKey, const KilnPlatform::Unit* unitOpt);
  [[nodiscard]] bool isLeaving(const EmLogicalKey& emKey) const { return departures_.has(emKey); }
  [[nodiscard]] KilnPlatform::PartitionSet<EmLogicalKey> ownKeys() const {
    return partitionsOfTypes([this](EmComposerKeyUnionTag type) { return type == composerType_; });
  }
  void handleWritten(const EmLogicalKey& emKey, const std::uint32_t* hwKeysOpt);
  void handleStatusChange(const EmLogicalKey& emKey, const EmHwKeyStatus* statusOpt);
  void handleResolution(const ResolverKeyUnionTag& resolverType, const ResolverKey& resolverKey,
                        const ResolutionState* state);

  [[nodiscard]] bool requested(const EmLogicalKey& emKey) const override {
    return emLogicalKeyConfig_.find(emKey) != nullptr;
  }
  [[nodiscard]] bool hasHwStatus(const EmLogicalKey& emKey) const override {
    return resolvedKeyStatus_.find(emKey) != nullptr;
  }
  void handleDeparted(const EmLogicalKey& emKey) override;
  /// The hardware key that was composed for a requested key, or null.
  [[nodiscard]] const EmHwKey* composedKey(const EmLogicalKey& emKey) const;
  [[nodiscard]] const ResolutionState* resolution(const ResolverKey& resolverKey) const;
  /// The types for which a directory has an entity; entities are never removed. `known` caches the last
  /// result.
  template <class Directory>
  static const std::vector<ResolverKeyUnionTag>& typesOf(const Directory& directory,
                                                         std::vector<ResolverKeyUnionTag>& known);
  template <class Visitor>
  void forEachResolverKey(const EmLogicalKey& emKey, Visitor&& visit) const;

  void withdraw(const EmLogicalKey& emKey);
  /// Counts one more, or one less, leaving key that used each of the key's resources.
  void countLeaving(const EmLogicalKey& emKey, bool more);
  /// The positions of the logical keys that use resources of a type, each within the set of its resolver key.
  KeyPlaces<EmLogicalKey>& placesOf(ResolverKeyUnionTag resolverType);
  /// Releases the resource unless it is needed; true if it did.
  bool releaseUnused(const ResolverKey& resolverKey);
  bool compose(const EmLogicalKey& emKey);
  void resourceUpdateHandled(const ResolverKey& resolverKey, const std::optional<ResolutionState>& state);
  void emLogicalKeyStateIs(const EmLogicalKey& emKey, State state);
  void emLogicalKeyStateDel(const EmLogicalKey& emKey);
  /// Updates the counts of the key's sets when its state changes from `from` to `to`; null is no state.
  void countState(const EmLogicalKey& emKey, const State* from, const State* to);

  EmComposerKeyUnionTag composerType_;
  EmResolvedKeyUnionTag emResolvedKeyType_;
  Ref<const ResolverStatusDir> resolverStatusDir_;
  mutable std::vector<ResolverKeyUnionTag> resolverStatusTypes_;
  std::uint64_t inUseVer_ = 0;

  std::map<ResolverKeyUnionTag, KeyPlaces<EmLogicalKey>> places_;
  LocalCollection<ResolverKey, Ref<ResolverEmLogicalKeyColl>> resolverKeyToEmLogicalKey_;
  LocalCollection<EmLogicalKey, State> emLogicalKeyState_;
  /// Withdrawn keys that may have left traces, and how many of them used a resolver key.
  Departures departures_;
  LocalCollection<ResolverKey, std::size_t> leavingCount_;

  Input<EmLogicalKeyConfig::requestAttr, "emLogicalKeyConfig", &ComposerSm::handleRequestChange,
        "from( emLogicalKeyConfig.request[] ): emLogicalKey={} unitOpt={}">
      emLogicalKeyConfig_;
  Input<ResolvedKeyStatus::resolvedKeyStatusAttr, "resolvedKeyStatus", &ComposerSm::handleStatusChange,
        "from( resolvedKeyStatus.resolvedKeyStatus[] ): emLogicalKey={} statusOpt={}">
      resolvedKeyStatus_;
  std::optional<Input<EmWrittenKeys::writtenAttr, "emWrittenKeys", &ComposerSm::handleWritten,
                      "from( emWrittenKeys.written[] ): emLogicalKey={} hwKeysOpt={}", Reaction::queued,
                      &ComposerSm::ownKeys, &ComposerSm::isLeaving>>
      emWrittenKeys_;
  NestedInput<ResolverStatusDir::resolverStatusAttr, ResolverStatus::statusAttr, "resolverStatusDir",
              &ComposerSm::handleResolution,
              "from( resolverStatusDir.resolverStatus[].status[] ): resolverType={} resolverKey={} state={}">
      resolverStatuses_;
  ResourceWalk resourceWalk_;
  RequestedResources requestedResources_;
  Output<SwTableKeyConfig::emLogicalKeyToResolvedKeyAttr, "swTableKeyConfig", "emLogicalKey">
      swTableKeyConfig_;
  Output<EmComposeFailure::failureAttr, "emComposeFailure", "emLogicalKey"> emComposeFailure_;
};

}  // namespace KilnEmServer
