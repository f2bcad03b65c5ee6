#include "kiln/compose/ComposerSm.h"

#include <algorithm>
#include <stdexcept>
#include <utility>
#include <vector>

namespace KilnEmServer {

using KilnPlatform::forEachIn;

// --- ResourceWalk ------------------------------------------------------------------------------------------

ComposerSm::ResourceWalk::ResourceWalk(ComposerSm& composer)
    : WorkQueue(composer, "resourceWalk"), composer_(composer) {}

void ComposerSm::ResourceWalk::add(const ResolverKey& resolverKey) {
  if (waiting_.add(resolverKey, stage_.arrivals())) stage_.noteArrival(*this, true);
}

void ComposerSm::ResourceWalk::handleNext() {
  if (!current_) {
    arrival_ = waiting_.headArrival();
    current_ = waiting_.pop();
    cursor_ = {};
    const ResolutionState* state = composer_.resolution(*current_);
    state_ = state == nullptr ? std::nullopt : std::optional(*state);
  }
  if (const auto* coll = composer_.resolverKeyToEmLogicalKey_.find(*current_)) {
    if (const EmLogicalKey* next = (*coll)->emLogicalKeySet().scanNext(cursor_)) {
      const EmLogicalKey emKey = *next;  // a copy: the key may be removed from the set below
      detail::runItem(stage_, emKey, [&] { composer_.handleRequest(emKey); });
      return;
    }
  }
  const ResolverKey walked = *std::exchange(current_, std::nullopt);
  composer_.resourceUpdateHandled(walked, state_);
}

void ComposerSm::ResourceWalk::noteState(StateDigest& digest) const {
  InputBase::noteState(digest);
  digest.add(std::tie(current_, state_));
  const auto* coll = current_ ? composer_.resolverKeyToEmLogicalKey_.find(*current_) : nullptr;
  if (coll != nullptr) digest.addLeft((*coll)->emLogicalKeySet(), cursor_);
}

void ComposerSm::ResourceWalk::notePending(PendingDigests& pending) const {
  const StateDigest::Value own = identity();
  if (current_) pending.push_back({arrival_, own});
  waiting_.forEach([&](const ResolverKey& resolverKey, Arrival arrival) {
    pending.push_back({arrival, StateDigest::valueOf(own, resolverKey)});
  });
}

// --- RequestedResources ------------------------------------------------------------------------------------

ComposerSm::RequestedResources::RequestedResources(ComposerSm& composer,
                                                   Ref<ResolverConfigDir> resolverConfigDir)
    : OutputBase(composer, "resolverConfigDirResolverRequestOutput"),
      composer_(composer),
      resolverConfigDir_(std::move(resolverConfigDir)) {
  composer.writtenEntityIs(resolverConfigDir_.get());
}

void ComposerSm::RequestedResources::checkArgument() const {
  if (resolverConfigDir_ == nullptr) detail::nullArgument("resolverConfigDir", __FILE__, __LINE__);
}

const std::vector<ResolverKeyUnionTag>& ComposerSm::RequestedResources::resolverTypes() const {
  return typesOf(std::as_const(*resolverConfigDir_).resolverConfig(), resolverTypes_);
}

const ResolverComposerConfig* ComposerSm::RequestedResources::of(ResolverKeyUnionTag resolverType) const {
  const auto* resolverConfig = resolverConfigDir_->resolverConfig().find(resolverType);
  if (resolverConfig == nullptr) return nullptr;
  const auto* composerConfig = (*resolverConfig)->resolverComposerConfig().find(composer_.composerType_);
  return composerConfig == nullptr ? nullptr : composerConfig->get();
}

ResolverComposerConfig& ComposerSm::RequestedResources::obtain(ResolverKeyUnionTag resolverType) {
  return *resolverConfigDir_->resolverConfigIs(resolverType)
              ->resolverComposerConfigIs(composer_.composerType_);
}

void ComposerSm::RequestedResources::request(const ResolverKey& resolverKey) {
  ResolverComposerConfig& asked = obtain(resolverKey.tag());
  if (asked.resolverRequestHas(resolverKey)) return;
  asked.resolverRequestIs({resolverKey, ResolverRequest::RequestType::resourceRequest, 0, 0});
}

void ComposerSm::RequestedResources::acknowledge(const ResolverKey& resolverKey,
                                                 ResolverKeyUnionTag resolverType, std::uint64_t value,
                                                 std::uint64_t epoch) {
  obtain(resolverType)
      .resolverRequestIs({resolverKey, ResolverRequest::RequestType::resourceInUse, value, epoch});
}

bool ComposerSm::RequestedResources::release(const ResolverKey& resolverKey) {
  return of(resolverKey.tag()) != nullptr && obtain(resolverKey.tag()).resolverRequest().del(resolverKey);
}

void ComposerSm::RequestedResources::addReads(std::vector<const void*>& collections) const {
  for (const ResolverKeyUnionTag type : resolverTypes()) {
    const ResolverComposerConfig* asked = of(type);
    if (asked != nullptr) collections.push_back(KilnPlatform::addressOf(asked->resolverRequest()));
  }
}

std::optional<ResolverKey> ComposerSm::RequestedResources::next() {
  const auto& types = resolverTypes();
  for (; type_ < types.size(); ++type_, cursor_ = {}) {
    const ResolverComposerConfig* asked = of(types[type_]);
    if (asked == nullptr) continue;
    if (const ResolverKey* key = asked->resolverRequest().scanNext(cursor_)) return *key;
  }
  return std::nullopt;
}

void ComposerSm::RequestedResources::rewind() {
  type_ = 0;
  cursor_ = {};
}

bool ComposerSm::RequestedResources::deletionScanItem(bool& deleted) {
  const auto key = next();
  if (key) deleted = composer_.releaseUnused(*key);
  return key.has_value();
}

std::size_t ComposerSm::RequestedResources::size() const {
  std::size_t resources = 0;
  for (const ResolverKeyUnionTag type : resolverTypes()) {
    const ResolverComposerConfig* asked = of(type);
    if (asked != nullptr) resources += asked->resolverRequest().size();
  }
  return resources;
}

void ComposerSm::RequestedResources::noteState(StateDigest& digest) const {
  OutputBase::noteState(digest);
  if (!reconciling()) return;
  const auto& types = resolverTypes();
  for (std::size_t type = type_; type < types.size(); ++type) {
    const ResolverComposerConfig* asked = of(types[type]);
    const auto cursor = type == type_ ? cursor_ : KilnPlatform::ScanCursor<ResolverKey>();
    if (asked != nullptr) digest.addLeft(asked->resolverRequest(), cursor);
  }
}

bool ComposerSm::RequestedResources::deleteNext() {
  auto key = next();
  if (!key) {  // the deletion scan may have moved the cursor past other resources
    rewind();
    key = next();
  }
  if (key) release(*key);
  return key.has_value();
}

// --- ComposerSm --------------------------------------------------------------------------------------------

ComposerSm::ComposerSm(EmComposerKeyUnionTag composerType, EmResolvedKeyUnionTag emResolvedKeyType,
                       Ref<const EmLogicalKeyConfig> emLogicalKeyConfig,
                       Ref<SwTableKeyConfig> swTableKeyConfig, Ref<const ResolvedKeyStatus> resolvedKeyStatus,
                       Ref<ResolverConfigDir> resolverConfigDir,
                       Ref<const ResolverStatusDir> resolverStatusDir, std::string_view className,
                       std::string name, Ref<DependencyStatus> dependencyStatus, StageControl smControl,
                       Ref<EmComposeFailure> emComposeFailure, KeyTraces traces)
    : Stage(className, std::move(name), std::move(dependencyStatus), std::move(smControl),
            "from( this.ready )"),
      composerType_(composerType),
      emResolvedKeyType_(emResolvedKeyType),
      resolverStatusDir_(std::move(resolverStatusDir)),
      resolverKeyToEmLogicalKey_(*this, "ComposerSm.resolverKeyToEmLogicalKey"),
      emLogicalKeyState_(*this, "ComposerSm.emLogicalKeyState"),
      departures_(*this, *this, std::move(traces)),
      leavingCount_(*this, "ComposerSm.leavingCount"),
      emLogicalKeyConfig_(*this, std::move(emLogicalKeyConfig)),
      resolvedKeyStatus_(*this, std::move(resolvedKeyStatus)),
      resolverStatuses_(*this, resolverStatusDir_),
      resourceWalk_(*this),
      requestedResources_(*this, std::move(resolverConfigDir)),
      swTableKeyConfig_(*this, std::move(swTableKeyConfig)),
      emComposeFailure_(*this, std::move(emComposeFailure)) {
  if (departures_.emWrittenKeys() != nullptr) emWrittenKeys_.emplace(*this, departures_.emWrittenKeys());
}

bool ComposerSm::isSupportedResolverType(ResolverKeyUnionTag /*resolverType*/) const {
  throw std::logic_error("Must implement in child");
}

ResolverKey ComposerSm::getResolverKey(ResolverKeyUnionTag /*resolverType*/,
                                       const EmLogicalKey& /*emLogicalKey*/) const {
  throw std::logic_error("Must implement in child");
}

EmHwKey ComposerSm::composeKey(const EmLogicalKey& /*emLogicalKey*/) const {
  throw std::logic_error("Must implement in child");
}

void ComposerSm::handleInitialized() {
  tracer().trace<8>("handleInitialized");
  departures_.start();
  KILN_ASSERT_MESSAGE(composerType_ != EmComposerKeyUnionTag::undefined_,
                      "emComposerKeyType() != EmComposerKeyUnionTag::undefined_");
  for (const ResolverKeyUnionTag resolverType : requestedResources_.resolverTypes()) {
    KILN_ASSERT_MESSAGE(isSupportedResolverType(resolverType),
                        "isSupportedResolverType( resolverConfigIter->resolverType() )");
    (void)placesOf(resolverType);  // created here, so that it is listed with all local state from the start
  }
  forEachIn(resolverStatusDir_->resolverStatus(),
            [&](ResolverKeyUnionTag resolverType, const auto& /*status*/) {
              KILN_ASSERT_MESSAGE(isSupportedResolverType(resolverType),
                                  "isSupportedResolverType( resolverStatusIter->resolverType() )");
            });
}

void ComposerSm::handleRequestChange(const EmLogicalKey& emKey, const KilnPlatform::Unit* /*unitOpt*/) {
  handleRequest(emKey);
}

void ComposerSm::handleStatusChange(const EmLogicalKey& emKey, const EmHwKeyStatus* /*statusOpt*/) {
  if (!requested(emKey)) emLogicalKeyStateDel(emKey);
  handleStatus(emKey);
}

void ComposerSm::handleWritten(const EmLogicalKey& emKey, const std::uint32_t* hwKeysOpt) {
  if (hwKeysOpt == nullptr) departures_.check(emKey);
}

void ComposerSm::handleResolution(const ResolverKeyUnionTag& resolverType, const ResolverKey& resolverKey,
                                  const ResolutionState* state) {
  handleResourceUpdate(resolverKey, resolverType, state);
}

template <class Directory>
const std::vector<ResolverKeyUnionTag>& ComposerSm::typesOf(const Directory& directory,
                                                            std::vector<ResolverKeyUnionTag>& known) {
  if (known.size() != directory.size()) {
    known.clear();
    forEachIn(directory, [&](ResolverKeyUnionTag type, const auto& /*entity*/) { known.push_back(type); });
  }
  return known;
}

template <class Visitor>
void ComposerSm::forEachResolverKey(const EmLogicalKey& emKey, Visitor&& visit) const {
  for (const ResolverKeyUnionTag resolverType : requestedResources_.resolverTypes()) {
    visit(getResolverKey(resolverType, emKey));
  }
}

// --- Requests ----------------------------------------------------------------------------------------------

void ComposerSm::handleRequest(const EmLogicalKey& emLogicalKey) {
  tracer().trace<8>("handleRequest {}", emLogicalKey);
  if (!requested(emLogicalKey)) {
    withdraw(emLogicalKey);
    return;
  }
  if (departures_.cancel(emLogicalKey)) countLeaving(emLogicalKey, false);
  forEachResolverKey(emLogicalKey, [&](const ResolverKey& resolverKey) {
    const bool asked = resolverKeyToEmLogicalKey_.has(resolverKey);
    updateResolverToEmKeyColl(resolverKey, emLogicalKey, true);
    if (!asked) requestedResources_.request(resolverKey);
  });
  maybeComposeKey(emLogicalKey);
}

void ComposerSm::withdraw(const EmLogicalKey& emKey) {
  emLogicalKeyStateDel(emKey);
  forEachResolverKey(
      emKey, [&](const ResolverKey& resolverKey) { updateResolverToEmKeyColl(resolverKey, emKey, false); });
  swTableKeyConfig_.erase(emKey);
  emComposeFailure_.erase(emKey);
  if (departures_.begin(emKey)) countLeaving(emKey, true);
}

void ComposerSm::countLeaving(const EmLogicalKey& emKey, bool more) {
  forEachResolverKey(emKey, [&](const ResolverKey& resolverKey) {
    const std::size_t* present = leavingCount_.find(resolverKey);
    const std::size_t before = present == nullptr ? 0 : *present;
    const std::size_t now = more ? before + 1 : before - 1;
    if (now == 0) {
      leavingCount_.del(resolverKey);
    } else {
      leavingCount_.is(resolverKey, now);
    }
  });
}

void ComposerSm::handleDeparted(const EmLogicalKey& emKey) {
  countLeaving(emKey, false);
  forEachResolverKey(emKey, [&](const ResolverKey& resolverKey) { releaseUnused(resolverKey); });
}

void ComposerSm::updateResolverToEmKeyColl(const ResolverKey& resolverKey, const EmLogicalKey& emLogicalKey,
                                           bool add) {
  const Ref<ResolverEmLogicalKeyColl>* present = resolverKeyToEmLogicalKey_.find(resolverKey);
  if (add) {
    tracer().trace<8>("add: {}", emLogicalKey);
    if (present != nullptr) {
      (*present)->emLogicalKeySet().add(emLogicalKey);
      return;
    }
    const auto coll = std::make_shared<ResolverEmLogicalKeyColl>(resolverKey, placesOf(resolverKey.tag()));
    coll->emLogicalKeySet().add(emLogicalKey);
    resolverKeyToEmLogicalKey_.is(resolverKey, coll);
    // The resolution may exist already for another composer; then it would never be notified as a change.
    handleResourceUpdate(resolverKey, resolverKey.tag(), resolution(resolverKey));
  } else if (present != nullptr) {
    (*present)->emLogicalKeySet().remove(emLogicalKey);
    if (!(*present)->emLogicalKeySet().empty()) return;
    tracer().trace<7>("Del resolverKey coll");
    resolverKeyToEmLogicalKey_.del(resolverKey);
  }
}

KeyPlaces<EmLogicalKey>& ComposerSm::placesOf(ResolverKeyUnionTag resolverType) {
  return places_.try_emplace(resolverType, *this, "ComposerSm.emLogicalKeyPlaces").first->second;
}

bool ComposerSm::releaseUnused(const ResolverKey& resolverKey) {
  if (resolverKeyToEmLogicalKey_.has(resolverKey) || leavingCount_.has(resolverKey)) return false;
  return requestedResources_.release(resolverKey);
}

// --- Composition -------------------------------------------------------------------------------------------

void ComposerSm::maybeComposeKey(const EmLogicalKey& emLogicalKey) {
  if (!requested(emLogicalKey)) {
    swTableKeyConfig_.erase(emLogicalKey);
    return;
  }
  const ResolutionState::State state = getResolutionState(emLogicalKey);
  const State keyState = translateState(state);
  tracer().trace<9>("keyState: {}", keyState);
  emLogicalKeyStateIs(emLogicalKey, keyState);
  if (state != ResolutionState::resolutionSuccess_) {
    emComposeFailure_.erase(emLogicalKey);
  } else if (compose(emLogicalKey)) {
    handleStatus(emLogicalKey);
    return;
  }
  swTableKeyConfig_.erase(emLogicalKey);
}

bool ComposerSm::compose(const EmLogicalKey& emKey) {
  EmHwKey hwKey;
  try {
    hwKey = composeKey(emKey);
  } catch (const std::range_error& error) {
    emComposeFailure_.insert(emKey, error.what());
    emLogicalKeyStateIs(emKey, State::resolutionFail);
    return false;
  }
  KILN_ASSERT(hwKey.emResolvedKey.tag() == emResolvedKeyType_);
  swTableKeyConfig_.insert(emKey, hwKey);
  emComposeFailure_.erase(emKey);
  return true;
}

const EmHwKey* ComposerSm::composedKey(const EmLogicalKey& emKey) const {
  // A withdrawn key has no state once its status has been handled, although its withdrawal may still be
  // pending.
  const State* state = emLogicalKeyState_.find(emKey);
  return state == nullptr || *state < State::hwPending ? nullptr : swTableKeyConfig_.find(emKey);
}

const ResolutionState* ComposerSm::resolution(const ResolverKey& resolverKey) const {
  const auto* resolverStatus = resolverStatusDir_->resolverStatus().find(resolverKey.tag());
  return resolverStatus == nullptr ? nullptr : std::as_const(**resolverStatus).status().find(resolverKey);
}

ResolutionState::State ComposerSm::getResolutionState(const EmLogicalKey& emLogicalKey) const {
  ResolutionState::State least = ResolutionState::resolutionSuccess_;
  for (const ResolverKeyUnionTag resolverType :
       typesOf(resolverStatusDir_->resolverStatus(), resolverStatusTypes_)) {
    const ResolutionState* state = resolution(getResolverKey(resolverType, emLogicalKey));
    KILN_ASSERT_MESSAGE(state != nullptr, "resolverStatusIter->statusHas( resolverKey )");
    least = std::min(least, state->state);
  }
  return least;
}

std::uint64_t ComposerSm::getResult(ResolverKeyUnionTag resolverType,
                                    const EmLogicalKey& emLogicalKey) const {
  KILN_ASSERT_MESSAGE(isSupportedResolverType(resolverType),
                      "isSupportedResolverType( resolverType ) && \"Unsupported resolverType {}\"",
                      resolverType);
  const ResolutionState* status = resolution(getResolverKey(resolverType, emLogicalKey));
  KILN_ASSERT_MESSAGE(status != nullptr,
                      "resolverStatusDir()->resolverStatus( resolverType )->statusHas( key )");
  KILN_ASSERT_MESSAGE(
      status->state == ResolutionState::resolutionSuccess_,
      "status.state() == ResolutionState::resolutionSuccess_ && \"Expected resolutionSuccess, got {}\"",
      status->state);
  return status->val;
}

// --- Outcomes ----------------------------------------------------------------------------------------------

void ComposerSm::handleStatus(const EmLogicalKey& emLogicalKey) {
  const EmHwKey* composed = composedKey(emLogicalKey);
  KILN_ASSERT_MESSAGE(requested(emLogicalKey) || !emLogicalKeyStateHas(emLogicalKey),
                      "!emLogicalKeyStateHas( emLogicalKey )");
  if (const EmHwKeyStatus* status = resolvedKeyStatus_.find(emLogicalKey)) {
    tracer().trace<8>("HW status present");
    // The outcome of another hardware key does not concern the composed one, and keeps the resource in use.
    if (composed == nullptr) return;
    if (*composed != status->emHwKey) return emLogicalKeyStateIs(emLogicalKey, State::hwPending);
    tracer().trace<7>("status matches");
    emLogicalKeyStateIs(emLogicalKey, translateState(status->state));
    forEachResolverKey(emLogicalKey, [&](const ResolverKey& key) { maybeAckInUse(key, key.tag()); });
    return;
  }
  tracer().trace<8>("HW status empty");
  if (composed != nullptr) emLogicalKeyStateIs(emLogicalKey, State::hwPending);
  departures_.check(emLogicalKey);
}

void ComposerSm::maybeAckInUse(const ResolverKey& resolverKey, ResolverKeyUnionTag resolverType) {
  const Ref<ResolverEmLogicalKeyColl>* coll = resolverKeyToEmLogicalKey_.find(resolverKey);
  if (coll == nullptr || (*coll)->outcomesAwaited != 0 || (*coll)->outcomesKnown == 0) return;
  if ((*coll)->inUseSince == inUseVer_) return;
  const ResolutionState* state = resolution(resolverKey);
  if (state == nullptr || state->state != ResolutionState::resolutionSuccess_) return;
  // Until every key was handled with this resolution, outcomes may still belong to the previous one.
  if ((*coll)->handled != *state) return;
  requestedResources_.acknowledge(resolverKey, resolverType, state->val, inUseVer_);
  (*coll)->inUseSince = inUseVer_;
}

// --- Changes of a resolution -------------------------------------------------------------------------------

void ComposerSm::handleResourceUpdate(const ResolverKey& resolverKey, ResolverKeyUnionTag resolverType,
                                      const ResolutionState* state) {
  tracer().trace<8>("handleResourceUpdate {} {} {}", resolverType, resolverKey,
                    OptionalText<ResolutionState>{state});
  inUseVerInc(1);
  const Ref<ResolverEmLogicalKeyColl>* coll = resolverKeyToEmLogicalKey_.find(resolverKey);
  if (coll == nullptr) return;
  (*coll)->handled.reset();
  resourceWalk_.add(resolverKey);
}

void ComposerSm::resourceUpdateHandled(const ResolverKey& resolverKey,
                                       const std::optional<ResolutionState>& state) {
  const Ref<ResolverEmLogicalKeyColl>* coll = resolverKeyToEmLogicalKey_.find(resolverKey);
  if (coll == nullptr) return;
  (*coll)->handled = state;
  maybeAckInUse(resolverKey, resolverKey.tag());
}

// --- States of logical keys --------------------------------------------------------------------------------

bool ComposerSm::emLogicalKeyStateHas(const EmLogicalKey& emLogicalKey) const {
  return emLogicalKeyState_.has(emLogicalKey);
}

std::optional<EmLogicalKeyState> ComposerSm::emLogicalKeyState(const EmLogicalKey& emLogicalKey) const {
  const State* state = emLogicalKeyState_.find(emLogicalKey);
  if (state == nullptr) return std::nullopt;
  return EmLogicalKeyState{emLogicalKey, *state};
}

Ref<const ResolverEmLogicalKeyColl> ComposerSm::resolverKeyToEmLogicalKey(const ResolverKey& key) const {
  const Ref<ResolverEmLogicalKeyColl>* coll = resolverKeyToEmLogicalKey_.find(key);
  return coll == nullptr ? nullptr : *coll;
}

void ComposerSm::emLogicalKeyStateIs(const EmLogicalKey& emKey, State state) {
  const State* present = emLogicalKeyState_.find(emKey);
  if (present != nullptr && *present == state) return;
  countState(emKey, present, &state);
  emLogicalKeyState_.is(emKey, state);
}

void ComposerSm::emLogicalKeyStateDel(const EmLogicalKey& emKey) {
  const State* present = emLogicalKeyState_.find(emKey);
  if (present == nullptr) return;
  const bool awaited = *present == State::hwPending;
  countState(emKey, present, nullptr);
  emLogicalKeyState_.del(emKey);
  // This key may have been the last one without an outcome that the acknowledgement waited for.
  if (awaited) forEachResolverKey(emKey, [&](const ResolverKey& key) { maybeAckInUse(key, key.tag()); });
}

void ComposerSm::countState(const EmLogicalKey& emKey, const State* from, const State* to) {
  const auto isAwaited = [](const State* state) { return state != nullptr && *state == State::hwPending; };
  const auto isKnown = [](const State* state) { return state != nullptr && *state > State::hwPending; };
  forEachResolverKey(emKey, [&](const ResolverKey& resolverKey) {
    const Ref<ResolverEmLogicalKeyColl>* coll = resolverKeyToEmLogicalKey_.find(resolverKey);
    KILN_ASSERT(coll != nullptr && "only a key that uses its resources has a state");
    (*coll)->outcomesAwaited += std::size_t{isAwaited(to)} - std::size_t{isAwaited(from)};
    (*coll)->outcomesKnown += std::size_t{isKnown(to)} - std::size_t{isKnown(from)};
  });
}

// --- Digest ------------------------------------------------------------------------------------------------

bool ComposerSm::addReads(std::vector<const void*>& collections) const {
  KilnPlatform::forEachIn(resolverStatusDir_->resolverStatus(),
                          [&](const auto& /*type*/, const auto& status) {
                            collections.push_back(KilnPlatform::addressOf(status->status()));
                          });
  return Stage::addReads(collections);
}

// Epochs are only compared with the current one.
void ComposerSm::noteState(StateDigest& digest) const {
  Stage::noteState(digest);
  digest.unordered([&](auto&& item) {
    resolverKeyToEmLogicalKey_.map().forEach([&](const ResolverKey& resolverKey, const auto& coll) {
      item(resolverKey, coll->inUseSince == inUseVer_);
    });
  });
  for (const ResolverKeyUnionTag type : requestedResources_.resolverTypes()) {
    const ResolverComposerConfig* asked = requestedResources_.of(type);
    if (asked == nullptr) continue;
    digest.unordered([&](auto&& item) {
      forEachIn(asked->resolverRequest(),
                [&](const ResolverKey& resolverKey, const ResolverRequest& request) {
                  item(resolverKey, request.inUseVer == inUseVer_);
                });
    });
  }
}

}  // namespace KilnEmServer
