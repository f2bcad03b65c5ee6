// The intake of one database: flattens all features' requests into the database's EmSrvConfig. One template
// for the three databases; LemSrvConfigSm, IsemSrvConfigSm and EsemSrvConfigSm name its instances.
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

/// The collection of a database's requests, per feature.
template <class Db>
struct SrvConfigSource;
template <>
struct SrvConfigSource<KilnTunnelNiLib::Lem> {
  using ByFeature = LemSrvConfigByFeature;
  using Attr = LemSrvConfigByFeature::lemConfigAttr;
};
template <>
struct SrvConfigSource<KilnTunnelNiLib::Isem> {
  using ByFeature = IsemSrvConfigByFeature;
  using Attr = IsemSrvConfigByFeature::isemConfigAttr;
};
template <>
struct SrvConfigSource<KilnTunnelNiLib::Esem> {
  using ByFeature = EsemSrvConfigByFeature;
  using Attr = EsemSrvConfigByFeature::esemConfigAttr;
};

template <class Db>
class SrvConfigSm : public Stage {
 public:
  using ByFeature = typename SrvConfigSource<Db>::ByFeature;
  using RequestKey = typename Db::EntryKey;
  using Request = KilnTunnelNiLib::SrvConfigEntry<typename Db::ClientData>;

  SrvConfigSm(std::string_view className, Ref<const ByFeature> configByFeature, Ref<EmSrvConfig> emSrvConfig,
              std::string name, Ref<DependencyStatus> dependencyStatus, Ref<TaskScheduler> scheduler,
              int priority);

  /// Prefetches the keys that the handler looks up in addition to its own.
  void prefetchFor(const FeatureType& feature, const RequestKey& key) const {
    prefetchKey(logicalKeyOf(feature, key));
  }

 private:
  void handleConfig0(const FeatureType& feature, const RequestKey& key, const Request* entryOpt);
  void traceLeftOut(Admission why, const EmLogicalKey& logicalKey) const;

  static constexpr auto kFrom =
      "Line 26: from( configByFeature." + Db::kPrefix + "Config[].config[] ): feature={} key={} entryOpt={}";

  NestedInput<typename SrvConfigSource<Db>::Attr, typename KilnTunnelNiLib::SrvConfig<Db>::configAttr,
              "configByFeature", &SrvConfigSm::handleConfig0, kFrom>
      configByFeature_;
  Output<EmSrvConfig::emLogicalKeyToEntryAttr, "emSrvConfig", "logicalKey"> emSrvConfig_;
};

template <class Db>
SrvConfigSm<Db>::SrvConfigSm(std::string_view className, Ref<const ByFeature> configByFeature,
                             Ref<EmSrvConfig> emSrvConfig, std::string name,
                             Ref<DependencyStatus> dependencyStatus, Ref<TaskScheduler> scheduler,
                             int priority)
    : Stage(className, std::move(name), std::move(dependencyStatus), {std::move(scheduler), priority},
            "Line 36: from( this.ready )"),
      configByFeature_(*this, std::move(configByFeature)),
      emSrvConfig_(*this, std::move(emSrvConfig)) {}

template <class Db>
void SrvConfigSm<Db>::handleConfig0(const FeatureType& feature, const RequestKey& key,
                                    const Request* entryOpt) {
  const EmLogicalKey logicalKey = logicalKeyOf(feature, key);
  prefetchDownstream(logicalKey);
  prefetchDownstream(key);
  const Admission admission =
      entryOpt == nullptr ? Admission::admitted : admissionOf<Db>(key, entryOpt->requestKind);
  if (entryOpt != nullptr && admission == Admission::admitted) {
    emSrvConfig_.insert(logicalKey, {entryOpt->clientData.*Db::kEntryOfClientData, entryOpt->requestVersion});
  } else {
    if (admission != Admission::admitted) traceLeftOut(admission, logicalKey);
    emSrvConfig_.erase(logicalKey);
  }
  rememberLogicalKey(key, logicalKey);
}

template <class Db>
void SrvConfigSm<Db>::traceLeftOut(Admission why, const EmLogicalKey& logicalKey) const {
  switch (why) {
    case Admission::otherDatabase:
      return tracer().template trace<0>("{}: request left out, its key is not one of the {} database: {}",
                                        name(), Db::kEmType, logicalKey);
    case Admission::mixedScope:
      return tracer().template trace<0>("{}: request left out, only one of its chip and core is all: {}",
                                        name(), logicalKey);
    case Admission::unknownKind:
      return tracer().template trace<0>("{}: request left out, its kind is unknown: {}", name(), logicalKey);
    case Admission::held:
    case Admission::admitted:
      return;
  }
}

}  // namespace KilnEmServer
