// The room of one physical table, which the entries of several key types share.
#pragma once

#include <cstdint>
#include <vector>

namespace KilnEmServer {

/// Notifies the writers of a physical table that an entry left the table: there may be room for a refused
/// entry.
class TableRoom {
 public:
  /// A holder of refused entries that wait for room.
  class Waiting {
   public:
    /// An entry left the table. Must not call the table.
    virtual void handleDeparture() = 0;

   protected:
    ~Waiting() = default;
  };

  TableRoom() = default;
  TableRoom(const TableRoom&) = delete;
  TableRoom& operator=(const TableRoom&) = delete;

  /// Adds a holder, which must be removed before it is destroyed.
  void waitingIs(Waiting& waiting) { waiting_.push_back(&waiting); }
  void waitingDel(Waiting& waiting) { std::erase(waiting_, &waiting); }

  /// A removal was answered, or a stored entry was refused and thereby removed.
  void noteDeparture() {
    ++departures_;
    for (Waiting* waiting : waiting_) waiting->handleDeparture();
  }
  /// Number of calls of noteDeparture, modulo 2^32.
  [[nodiscard]] std::uint32_t departures() const { return departures_; }

 private:
  std::vector<Waiting*> waiting_;
  std::uint32_t departures_ = 0;
};

}  // namespace KilnEmServer
