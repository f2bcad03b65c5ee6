#include "kiln/compose/ResolverVd.h"

#include <utility>

namespace KilnEmServer {

using KilnTunnelNiLib::IntfIdSystemTcamId;

ResolverVd::ResolverVd(Ref<const ResolverConfig> resolverConfig, Ref<ResolverStatus> resolverStatus,
                       Ref<KilnVlanDomain::VlanDomainConfig> vdConfig,
                       Ref<const KilnVlanDomain::VlanDomainStatus> vdStatus, std::string name,
                       Ref<DependencyStatus> dependencyStatus, StageControl smControl)
    : ResolverBase(ResolverKeyUnionTag::vd, std::move(resolverConfig), std::move(resolverStatus),
                   "ResolverVd", std::move(name), std::move(dependencyStatus), std::move(smControl)),
      vdConfig_(*this, vdConfig),
      leftConfig_(*this, vdConfig),
      vdStatus_(*this, std::move(vdStatus)) {}

void ResolverVd::makeRequest(const ResolverKey& resolverKey) {
  tracer().trace<8>("makeRequest");
  const IntfIdSystemTcamId vdKey = resolverKey.get<VdResolverKey>().vdKey;
  vdConfig_.insert(vdKey, {});
  handleStatus(vdKey);
}

void ResolverVd::deleteRequest(const ResolverKey& resolverKey) {
  tracer().trace<8>("deleteRequest");
  const IntfIdSystemTcamId vdKey = resolverKey.get<VdResolverKey>().vdKey;
  vdConfig_.erase(vdKey);
  handleStatus(vdKey);
}

void ResolverVd::handleLeftConfig(const IntfIdSystemTcamId& vdKey, const KilnPlatform::Unit* /*unitOpt*/) {
  handleStatus(vdKey);
}

void ResolverVd::handleStatusChange(const IntfIdSystemTcamId& vdKey, const std::uint16_t* /*vlanDomainOpt*/) {
  handleStatus(vdKey);
}

void ResolverVd::handleStatus(const IntfIdSystemTcamId& vdKey) {
  const ResolverKey resolverKey = VdResolverKey{vdKey};
  const bool asked = vdConfig_.has(vdKey);
  const std::uint16_t* vlanDomain = vdStatus_.find(vdKey);
  if (!asked) {
    deleteResolutionState(resolverKey);
    tracer().trace<9>("rsc del");
  } else if (vlanDomain != nullptr) {
    const std::uint16_t allotted = *vlanDomain;
    setResolutionSuccess(resolverKey, allotted);
    tracer().trace<9>("rsc success {}", allotted);
  } else {
    setResolutionPending(resolverKey);
    tracer().trace<9>("rsc pending");
  }
}

Ref<ResolverVd> resolverVdFactory(Ref<const ResolverConfig> resolverConfig,
                                  Ref<ResolverStatus> resolverStatus,
                                  Ref<KilnVlanDomain::VlanDomainConfig> vdConfig,
                                  Ref<const KilnVlanDomain::VlanDomainStatus> vdStatus, std::string name,
                                  Ref<DependencyStatus> dependencyStatus, StageControl smControl) {
  return makeStage<ResolverVd>(std::move(resolverConfig), std::move(resolverStatus), std::move(vdConfig),
                               std::move(vdStatus), std::move(name), std::move(dependencyStatus),
                               std::move(smControl));
}

}  // namespace KilnEmServer
