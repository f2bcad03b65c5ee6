#include "kiln/agent/host/TouchRecord.h"

namespace KilnAgent {

TouchRecord::TouchRecord(MemoryStateStore& store, SoftChip& chip) : store_(store), chip_(chip) {
  store_.observerIs(*this);
  chip_.forEachTable([this](SoftTable& table) { table.watcherIs(*this, true); });
}

TouchRecord::~TouchRecord() {
  chip_.forEachTable([this](SoftTable& table) { table.watcherIs(*this, false); });
  store_.observerDel(*this);
}

void TouchRecord::handleStoreChange(const StoreChange& change) {
  if (overflowed_ || change.record != StoreChange::Record::status) return;
  statuses_.insert({change.feature, change.database, change.key});
  stopIfFull();
}

void TouchRecord::handleUpcomingChange(const KilnEmServer::EmResolvedKey& key,
                                       const KilnEmServer::EmEntry* /*before*/) {
  if (overflowed_) return;
  entries_.insert(key);
  stopIfFull();
}

void TouchRecord::stopIfFull() {
  if (statuses_.size() + entries_.size() <= kMost) return;
  overflowed_ = true;
  statuses_.clear();
  entries_.clear();
}

}  // namespace KilnAgent
