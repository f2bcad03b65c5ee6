#include "kiln/server/ReconcileCompleteSm.h"

#include <memory>
#include <utility>

#include "kiln/platform/Assert.h"

namespace KilnEmServer {

ReconcileCompleteSm::ReconcileCompleteSm(std::string name, Ref<DependencyStatus> dependencyStatus,
                                         Ref<Asic::OrderedTableInterface> orderedTableInterface)
    : StageBase(std::move(name)),
      dependencyStatus_(std::move(dependencyStatus)),
      orderedTableInterface_(std::move(orderedTableInterface)) {
  readEntityIs(orderedTableInterface_.get());
  writtenEntityIs(orderedTableInterface_.get());
}

ReconcileCompleteSm::~ReconcileCompleteSm() {
  unfollowStatus();
  if (subscribed_) orderedTableInterface_->unsubscribe(interfaceReactor_);
}

void ReconcileCompleteSm::handleInitialized() {
  const KilnPlatform::RunningStageScope scope(name());
  orderedTableInterface_->reconcileComplete();
  orderedTableInterface_->commitHwWrites();
  orderedTableInterface_->subscribe(interfaceReactor_);
  subscribed_ = true;
  followStatus();
}

void ReconcileCompleteSm::unfollowStatus() {
  if (status_ != nullptr) status_->unsubscribe(statusReactor_);
  status_.reset();
}

void ReconcileCompleteSm::followStatus() {
  unfollowStatus();
  status_ = orderedTableInterface_->status();
  if (status_ != nullptr) status_->subscribe(statusReactor_);
  handlePendingHwWrites();
}

void ReconcileCompleteSm::handlePendingHwWrites() {
  if (done_) return;
  if (status_ != nullptr && status_->pendingHwWrites()) {
    tracer().trace<9>("Reconciliation waits for hardware writes");
    return;
  }
  tracer().trace<9>("Reconciliation complete");
  done_ = true;
  dependencyStatus_->completedIs(name());
}

std::vector<std::string> ReconcileCompleteSm::waitsFor() const {
  if (done_) return {};
  return {"hardware writes"};
}

void ReconcileCompleteSm::noteState(StateDigest& digest) const {
  digest.begin(name());
  digest.add(done_);
  digest.add(status_ != nullptr);
}

Ref<ReconcileCompleteSm> reconcileCompleteSmFactory(std::string name, Ref<DependencyStatus> dependencyStatus,
                                                    Ref<Asic::OrderedTableInterface> orderedTableInterface) {
  auto sm = std::make_shared<ReconcileCompleteSm>(std::move(name), std::move(dependencyStatus),
                                                  std::move(orderedTableInterface));
  sm->handleInitialized();
  return sm;
}

}  // namespace KilnEmServer
