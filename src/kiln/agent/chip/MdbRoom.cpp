#include "kiln/agent/chip/MdbRoom.h"

#include <algorithm>

#include "kiln/agent/chip/SoftTable.h"
#include "kiln/status/SemCapacitySm.h"

namespace KilnAgent {

MdbRoom::MdbRoom(Ref<const Hardware::Kiln::Status> chip, Ref<const Hardware::Kiln::MdbStatus> mdb)
    : chip_(std::move(chip)), mdb_(std::move(mdb)) {
  subscribe();
}

MdbRoom::~MdbRoom() {
  chip_->fap().unsubscribe(*this);
  mdb_->profileId().unsubscribe(*this);
  mdb_->profile().unsubscribe(*this);
}

void MdbRoom::subscribe() {
  chip_->fap().subscribe(*this);
  mdb_->profileId().subscribe(*this);
  mdb_->profile().subscribe(*this);
}

bool MdbRoom::hasRoom(Tag tag) {
  if (!poolsKnown_) findPools();
  const auto& pools = pools_[tag];
  // A key type outside the MDB has no pool.
  return std::all_of(pools.begin(), pools.end(), [tag](const Pool& pool) {
    std::uint64_t units = KilnEmServer::entryWidth60Bit(tag);
    for (const auto& [table, width] : pool.shares) units += table->fill() * std::uint64_t{width};
    return units <= pool.max;
  });
}

void MdbRoom::findPools() {
  for (auto& pools : pools_) pools.clear();
  KilnPlatform::forEachIn(chip_->fap(),
                          [this](const Hardware::Kiln::FapId& fapId, const Hardware::Kiln::FapInfo& info) {
                            const std::uint32_t* id = mdb_->profileId().find(fapId);
                            const auto* profile = id == nullptr ? nullptr : mdb_->profile().find(*id);
                            if (profile != nullptr) addPools(info.fapType, *profile);
                          });
  poolsKnown_ = true;
}

void MdbRoom::addPools(Hardware::Kiln::FapType fapType, const KilnMdb::ProfileCapabilities& profile) {
  const auto isIn = [&](const KilnEmServer::KeyTypeInfo& type, KilnMdb::PhysicalTableId table) {
    return type.memory != KilnEmServer::TableMemory::none &&
           KilnEmServer::physicalTableIdForKeyType(type.tag, fapType) == table;
  };
  for (const KilnMdb::TableCapabilities& table : profile.tables) {
    if (!table.exactMatch) continue;
    Pool pool;
    for (const auto& [width, entries] : table.entriesByWidth) {
      if (width == 60) pool.max = entries;
    }
    for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
      if (isIn(type, table.table)) pool.shares.emplace_back(tables_[type.tag], type.width60Bit);
    }
    for (const KilnEmServer::KeyTypeInfo& type : KilnEmServer::kKeyTypeInfo) {
      auto& pools = pools_[type.tag];
      if (isIn(type, table.table) && std::find(pools.begin(), pools.end(), pool) == pools.end()) {
        pools.push_back(pool);  // once for all FAPs with the same pools
      }
    }
  }
}

}  // namespace KilnAgent
