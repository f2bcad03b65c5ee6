#include "kiln/compose/ResolverBase.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

namespace KilnEmServer {

using KilnPlatform::forEachIn;

ResolverBase::ResolverBase(ResolverKeyUnionTag resolverType, Ref<const ResolverConfig> resolverConfig,
                           Ref<ResolverStatus> resolverStatus, std::string_view className, std::string name,
                           Ref<DependencyStatus> dependencyStatus, StageControl smControl)
    : Stage(className, std::move(name), std::move(dependencyStatus), std::move(smControl),
            "from( this.ready )"),
      resolverType_(resolverType),
      resolverConfig_(std::move(resolverConfig)),
      resolverStatus_(*this, std::move(resolverStatus)),
      resolutionInUse_(*this, "ResolverBase.resolutionInUse"),
      requests_(*this, resolverConfig_) {}

void ResolverBase::makeRequest(const ResolverKey& /*resolverKey*/) {
  throw std::logic_error("Must implement in child");
}

void ResolverBase::deleteRequest(const ResolverKey& /*resolverKey*/) {
  throw std::logic_error("Must implement in child");
}

void ResolverBase::ackInUse(const ResolverKey& /*resolverKey*/) {}

void ResolverBase::handleInitialized() {
  tracer().trace<8>("handleInitialized");
  KILN_ASSERT(resolverConfig_->resolverType() == resolverType_);
  KILN_ASSERT(resolverStatus().resolverType() == resolverType_);
}

void ResolverBase::handleDeleteAll() {
  sweepTask_.reset();
}

void ResolverBase::handleRequest(const EmComposerKeyUnionTag& composerType, const ResolverKey& resolverKey,
                                 const ResolverRequest* request) {
  tracer().trace<8>("handleRequest {} {}", composerType, resolverKey);
  if (request == nullptr) {
    tracer().trace<9>("Del");
    deleteRequestComposer(resolverKey, composerType);
    return;
  }
  switch (request->requestType) {
    case ResolverRequest::RequestType::resourceRequest:
      makeRequestComposer(resolverKey, composerType);
      return;
    case ResolverRequest::RequestType::resourceInUse:
      if (initialScanDone()) {
        ackInUseComposer(resolverKey, composerType);
      } else {
        takeOverInUse(resolverKey, composerType, *request);
      }
      return;
  }
  KILN_ASSERT_MESSAGE(false, "Unexpected request {}", static_cast<int>(request->requestType));
}

// A request that is older than this resolver may have been acknowledged for a resolution that no longer
// exists.
void ResolverBase::takeOverInUse(const ResolverKey& resolverKey, EmComposerKeyUnionTag composerType,
                                 const ResolverRequest& request) {
  makeRequestComposer(resolverKey, composerType);
  const ResolutionState* status = resolverStatus().status().find(resolverKey);
  if (status->state == ResolutionState::resolutionSuccess_ && status->val == request.inUseVal) {
    ackInUseComposer(resolverKey, composerType);
  }
}

void ResolverBase::makeRequestComposer(const ResolverKey& resolverKey, EmComposerKeyUnionTag composerType) {
  tracer().trace<8>("makeRequestComposer {} {}", resolverKey, composerType);
  if (resolverStatus_.has(resolverKey)) return;
  resolverStatus_.insert(resolverKey, {resolverKey, ResolutionState::resolutionPending_, 0});
  makeRequest(resolverKey);
}

void ResolverBase::ackInUseComposer(const ResolverKey& resolverKey, EmComposerKeyUnionTag composerType) {
  tracer().trace<8>("ackInUseComposer {} {}", resolverKey, composerType);
  const ResolutionState* status = resolverStatus().status().find(resolverKey);
  KILN_ASSERT_MESSAGE(status != nullptr, "resolverStatus()->statusHas( resolverKey )");
  KILN_ASSERT_MESSAGE(status->state == ResolutionState::resolutionSuccess_,
                      "status.state() == ResolutionState::resolutionSuccess_");
  resolutionInUse_.is(resolverKey, {});
  ackInUse(resolverKey);
}

void ResolverBase::deleteRequestComposer(const ResolverKey& resolverKey, EmComposerKeyUnionTag composerType) {
  tracer().trace<8>("deleteRequestComposer {} {}", resolverKey, composerType);
  resolutionInUse_.del(resolverKey);
  if (!requested(resolverKey)) {
    if (sweepBegun_) deleteRequest(resolverKey);
    return;
  }
  const ResolutionState* status = resolverStatus().status().find(resolverKey);
  if (status == nullptr || status->state != ResolutionState::resolutionSuccess_) return;
  // The acknowledgement of a remaining composer counts only for the current value.
  forEachIn(resolverConfig_->resolverComposerConfig(),
            [&](EmComposerKeyUnionTag remaining, const auto& config) {
              const ResolverRequest* request = config->resolverRequest().find(resolverKey);
              if (request != nullptr && request->requestType == ResolverRequest::RequestType::resourceInUse &&
                  request->inUseVal == status->val) {
                tracer().trace<8>("still in use by {}", remaining);
                ackInUseComposer(resolverKey, remaining);
              }
            });
}

bool ResolverBase::requested(const ResolverKey& resolverKey) const {
  bool found = false;
  forEachIn(resolverConfig_->resolverComposerConfig(),
            [&](EmComposerKeyUnionTag /*type*/, const auto& config) {
              found = found || config->resolverRequestHas(resolverKey);
            });
  return found;
}

void ResolverBase::setResolution(const ResolutionState& state) {
  const ResolutionState* present = resolverStatus_.find(state.resolverKey);
  if (present != nullptr && *present == state) return;
  if (resolutionInUse_.has(state.resolverKey)) {
    tracer().trace<8>("to be acknowledged anew: {}", state.resolverKey);
    resolutionInUse_.del(state.resolverKey);
  }
  resolverStatus_.insert(state.resolverKey, state);
}

void ResolverBase::setResolutionPending(const ResolverKey& resolverKey) {
  tracer().trace<8>("setResolutionPending {}", resolverKey);
  setResolution({resolverKey, ResolutionState::resolutionPending_, 0});
}

void ResolverBase::setResolutionFail(const ResolverKey& resolverKey) {
  tracer().trace<8>("setResolutionFail {}", resolverKey);
  setResolution({resolverKey, ResolutionState::resolutionFail_, 0});
}

void ResolverBase::setResolutionSuccess(const ResolverKey& resolverKey, std::uint64_t val) {
  tracer().trace<8>("setResolutionSuccess {} {}", resolverKey, val);
  setResolution({resolverKey, ResolutionState::resolutionSuccess_, val});
}

void ResolverBase::deleteResolutionState(const ResolverKey& resolverKey) {
  tracer().trace<8>("deleteResolutionState {}", resolverKey);
  resolutionInUse_.del(resolverKey);
  resolverStatus_.erase(resolverKey);
}

void ResolverBase::sweep(std::string reportAs) {
  sweepBegun_ = true;
  sweepReport_ = std::move(reportAs);
  sweepTask_ = std::make_unique<Task>(
      control().scheduler, control().priority, fmt::format("{}-SweepTask", className()),
      [](void* owner) { static_cast<ResolverBase*>(owner)->runSweep(); }, this, 0, name());
  sweeping_ = true;
  sweepCursor_ = {};
  runSweep();
}

void ResolverBase::runSweep() {
  const KilnPlatform::RunningStageScope scope(name());
  control().runSlice(
      *sweepTask_, [&] { return sweeping_; }, [&] { sweepNext(); },
      [&] { return resolverStatus().status().size(); });
  if (sweeping_) return;
  sweepTask_.reset();
  if (!sweepReport_.empty()) dependencyStatus().completedIs(sweepReport_);
}

void ResolverBase::sweepNext() {
  const ResolverKey* next = resolverStatus().status().scanNext(sweepCursor_);
  sweeping_ = next != nullptr;
  if (!sweeping_ || requested(*next)) return;
  const ResolverKey resolverKey = *next;
  tracer().trace<8>("sweep");
  resolutionInUse_.del(resolverKey);
  deleteRequest(resolverKey);
}

void ResolverBase::noteState(StateDigest& digest) const {
  Stage::noteState(digest);
  digest.add(sweepBegun_);
  digest.add(sweeping_);
  if (sweeping_) digest.addLeft(resolverStatus().status(), sweepCursor_);
}

}  // namespace KilnEmServer
