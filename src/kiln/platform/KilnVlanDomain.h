// The VLAN-domain service: the requests for domains, and the allotted domains.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "kiln/platform/Attribute.h"
#include "kiln/platform/EmKeys.h"
#include "kiln/platform/Value.h"

namespace KilnVlanDomain {

/// The interfaces for which a domain is requested. The server writes it, the service reads it.
class VlanDomainConfig {
 public:
  KILN_GIVEN_COLLECTION(config, KilnTunnelNiLib::IntfIdSystemTcamId, KilnPlatform::Unit)
  using Config = configColl;
  explicit VlanDomainConfig(std::unique_ptr<Config> config) : config_(std::move(config)) {}

  void configIs(const KilnTunnelNiLib::IntfIdSystemTcamId& key) { config_->is(key, {}); }
  struct configAttr {
    KILN_ATTRIBUTE_BASE(VlanDomainConfig, config, Config::Key, Config::Value)
  };
  using CollectionAttr = configAttr;
};

/// The allotted domains. The service writes it, the server reads it. A domain may be here before it is
/// requested, and after its last request was withdrawn.
class VlanDomainStatus {
 public:
  KILN_GIVEN_COLLECTION(status, KilnTunnelNiLib::IntfIdSystemTcamId, std::uint16_t)
  using Status = statusColl;
  explicit VlanDomainStatus(std::unique_ptr<Status> status) : status_(std::move(status)) {}

  void statusIs(const Status::Key& key, Status::Value vlanDomain) { status_->is(key, vlanDomain); }
  struct statusAttr {
    KILN_ATTRIBUTE_BASE(VlanDomainStatus, status, Status::Key, Status::Value)
  };
};

}  // namespace KilnVlanDomain
