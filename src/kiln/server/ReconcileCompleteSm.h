// Tells the ordered-table layer that the software side is reconciled, and waits until the hardware is, too.
#pragma once

#include <string>

#include "kiln/platform/Asic.h"
#include "kiln/platform/DependencyStatus.h"
#include "kiln/platform/Ref.h"
#include "kiln/runtime/stage/StateDigest.h"
#include "kiln/runtime/trace/Trace.h"

namespace KilnEmServer {

using KilnPlatform::DependencyStatus;

/// Waits, then is complete; the move happens once. Its reactions run at once, since all that they do is to
/// look at a flag and to record a name.
class ReconcileCompleteSm final {
 public:
  ReconcileCompleteSm(std::string name, Ref<DependencyStatus> dependencyStatus,
                      Ref<Asic::OrderedTableInterface> orderedTableInterface);
  ~ReconcileCompleteSm();
  ReconcileCompleteSm(const ReconcileCompleteSm&) = delete;
  ReconcileCompleteSm& operator=(const ReconcileCompleteSm&) = delete;

  /// To be called once: completes reconciliation and commits the hardware writes.
  void handleInitialized();
  [[nodiscard]] bool done() const { return done_; }
  void noteState(StateDigest& digest) const {
    digest.add(done_);
    digest.add(status_ != nullptr);
  }

 private:
  struct InterfaceReactor final : Asic::ChangeSubscriber {
    explicit InterfaceReactor(ReconcileCompleteSm& sm) : owner(sm) {}
    void handleChange() override { owner.followStatus(); }
    ReconcileCompleteSm& owner;
  };
  struct StatusReactor final : Asic::ChangeSubscriber {
    explicit StatusReactor(ReconcileCompleteSm& sm) : owner(sm) {}
    void handleChange() override { owner.handlePendingHwWrites(); }
    ReconcileCompleteSm& owner;
  };

  void followStatus();
  void unfollowStatus();
  void handlePendingHwWrites();

  std::string name_;
  Ref<DependencyStatus> dependencyStatus_;
  Ref<Asic::OrderedTableInterface> orderedTableInterface_;
  Tracer tracer_;
  InterfaceReactor interfaceReactor_{*this};
  StatusReactor statusReactor_{*this};
  Ref<const Asic::OrderedTableStatus> status_;
  bool subscribed_ = false;
  bool done_ = false;
};

Ref<ReconcileCompleteSm> reconcileCompleteSmFactory(std::string name, Ref<DependencyStatus> dependencyStatus,
                                                    Ref<Asic::OrderedTableInterface> orderedTableInterface);

}  // namespace KilnEmServer
