#include "program/EmSwTableWriterSm.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include "program/ConflictKeySet.h"

namespace KilnEmServer {

EmSwTableWriterSm::EmSwTableWriterSm(EmResolvedKeyUnionTag emResolvedKeyType,
                                     Ref<const EmSwTableConfig> emSwTableConfig,
                                     Ref<EmSwTableStatus> emSwTableStatus, std::string name,
                                     Ref<DependencyStatus> dependencyStatus, StageControl control)
    : Stage("EmSwTableWriterSm", std::move(name), std::move(dependencyStatus), std::move(control),
            "from( this.ready )"),
      emResolvedKeyType_(emResolvedKeyType),
      emSwTableConfig_(*this, std::move(emSwTableConfig)),
      leftStatus_(*this, emSwTableStatus),
      emSwTableStatus_(std::move(emSwTableStatus)),
      keyLatestWriteVersion_(*this, "keyLatestWriteVersion"),
      keyLatestDeleteVersion_(*this, "keyLatestDeleteVersion") {
  KeySpace<EmHwKey>::instance().followerIs(*this);
}

EmSwTableWriterSm::~EmSwTableWriterSm() {
  KeySpace<EmHwKey>::instance().followerDel(*this);
}

void EmSwTableWriterSm::writeTableEntry(const EmHwKey& /*hwKey*/, const EmEntry& /*entry*/,
                                        ResponseHandler /*handler*/) {
  throw std::logic_error("Must implement in child");
}

void EmSwTableWriterSm::deleteTableEntry(const EmHwKey& /*hwKey*/, ResponseHandler /*handler*/) {
  throw std::logic_error("Must implement in child");
}

std::uint32_t EmSwTableWriterSm::numEntries(Hardware::Kiln::FapId /*fapId*/,
                                            Hardware::Kiln::LocalCoreId /*localCoreId*/) const {
  throw std::logic_error("Must implement in child");
}

void EmSwTableWriterSm::handleInitialized() {
  KILN_ASSERT_MESSAGE(emResolvedKeyType() != EmResolvedKeyUnionTag::undefined_,
                      "emResolvedKeyType() != EmResolvedKeyUnionTag::undefined_");
  tracer().trace<8>("{}", name());
}

void EmSwTableWriterSm::handleDeleteAll() {
  std::vector<EmHwKey> written;
  KilnPlatform::forEachIn(emSwTableStatus_->status(), [&](const EmHwKey& hwKey, const EmSwTableStatusEntry&) {
    if (isOwn(hwKey)) written.push_back(hwKey);
  });
  for (const EmHwKey& hwKey : written) emSwTableStatus_->statusDel(hwKey);
}

// --- Requests ----------------------------------------------------------------------------------------------

void EmSwTableWriterSm::handleRequest(const EmHwKey& hwKey, const EmLogicalKeyAndEntry* logicalKeyAndEntry) {
  if (!isOwn(hwKey)) return;
  if (!fapCoreConvergent(hwKey)) {
    handleDivergent(hwKey, logicalKeyAndEntry);
  } else if (logicalKeyAndEntry == nullptr) {
    requestDelete(hwKey);
  } else {
    requestWrite(hwKey, *logicalKeyAndEntry);
  }
}

void EmSwTableWriterSm::handleLeftStatus(const EmHwKey& hwKey, const EmSwTableStatusEntry* status) {
  if (status != nullptr && emSwTableConfig_.find(hwKey) == nullptr) handleRequest(hwKey, nullptr);
}

// The tables hold convergent entries only. The winner that asked for just this chip and core is told that it
// failed; one that stands here for its convergent twin has its status there.
void EmSwTableWriterSm::handleDivergent(const EmHwKey& hwKey,
                                        const EmLogicalKeyAndEntry* logicalKeyAndEntry) {
  if (logicalKeyAndEntry != nullptr && logicalKeyAndEntry->emLogicalKey.fapId == hwKey.fapId &&
      logicalKeyAndEntry->emLogicalKey.localCoreId == hwKey.localCoreId) {
    writeStatus(hwKey, *logicalKeyAndEntry, EmHwKeyStatus::State::hwFail);
  } else {
    emSwTableStatus_->statusDel(hwKey);
  }
}

void EmSwTableWriterSm::requestDelete(const EmHwKey& hwKey) {
  const std::uint32_t version = keyLatestDeleteVersion_.issue(hwKey);
  tracer().trace<9>("{} del {}", name(), hwKey);
  try {
    deleteTableEntry(hwKey, [writer = weak_from_this(), hwKey, version](const EntryHandleRef& handle) {
      if (const auto self = writer.lock()) self->handleDeleteResponse(handle->entryState(), hwKey, version);
    });
  } catch (const std::range_error& error) {
    tracer().trace<0>("{}: delete of {} reached no table: {}", name(), hwKey, std::string_view(error.what()));
    handleDeleteResponse(Asic::SwTableBase::success(), hwKey, version);
  }
}

void EmSwTableWriterSm::requestWrite(const EmHwKey& hwKey, const EmLogicalKeyAndEntry& logicalKeyAndEntry) {
  const std::uint32_t version = keyLatestWriteVersion_.issue(hwKey);
  tracer().trace<9>("{} add {}", name(), hwKey);
  try {
    writeTableEntry(
        hwKey, logicalKeyAndEntry.emEntry.emEntry,
        [writer = weak_from_this(), hwKey, logicalKeyAndEntry, version](const EntryHandleRef& handle) {
          if (const auto self = writer.lock())
            self->handleWriteResponse(handle->entryState(), hwKey, logicalKeyAndEntry, version);
        });
  } catch (const std::range_error& error) {
    tracer().trace<0>("{}: write of {} reached no table: {}", name(), hwKey, std::string_view(error.what()));
    removeUnwritable(hwKey, logicalKeyAndEntry, version);
  }
}

// What an earlier write left under the key is wanted no more.
void EmSwTableWriterSm::removeUnwritable(const EmHwKey& hwKey, const EmLogicalKeyAndEntry& logicalKeyAndEntry,
                                         std::uint32_t version) {
  try {
    deleteTableEntry(hwKey, [writer = weak_from_this(), hwKey, logicalKeyAndEntry,
                             version](const EntryHandleRef& /*handle*/) {
      if (const auto self = writer.lock())
        self->handleWriteResponse(EntryState::refused_, hwKey, logicalKeyAndEntry, version);
    });
  } catch (const std::range_error&) {
    handleWriteResponse(EntryState::refused_, hwKey, logicalKeyAndEntry, version);
  }
}

// --- Answers -----------------------------------------------------------------------------------------------

void EmSwTableWriterSm::handleWriteResponse(EntryState entryState, const EmHwKey& answered,
                                            const EmLogicalKeyAndEntry& logicalKeyAndEntry,
                                            std::uint32_t version) {
  const KilnPlatform::RunningStageScope scope(name());
  const KeyUse<EmHwKey> use(answered);
  const EmHwKey& hwKey = use.key();
  tracer().trace<8>("{}", version);
  if (keyLatestWriteVersion_.latest(hwKey) == version && emSwTableConfig_.find(hwKey) != nullptr) {
    writeStatus(hwKey, logicalKeyAndEntry,
                entryState == Asic::SwTableBase::success() ? EmHwKeyStatus::State::hwSuccess
                                                           : EmHwKeyStatus::State::hwFail);
  } else {
    tracer().trace<8>("another write in-flight");
  }
}

void EmSwTableWriterSm::handleDeleteResponse(EntryState entryState, const EmHwKey& hwKey,
                                             std::uint32_t version) {
  const KilnPlatform::RunningStageScope scope(name());
  KILN_ASSERT_MESSAGE(entryState == Asic::SwTableBase::success(),
                      "entryState == Asic::SwTableBase::success()");
  const bool newest = keyLatestDeleteVersion_.latest(hwKey) == version;
  if (newest) keyLatestDeleteVersion_.del(hwKey);  // no answer that is still to come can be for a newer one
  if (newest && emSwTableConfig_.find(hwKey) == nullptr) {
    emSwTableStatus_->statusDel(hwKey);
    keyLatestWriteVersion_.del(hwKey);
  } else {
    tracer().trace<8>("another write in-flight");
  }
}

void EmSwTableWriterSm::writeStatus(const EmHwKey& hwKey, const EmLogicalKeyAndEntry& logicalKeyAndEntry,
                                    EmHwKeyStatus::State state) {
  emSwTableStatus_->statusIs(hwKey, {logicalKeyAndEntry, state});
}

std::uint32_t EmSwTableWriterSm::Versions::issue(const EmHwKey& hwKey) {
  if (++counter_ == 0) ++counter_;
  latest_.obtain(hwKey) = counter_;
  return counter_;
}

std::uint32_t EmSwTableWriterSm::Versions::latest(const EmHwKey& hwKey) const {
  const std::uint32_t* version = latest_.find(hwKey);
  return version == nullptr ? 0 : *version;
}

}  // namespace KilnEmServer
