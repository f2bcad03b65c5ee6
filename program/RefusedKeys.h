// The hardware keys whose writes a table refused, and when they are written again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include "runtime/EmTypes.h"
#include "runtime/Input.h"
#include "runtime/LocalState.h"

namespace KilnEmServer {

/// Remembers, in the order of refusal, the hardware keys whose latest write was refused and is still wanted.
/// The first of them is due again each time that the table has answered a removal, and each of them once when
/// reconciliation has completed. They are written on the stage's task, not inside the answer.
class RefusedKeys final : public OwnWork {
 public:
  /// Told to write one key again.
  class Retrying {
   public:
    virtual void retry(const EmHwKey& hwKey) = 0;

   protected:
    ~Retrying() = default;
  };

  RefusedKeys(Stage& stage, Retrying& owner);

  /// The latest write was refused. With `roomSince` something left the table after it was issued, so that it
  /// is due immediately.
  void add(const EmHwKey& hwKey, bool roomSince);
  /// The key gets another write or a removal, so that the refusal is of no account any more.
  void forget(const EmHwKey& hwKey) {
    if (waiting_.size() != 0) [[unlikely]]
      remove(hwKey);
  }
  /// The table answered a removal.
  void removalAnswered();
  /// Reconciliation has completed: each key that waits is due once.
  void allDue();

  [[nodiscard]] std::size_t pendingCount() const override;
  [[nodiscard]] Arrival headArrival() const override { return arrival_; }

 private:
  using Order = std::uint64_t;

  void handleNext() override;
  void remove(const EmHwKey& hwKey);
  void dueIs();

  /// The keys that wait, listed among the stage's local state.
  class Waiting final : public LocalState {
   public:
    explicit Waiting(Stage& stage) : LocalState(stage, "refusedKeys") {}
    [[nodiscard]] std::size_t size() const override { return byOrder.size(); }
    void clear() override {
      byOrder.clear();
      orderOf.clear();
    }

    std::map<Order, EmHwKey> byOrder;
    LocalMap<EmHwKey, Order> orderOf;
  };

  Retrying& owner_;
  Waiting waiting_;
  Order lastOrder_ = 0;
  Order dueUpTo_ = 0;         ///< keys of this order and before are due
  std::size_t removals_ = 0;  ///< answered; each makes one more key due
  PendingKeys<EmHwKey> immediate_;
  Arrival arrival_ = 0;  ///< of what has been due longest
};

}  // namespace KilnEmServer
