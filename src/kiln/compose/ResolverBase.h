// The base of the resolvers: they find the values that composers request.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/LocalState.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// One per resolver type. A request is answered inside the call that makes it, at least with
/// `resolutionPending`. Composers that request one resolver key share its resolution, which is deleted with
/// the last of their requests.
class ResolverBase : public Stage {
 public:
  /// `className` must outlive the stage.
  ResolverBase(ResolverKeyUnionTag resolverType, Ref<const ResolverConfig> resolverConfig,
               Ref<ResolverStatus> resolverStatus, std::string_view className, std::string name,
               Ref<DependencyStatus> dependencyStatus, StageControl smControl);

  /// Requests the resource and updates the resolution to its present state.
  virtual void makeRequest(const ResolverKey& resolverKey);
  /// Releases the resource and updates the resolution to its present state.
  virtual void deleteRequest(const ResolverKey& resolverKey);
  /// At least one composer uses the resolved value.
  virtual void ackInUse(const ResolverKey& resolverKey);

  [[nodiscard]] ResolverKeyUnionTag resolverType() const { return resolverType_; }
  [[nodiscard]] const ResolverConfig& resolverConfig() const { return *resolverConfig_; }
  [[nodiscard]] const ResolverStatus& resolverStatus() const { return resolverStatus_.entity(); }
  /// Whether a composer has acknowledged the current resolution.
  [[nodiscard]] bool resolutionInUseHas(const ResolverKey& key) const { return resolutionInUse_.has(key); }

  /// A composer's request was added or changed, or removed if it is null.
  void handleRequest(const EmComposerKeyUnionTag& composerType, const ResolverKey& resolverKey,
                     const ResolverRequest* request);
  void makeRequestComposer(const ResolverKey& resolverKey, EmComposerKeyUnionTag composerType);
  void ackInUseComposer(const ResolverKey& resolverKey, EmComposerKeyUnionTag composerType);
  void deleteRequestComposer(const ResolverKey& resolverKey, EmComposerKeyUnionTag composerType);

  // Write the resolution. A change drops the acknowledgement, since composers are notified of it and
  // acknowledge it again. Writing an equal resolution keeps it: no composer is notified, so that it would
  // never be acknowledged again although it is in use.
  void setResolutionPending(const ResolverKey& resolverKey);
  void setResolutionFail(const ResolverKey& resolverKey);
  void setResolutionSuccess(const ResolverKey& resolverKey, std::uint64_t val);
  /// Deletes the resolution together with its acknowledgement.
  void deleteResolutionState(const ResolverKey& resolverKey);

  /// Releases, in slices, what no composer requests. To be called once, when every composer has requested
  /// what it needs: nothing is released before that, since a composer that is still starting may request it
  /// again. On completion `reportAs` is recorded in the dependency status, unless it is empty.
  void sweep(std::string reportAs = {});

  void noteState(StateDigest& digest) const override;

 protected:
  void handleInitialized() override;
  void handleDeleteAll() override;

 private:
  [[nodiscard]] bool requested(const ResolverKey& resolverKey) const;
  void takeOverInUse(const ResolverKey& resolverKey, EmComposerKeyUnionTag composerType,
                     const ResolverRequest& request);
  void setResolution(const ResolutionState& state);
  void runSweep();
  void sweepNext();

  ResolverKeyUnionTag resolverType_;
  Ref<const ResolverConfig> resolverConfig_;
  DirectOutput<ResolverStatus::statusAttr, "resolverStatus"> resolverStatus_;
  bool sweepBegun_ = false;  ///< true once the sweep has begun
  bool sweeping_ = false;
  KilnPlatform::ScanCursor<ResolverKey> sweepCursor_;
  std::string sweepReport_;
  std::unique_ptr<Task> sweepTask_;
  LocalCollection<ResolverKey, KilnPlatform::Unit> resolutionInUse_;
  NestedInput<
      ResolverConfig::resolverComposerConfigAttr, ResolverComposerConfig::resolverRequestAttr,
      "resolverConfig", &ResolverBase::handleRequest,
      "from( resolverConfig.resolverComposerConfig[].resolverRequest[] ): composerType={} resolverKey={} "
      "request={}",
      Reaction::immediate>
      requests_;
};

}  // namespace KilnEmServer
