// Resolves VLAN domains through the VLAN-domain service.
#pragma once

#include <cstdint>
#include <string>

#include "kiln/compose/ResolverBase.h"
#include "kiln/platform/KilnVlanDomain.h"

namespace KilnEmServer {

/// Success if the service has allotted the requested domain, pending if it has not; it never fails. The
/// service's configuration outlives the server: the resolver takes over its content at start, and the sweep
/// releases what no composer requests.
class ResolverVd final : public ResolverBase {
 public:
  ResolverVd(Ref<const ResolverConfig> resolverConfig, Ref<ResolverStatus> resolverStatus,
             Ref<KilnVlanDomain::VlanDomainConfig> vdConfig,
             Ref<const KilnVlanDomain::VlanDomainStatus> vdStatus, std::string name,
             Ref<DependencyStatus> dependencyStatus, StageControl smControl);

  void makeRequest(const ResolverKey& resolverKey) override;
  void deleteRequest(const ResolverKey& resolverKey) override;
  /// Updates the resolution from the request and the allotment.
  void handleStatus(const KilnTunnelNiLib::IntfIdSystemTcamId& vdKey);
  /// Whether this resolver requested the domain.
  [[nodiscard]] bool owns(const KilnTunnelNiLib::IntfIdSystemTcamId& vdKey) const {
    return resolverStatus().statusHas(VdResolverKey{vdKey});
  }

 private:
  void handleLeftConfig(const KilnTunnelNiLib::IntfIdSystemTcamId& vdKey, const KilnPlatform::Unit* unitOpt);
  void handleStatusChange(const KilnTunnelNiLib::IntfIdSystemTcamId& vdKey,
                          const std::uint16_t* vlanDomainOpt);

  DirectOutput<KilnVlanDomain::VlanDomainConfig::configAttr, "vdConfig"> vdConfig_;
  /// The requests of an earlier server.
  Input<KilnVlanDomain::VlanDomainConfig::configAttr, "vdConfig", &ResolverVd::handleLeftConfig,
        "from( vdConfig.config[] ): vdKey={} unitOpt={}", Reaction::none>
      leftConfig_;
  Input<KilnVlanDomain::VlanDomainStatus::statusAttr, "vdStatus", &ResolverVd::handleStatusChange,
        "from( vdStatus.status[] ): vdKey={} vlanDomainOpt={}">
      vdStatus_;
};

/// Creates the resolver and starts it. Once ready, it answers every request inside the call that makes it.
Ref<ResolverVd> resolverVdFactory(Ref<const ResolverConfig> resolverConfig,
                                  Ref<ResolverStatus> resolverStatus,
                                  Ref<KilnVlanDomain::VlanDomainConfig> vdConfig,
                                  Ref<const KilnVlanDomain::VlanDomainStatus> vdStatus, std::string name,
                                  Ref<DependencyStatus> dependencyStatus, StageControl smControl);

}  // namespace KilnEmServer
