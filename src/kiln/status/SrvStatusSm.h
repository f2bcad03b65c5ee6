// Publishes, for one feature of one database, a status per request; only a status that answers the current
// version of the current request. One template for the three databases; LemSrvStatusSm, IsemSrvStatusSm and
// EsemSrvStatusSm name its instances.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "kiln/platform/FixedString.h"
#include "kiln/platform/KilnTunnelNiLib.h"
#include "kiln/runtime/model/EmCollections.h"
#include "kiln/runtime/model/RequestAdmission.h"
#include "kiln/runtime/stage/Input.h"
#include "kiln/runtime/stage/Output.h"
#include "kiln/runtime/stage/Stage.h"

namespace KilnEmServer {

template <class Db>
class SrvStatusSm : public Stage {
 public:
  using RequestKey = typename Db::EntryKey;
  using Request = KilnTunnelNiLib::SrvConfigEntry<typename Db::ClientData>;
  using SrvConfig = KilnTunnelNiLib::SrvConfig<Db>;
  using SrvStatus = KilnTunnelNiLib::SrvStatus<Db>;
  using StatusEntry = typename SrvStatus::Entry;

  SrvStatusSm(std::string_view className, FeatureType featureType, Ref<const EmLogicalKeyToStatus> emStatus,
              Ref<const SrvConfig> srvConfig, Ref<SrvStatus> srvStatus, std::string name,
              Ref<DependencyStatus> dependencyStatus, StageControl control);

  /// Whether a change of the request's per-key status is pending.
  [[nodiscard]] bool decidesLater(const RequestKey& entryKey) const {
    return Stage::changeWaits(logicalKeyOf(featureType_, entryKey));
  }
  // Prefetches the keys that the handlers look up in addition to their own.
  void prefetchFor(const EmLogicalKey& emLogicalKey) const {
    prefetchKey(requestKeyAs<RequestKey>(emLogicalKey));
  }
  void prefetchFor(const RequestKey& entryKey) const { prefetchKey(logicalKeyOf(featureType_, entryKey)); }

 private:
  [[nodiscard]] KilnPlatform::PartitionSet<EmLogicalKey> ownKeys() const {
    return partitionsOf(featureType_);
  }
  /// Whether the key may be one of this feature's requests of this database.
  [[nodiscard]] bool mayBeRequested(const EmLogicalKey& emLogicalKey) const {
    return emLogicalKey.featureType == featureType_ && isOfDatabase<Db>(emLogicalKey.emComposerKey);
  }
  void eventToSrvStream(const RequestKey& entryKey, const Request* srvConfigOpt);
  void eventToEmStatusStream(const EmLogicalKey& emLogicalKey, const EmRequestStatus* statusOpt);
  void eventToStatusStream(const EmRequestKey& emRequestKey);
  void answerHeld(const RequestKey& entryKey, const Request& request);
  void answerLeftOut(const RequestKey& entryKey, const Request& request);
  void answerFromServer(const EmRequestKey& emRequestKey, const RequestKey& entryKey, const Request& request);
  void publish(const StatusEntry& statusEntry, const RequestKey& entryKey);

  static constexpr auto kConfigName = Db::kPrefix + "SrvConfig";
  static constexpr auto kStatusName = Db::kPrefix + "SrvStatus";
  static constexpr auto kKeyName = Db::kPrefix + "EntryKey";
  static constexpr auto kSrvStream =
      "srvStream = from( " + Db::kPrefix + "SrvConfig.config[] ): " + Db::kPrefix + "EntryKey={}";
  static constexpr auto kMatchFilter =
      "filter( ( ( emStatusOpt && ( ( *emEntryOpt ) == ( *srvConfigOpt ).clientData." + Db::kPrefix +
      "Entry ) ) && ( ( *emVerOpt ) == ( *srvConfigOpt ).requestVersion ) ) )";

  static constexpr FixedString kFeatureFilter = "filter( ( emLogicalKey.featureType == featureType ) )";

  FeatureType featureType_;
  Input<typename SrvConfig::configAttr, kConfigName, &SrvStatusSm::eventToSrvStream, kSrvStream> srvConfig_;
  Input<EmLogicalKeyToStatus::statusAttr, "emStatus", &SrvStatusSm::eventToEmStatusStream,
        "emStatusStream = from( emStatus.status[] ): emLogicalKey={}", Reaction::queued,
        &SrvStatusSm::ownKeys, &SrvStatusSm::mayBeRequested, kFeatureFilter>
      emStatus_;
  Output<typename SrvStatus::statusAttr, kStatusName, kKeyName> srvStatus_;
};

template <class Db>
SrvStatusSm<Db>::SrvStatusSm(std::string_view className, FeatureType featureType,
                             Ref<const EmLogicalKeyToStatus> emStatus, Ref<const SrvConfig> srvConfig,
                             Ref<SrvStatus> srvStatus, std::string name,
                             Ref<DependencyStatus> dependencyStatus, StageControl control)
    : Stage(className, std::move(name), std::move(dependencyStatus), std::move(control),
            "Line 89: from( this.ready )"),
      featureType_(featureType),
      srvConfig_(*this, std::move(srvConfig), "srvStream"),
      emStatus_(*this, std::move(emStatus), "emStatusStream"),
      srvStatus_(*this, std::move(srvStatus)) {}

template <class Db>
void SrvStatusSm<Db>::eventToSrvStream(const RequestKey& entryKey, const Request* /*srvConfigOpt*/) {
  eventToStatusStream(requestKeyAs<EmRequestKey>(entryKey));
}

template <class Db>
void SrvStatusSm<Db>::eventToEmStatusStream(const EmLogicalKey& emLogicalKey,
                                            const EmRequestStatus* /*statusOpt*/) {
  eventToStatusStream(requestKeyAs<EmRequestKey>(emLogicalKey));
}

template <class Db>
void SrvStatusSm<Db>::eventToStatusStream(const EmRequestKey& emRequestKey) {
  using KilnTunnelNiLib::RequestKind;
  tracer().template trace<7>("statusStream = merge( srvStream, emStatusStream ): emRequestKey={}",
                             emRequestKey);
  const auto entryKey = requestKeyAs<RequestKey>(emRequestKey);
  const Request* request = srvConfig_.find(entryKey);
  if (request == nullptr) {
    static constexpr auto kNoRequest = "Line 52: merge( statusStream ): " + kKeyName + "={}";
    tracer().template trace<7>(TraceMessage<7, RequestKey>(kNoRequest.data), entryKey);
    srvStatus_.erase(entryKey);
    return;
  }
  static constexpr auto kRequested =
      "Line 52: merge( statusStream ): emRequestKey={} " + kKeyName + "={} srvConfigOpt={}";
  tracer().template trace<7>(TraceMessage<7, EmRequestKey, RequestKey, Request>(kRequested.data),
                             emRequestKey, entryKey, *request);
  if (request->requestKind == RequestKind::hold) {
    answerHeld(entryKey, *request);
  } else if (admissionOf<Db>(entryKey, request->requestKind) != Admission::admitted) {
    answerLeftOut(entryKey, *request);
  } else {
    answerFromServer(emRequestKey, entryKey, *request);
  }
}

template <class Db>
void SrvStatusSm<Db>::answerHeld(const RequestKey& entryKey, const Request& request) {
  static constexpr auto kHeld = "Line 55: merge( vok_pipeline1 ): " + kKeyName + "={} srvConfigOpt={}";
  tracer().template trace<7>(TraceMessage<7, RequestKey, Request>(kHeld.data), entryKey, request);
  publish({entryKey, 0, request.requestVersion, 1, EmStatus{}, KilnTunnelNiLib::kResultHold}, entryKey);
}

// Another request may have the same logical key, so the per-key status does not answer this one.
template <class Db>
void SrvStatusSm<Db>::answerLeftOut(const RequestKey& entryKey, const Request& request) {
  tracer().template trace<8>("{} is left out", entryKey);
  publish({entryKey, 0, request.requestVersion, 1, EmStatus::hwFail, KilnTunnelNiLib::kResultFromServer},
          entryKey);
}

template <class Db>
void SrvStatusSm<Db>::answerFromServer(const EmRequestKey& emRequestKey, const RequestKey& entryKey,
                                       const Request& request) {
  static constexpr auto kAdmitted =
      "Line 55: merge( vok_pipeline1 ): emRequestKey={} " + kKeyName + "={} srvConfigOpt={}";
  tracer().template trace<7>(TraceMessage<7, EmRequestKey, RequestKey, Request>(kAdmitted.data), emRequestKey,
                             entryKey, request);
  const EmRequestStatus* status = emStatus_.find(logicalKeyOf(featureType_, emRequestKey));
  const bool matches = status != nullptr &&
                       status->emConfigEntry.emEntry == request.clientData.*Db::kEntryOfClientData &&
                       status->emConfigEntry.requestVersion == request.requestVersion;
  if (!this->template filter<kMatchFilter>(matches)) {
    // A status that was published for an earlier version stays, also after a restart.
    srvStatus_.seenIs(entryKey);
    return;
  }
  publish({entryKey, 0, status->emConfigEntry.requestVersion, 1, status->status,
           KilnTunnelNiLib::kResultFromServer},
          entryKey);
}

template <class Db>
void SrvStatusSm<Db>::publish(const StatusEntry& statusEntry, const RequestKey& entryKey) {
  static constexpr auto kPublished =
      "Line 55: merge( vok_pipeline2, vok_pipeline3 ): statusEntry={} " + kKeyName + "={}";
  tracer().template trace<7>(TraceMessage<7, StatusEntry, RequestKey>(kPublished.data), statusEntry,
                             entryKey);
  srvStatus_.insert(entryKey, statusEntry);
}

}  // namespace KilnEmServer
