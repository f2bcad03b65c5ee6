// FAP capacity check: which entries fit into the memory of the FAPs.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "kiln/platform/Hardware.h"
#include "kiln/platform/Ref.h"
#include "kiln/runtime/model/EmTypes.h"

namespace KilnAgent {

using KilnPlatform::Ref;

class SoftTable;

/// The physical tables that the FAPs' MDB profiles describe. Several key types share one, differently on each
/// type of FAP. An entry is stored on all FAPs, so the FAP with the least room decides. A FAP without a
/// profile, and a physical table that a profile lacks, limit nothing. Neither do external users, which the
/// chip does not know.
class MdbRoom final : private KilnPlatform::KeySubscriber<Hardware::Kiln::FapId>,
                      private KilnPlatform::KeySubscriber<std::uint32_t> {
 public:
  using Tag = KilnEmServer::EmResolvedKeyUnionTag;

  MdbRoom(Ref<const Hardware::Kiln::Status> chip, Ref<const Hardware::Kiln::MdbStatus> mdb);
  ~MdbRoom();
  MdbRoom(const MdbRoom&) = delete;
  MdbRoom& operator=(const MdbRoom&) = delete;

  /// Registers the table of a key type; to be called once for each. The table must outlive all calls of
  /// hasRoom.
  void tableIs(Tag tag, const SoftTable& table) { tables_[tag] = &table; }
  /// Whether every FAP has room for one more entry of a key type.
  [[nodiscard]] bool hasRoom(Tag tag);
  /// Subscribes to FAPs and profiles; to be called again after all subscriptions to them were dropped.
  void subscribe();

 private:
  /// A physical table, with the key types that share it and the width of their entries, in 60-bit units.
  struct Pool {
    std::uint32_t max = 0;
    std::vector<std::pair<const SoftTable*, std::uint32_t>> shares;
    friend bool operator==(const Pool&, const Pool&) = default;
  };

  void handleChange(const Hardware::Kiln::FapId& /*fapId*/) override { poolsKnown_ = false; }
  void handleChange(const std::uint32_t& /*profileId*/) override { poolsKnown_ = false; }
  void findPools();
  void addPools(Hardware::Kiln::FapType fapType, const KilnMdb::ProfileCapabilities& profile);

  Ref<const Hardware::Kiln::Status> chip_;
  Ref<const Hardware::Kiln::MdbStatus> mdb_;
  KilnEmServer::ByKeyType<const SoftTable*> tables_;
  KilnEmServer::ByKeyType<std::vector<Pool>> pools_;  ///< the pools of each key type's entries
  bool poolsKnown_ = false;
};

}  // namespace KilnAgent
