// The hardware keys whose writes a table refused, and the times at which they are written again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include "kiln/platform/Ref.h"
#include "kiln/program/TableRoom.h"
#include "kiln/runtime/model/EmTypes.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/LocalState.h"

namespace KilnEmServer {

/// Keeps, in the order of refusal, the hardware keys whose latest write was refused and is still wanted. The
/// first of them is due again each time that an entry left the physical table, and each of them once when
/// reconciliation has completed. They are written on the stage's task, not inside the answer.
class RefusedKeys final : public WorkQueue, private TableRoom::Waiting {
 public:
  /// Callback to write one key again.
  class Retrying {
   public:
    virtual void retry(const EmHwKey& hwKey) = 0;

   protected:
    ~Retrying() = default;
  };

  /// `room` is the room of the physical table.
  RefusedKeys(Stage& stage, Retrying& owner, Ref<TableRoom> room);
  ~RefusedKeys() override { room_->waitingDel(*this); }

  [[nodiscard]] TableRoom& room() { return *room_; }
  /// The moment to pass to add() if a write that is issued now is refused.
  [[nodiscard]] std::uint32_t moment() const { return room_->departures() + completions_; }
  /// The latest write, issued at `moment`, was refused. It is due immediately if an entry left the table, or
  /// reconciliation completed, after that moment.
  void add(const EmHwKey& hwKey, std::uint32_t moment);
  /// The key gets another write or a removal, so its refusal no longer counts.
  void forget(const EmHwKey& hwKey) {
    if (waiting_.size() != 0) [[unlikely]]
      remove(hwKey);
  }
  /// Reconciliation has completed: each waiting key is due once.
  void allDue();

  [[nodiscard]] std::size_t pendingCount() const override;
  [[nodiscard]] Arrival headArrival() const override { return arrival_; }
  void noteState(StateDigest& digest) const override;
  void notePending(PendingDigests& pending) const override {
    if (hasPending()) pending.push_back({arrival_, identity()});
  }

 private:
  using Order = std::uint64_t;

  void handleDeparture() override;
  void handleNext() override;
  void remove(const EmHwKey& hwKey);
  void dueIs();

  /// The waiting keys, listed among the stage's local state.
  class Orders final : public LocalState {
   public:
    explicit Orders(Stage& stage) : LocalState(stage, "refusedKeys") {}
    [[nodiscard]] std::size_t size() const override { return byOrder.size(); }
    void clear() override {
      byOrder.clear();
      orderOf.clear();
    }
    void noteState(StateDigest& digest) const override {
      for (const auto& [order, hwKey] : byOrder) digest.add(hwKey);
    }

    std::map<Order, EmHwKey> byOrder;
    std::map<Order, EmHwKey>::node_type spare;  ///< of the last removed key, reused for the next one
    LocalMap<EmHwKey, Order> orderOf;
  };

  Retrying& owner_;
  Ref<TableRoom> room_;
  std::uint32_t completions_ = 0;  ///< completed reconciliations
  Orders waiting_;
  Order lastOrder_ = 0;
  Order dueUpTo_ = 0;           ///< keys of this order and before are due
  std::size_t departures_ = 0;  ///< each makes one more key due
  PendingKeys<EmHwKey> immediate_;
  Arrival arrival_ = 0;  ///< of the key that has been due longest
};

}  // namespace KilnEmServer
