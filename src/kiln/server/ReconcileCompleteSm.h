// Tells the ordered-table layer that the software side is reconciled, and waits until the hardware is, too.
#pragma once

#include <string>
#include <vector>

#include "kiln/platform/Asic.h"
#include "kiln/platform/DependencyStatus.h"
#include "kiln/platform/Ref.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

/// Waits, then is complete; the move happens once. Its reactions run inside the change, since they only look
/// at a flag and record a name.
class ReconcileCompleteSm final : public StageBase {
 public:
  ReconcileCompleteSm(std::string name, Ref<DependencyStatus> dependencyStatus,
                      Ref<Asic::OrderedTableInterface> orderedTableInterface);
  ~ReconcileCompleteSm() override;

  /// To be called once: completes reconciliation and commits the hardware writes.
  void handleInitialized();
  [[nodiscard]] bool done() const { return done_; }
  [[nodiscard]] std::vector<std::string> waitsFor() const override;
  /// It reads no collection.
  [[nodiscard]] bool addReads(std::vector<const void*>& /*collections*/) const override { return true; }
  void noteState(StateDigest& digest) const override;

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

  Ref<DependencyStatus> dependencyStatus_;
  Ref<Asic::OrderedTableInterface> orderedTableInterface_;
  InterfaceReactor interfaceReactor_{*this};
  StatusReactor statusReactor_{*this};
  Ref<const Asic::OrderedTableStatus> status_;
  bool subscribed_ = false;
  bool done_ = false;
};

Ref<ReconcileCompleteSm> reconcileCompleteSmFactory(std::string name, Ref<DependencyStatus> dependencyStatus,
                                                    Ref<Asic::OrderedTableInterface> orderedTableInterface);

}  // namespace KilnEmServer
