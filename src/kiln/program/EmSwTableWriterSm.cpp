#include "kiln/program/EmSwTableWriterSm.h"

#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "kiln/program/ConflictKeySet.h"

namespace KilnEmServer {

EmSwTableWriterSm::EmSwTableWriterSm(EmResolvedKeyUnionTag emResolvedKeyType,
                                     Ref<const EmSwTableConfig> emSwTableConfig,
                                     Ref<EmSwTableStatus> emSwTableStatus, std::string name,
                                     Ref<DependencyStatus> dependencyStatus, StageControl control,
                                     SwTableWriterOptions options)
    : Stage("EmSwTableWriterSm", std::move(name), std::move(dependencyStatus), std::move(control),
            "from( this.ready )"),
      emResolvedKeyType_(emResolvedKeyType),
      emSwTableConfig_(*this, std::move(emSwTableConfig)),
      leftStatus_(*this, emSwTableStatus),
      emSwTableStatus_(*this, std::move(emSwTableStatus)),
      keyLatestWriteVersion_(*this, "keyLatestWriteVersion"),
      keyLatestDeleteVersion_(*this, "keyLatestDeleteVersion"),
      writtenKeys_(*this, std::move(options.emWrittenKeys)) {
  if (options.retryRoom == nullptr) return;
  refusedKeys_.emplace(*this, static_cast<RefusedKeys::Retrying&>(*this), std::move(options.retryRoom));
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

// --- Requests ----------------------------------------------------------------------------------------------

void EmSwTableWriterSm::handleRequest(const EmHwKey& hwKey, const EmLogicalKeyAndEntry* logicalKeyAndEntry) {
  if (refusedKeys_) refusedKeys_->forget(hwKey);
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

// The tables hold convergent entries only. A winner that requested just this chip and core gets a failure
// status; a winner that represents its convergent twin has its status there.
void EmSwTableWriterSm::handleDivergent(const EmHwKey& hwKey,
                                        const EmLogicalKeyAndEntry* logicalKeyAndEntry) {
  if (logicalKeyAndEntry != nullptr && logicalKeyAndEntry->emLogicalKey.fapId == hwKey.fapId &&
      logicalKeyAndEntry->emLogicalKey.localCoreId == hwKey.localCoreId) {
    writeStatus(hwKey, *logicalKeyAndEntry, EmHwKeyStatus::State::hwFail);
  } else {
    emSwTableStatus_.erase(hwKey);
  }
}

EmSwTableWriterSm::Issued EmSwTableWriterSm::issue(std::uint32_t version) {
  return {version, ++operations_, refusedKeys_ ? refusedKeys_->moment() : 0};
}

void EmSwTableWriterSm::requestDelete(const EmHwKey& hwKey) {
  const Issued issued = issue(deleteVersionInc());
  keyLatestDeleteVersion_.is(hwKey, issued.version);
  tracer().trace<9>("{} del {}", name(), hwKey);
  try {
    deleteTableEntry(hwKey, DeleteHandler{weak_from_this(), hwKey, issued});
  } catch (const std::range_error& error) {
    tracer().trace<0>("{}: delete of {} reached no table: {}", name(), hwKey, std::string_view(error.what()));
    handleDeleteResponse(Asic::SwTableBase::success(), hwKey, issued);
  }
  tellOperation();
}

void EmSwTableWriterSm::requestWrite(const EmHwKey& hwKey, const EmLogicalKeyAndEntry& logicalKeyAndEntry) {
  const Issued issued = issue(writeVersionInc());
  keyLatestWriteVersion_.is(hwKey, issued.version);
  tracer().trace<9>("{} add {}", name(), hwKey);
  writtenKeys_.written(hwKey, logicalKeyAndEntry.emLogicalKey, issued.operation);
  try {
    writeTableEntry(hwKey, logicalKeyAndEntry.emEntry.emEntry,
                    WriteHandler{weak_from_this(), hwKey, logicalKeyAndEntry, issued});
  } catch (const std::range_error& error) {
    tracer().trace<0>("{}: write of {} reached no table: {}", name(), hwKey, std::string_view(error.what()));
    removeUnwritable(hwKey, logicalKeyAndEntry, issued);
  }
  tellOperation();
}

// The entry of an earlier write under the key is no longer wanted.
void EmSwTableWriterSm::removeUnwritable(const EmHwKey& hwKey, const EmLogicalKeyAndEntry& logicalKeyAndEntry,
                                         const Issued& issued) {
  try {
    deleteTableEntry(hwKey, UnwritableHandler{weak_from_this(), hwKey, logicalKeyAndEntry, issued});
  } catch (const std::range_error&) {
    takeWriteAnswer(false, hwKey, logicalKeyAndEntry, issued);
  }
}

void EmSwTableWriterSm::retry(const EmHwKey& hwKey) {
  const EmLogicalKeyAndEntry* wanted = emSwTableConfig_.find(hwKey);
  if (wanted == nullptr) return;  // its removal is pending
  tracer().trace<8>("{} is written again", hwKey);
  requestWrite(hwKey, EmLogicalKeyAndEntry(*wanted));
}

void EmSwTableWriterSm::retryRefused() {
  if (refusedKeys_) refusedKeys_->allDue();
}

void EmSwTableWriterSm::tellOperation() const {
  for (Asic::ChangeSubscriber* subscriber : operationSubscribers_) subscriber->handleChange();
}

// --- Answers -----------------------------------------------------------------------------------------------

void EmSwTableWriterSm::WriteHandler::operator()(const EntryHandleRef& handle) const {
  if (const auto self = writer.lock())
    self->handleWriteResponse(handle->entryState(), hwKey, logicalKeyAndEntry, issued);
}

void EmSwTableWriterSm::DeleteHandler::operator()(const EntryHandleRef& handle) const {
  if (const auto self = writer.lock()) self->handleDeleteResponse(handle->entryState(), hwKey, issued);
}

void EmSwTableWriterSm::UnwritableHandler::operator()(const EntryHandleRef& /*handle*/) const {
  const auto self = writer.lock();
  if (self == nullptr) return;
  self->takeWriteAnswer(false, hwKey, logicalKeyAndEntry, issued);
  self->noteDeparture();
}

void EmSwTableWriterSm::handleWriteResponse(EntryState entryState, const EmHwKey& hwKey,
                                            const EmLogicalKeyAndEntry& logicalKeyAndEntry,
                                            const Issued& issued) {
  const bool success = entryState == Asic::SwTableBase::success();
  const EmSwTableStatusEntry* before = success ? nullptr : emSwTableStatus_.find(hwKey);
  const bool stored = before != nullptr && before->status == EmHwKeyStatus::State::hwSuccess;
  const bool taken = takeWriteAnswer(success, hwKey, logicalKeyAndEntry, issued);
  if (success || !refusedKeys_) return;
  if (taken) refusedKeys_->add(hwKey, issued.moment);
  if (stored) noteDeparture();  // a refused write removes the previous entry from the table
}

bool EmSwTableWriterSm::takeWriteAnswer(bool success, const EmHwKey& answered,
                                        const EmLogicalKeyAndEntry& logicalKeyAndEntry,
                                        const Issued& issued) {
  const KilnPlatform::RunningStageScope scope(name());
  const KeyUse<EmHwKey> use(answered);
  const EmHwKey& hwKey = use.key();
  tracer().trace<8>("{}", issued.version);
  writtenKeys_.answered(hwKey, issued.operation, success);
  const bool taken =
      keyLatestWriteVersion_.latest(hwKey) == issued.version && emSwTableConfig_.find(hwKey) != nullptr;
  if (taken) {
    writeStatus(hwKey, logicalKeyAndEntry,
                success ? EmHwKeyStatus::State::hwSuccess : EmHwKeyStatus::State::hwFail);
  } else {
    tracer().trace<8>("another write in-flight");
  }
  tellOperation();
  return taken;
}

void EmSwTableWriterSm::handleDeleteResponse(EntryState entryState, const EmHwKey& hwKey,
                                             const Issued& issued) {
  const KilnPlatform::RunningStageScope scope(name());
  KILN_ASSERT_MESSAGE(entryState == Asic::SwTableBase::success(),
                      "entryState == Asic::SwTableBase::success()");
  writtenKeys_.answered(hwKey, issued.operation, false);
  const bool newest = keyLatestDeleteVersion_.latest(hwKey) == issued.version;
  if (newest) keyLatestDeleteVersion_.del(hwKey);  // no outstanding answer can be for a newer one
  if (newest && emSwTableConfig_.find(hwKey) == nullptr) {
    emSwTableStatus_.erase(hwKey);
    keyLatestWriteVersion_.del(hwKey);
  } else {
    tracer().trace<8>("another write in-flight");
  }
  noteDeparture();
  tellOperation();
}

void EmSwTableWriterSm::noteDeparture() {
  if (refusedKeys_) refusedKeys_->room().noteDeparture();
}

// An equal answer counts, too: the status of a logical key is the last answer under any of its hardware keys.
void EmSwTableWriterSm::writeStatus(const EmHwKey& hwKey, const EmLogicalKeyAndEntry& logicalKeyAndEntry,
                                    EmHwKeyStatus::State state) {
  emSwTableStatus_.insertAgain(hwKey, {logicalKeyAndEntry, state, ++answers_});
}

std::uint32_t EmSwTableWriterSm::Versions::latest(const EmHwKey& hwKey) const {
  const std::uint32_t* version = latest_.find(hwKey);
  return version == nullptr ? 0 : *version;
}

// --- Digest ------------------------------------------------------------------------------------------------

template <class Visitor>
bool EmSwTableWriterSm::visit(const ResponseHandler& handler, Visitor&& visitor) {
  const auto visitIf = [&](const auto* known) {
    if (known != nullptr) visitor(*known);
    return known != nullptr;
  };
  return visitIf(handler.target<WriteHandler>()) || visitIf(handler.target<DeleteHandler>()) ||
         visitIf(handler.target<UnwritableHandler>());
}

bool EmSwTableWriterSm::noteAnswer(StateDigest& digest, const ResponseHandler& handler) {
  return visit(handler, [&]<class Handler>(const Handler& known) {
    const auto self = known.writer.lock();
    digest.add(self != nullptr);
    if (self == nullptr) return;  // the handler will do nothing
    const Issued& issued = known.issued;
    digest.add(known.hwKey);
    constexpr bool kRemoval = std::is_same_v<Handler, DeleteHandler>;
    digest.add(kRemoval);
    if constexpr (!kRemoval) {
      digest.add(std::is_same_v<Handler, WriteHandler>);
      digest.add(known.logicalKeyAndEntry);
    }
    const Versions& versions = kRemoval ? self->keyLatestDeleteVersion_ : self->keyLatestWriteVersion_;
    digest.add(versions.latest(known.hwKey) == issued.version);
    digest.add(self->refusedKeys_ && self->refusedKeys_->moment() == issued.moment);
    self->writtenKeys_.noteOperation(digest, known.hwKey, issued.operation);
  });
}

const EmHwKey* EmSwTableWriterSm::keyOf(const ResponseHandler& handler) {
  const EmHwKey* hwKey = nullptr;
  visit(handler, [&](const auto& known) { hwKey = &known.hwKey; });
  return hwKey;
}

}  // namespace KilnEmServer
