// The VLAN-domain service: who asks for a domain, and which domain was allotted.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "kiln/platform/Collection.h"
#include "kiln/platform/EmKeys.h"
#include "kiln/platform/FixedString.h"
#include "kiln/platform/Value.h"

namespace KilnVlanDomain {

/// The interfaces for which a domain is asked. The server writes it, the service reads it.
class VlanDomainConfig {
 public:
  using Config = KilnPlatform::KeyedCollection<KilnTunnelNiLib::IntfIdSystemTcamId, KilnPlatform::Unit>;
  explicit VlanDomainConfig(std::unique_ptr<Config> config) : config_(std::move(config)) {}

  Config& config() { return *config_; }
  [[nodiscard]] const Config& config() const { return *config_; }
  void configIs(const KilnTunnelNiLib::IntfIdSystemTcamId& key) { config_->is(key, {}); }
  void configDel(const KilnTunnelNiLib::IntfIdSystemTcamId& key) { config_->del(key); }

  struct configAttr {
    using Entity = VlanDomainConfig;
    using Key = Config::Key;
    using Value = Config::Value;
    static constexpr KilnPlatform::FixedString kName{"config"};
    static Config& of(VlanDomainConfig& entity) { return entity.config(); }
    static const Config& of(const VlanDomainConfig& entity) { return entity.config(); }
  };

 private:
  std::unique_ptr<Config> config_;
};

/// The allotted domains. The service writes it, the server reads it. A domain may stand here before anybody
/// asks for it and after nobody does any more.
class VlanDomainStatus {
 public:
  using Status = KilnPlatform::KeyedCollection<KilnTunnelNiLib::IntfIdSystemTcamId, std::uint16_t>;
  explicit VlanDomainStatus(std::unique_ptr<Status> status) : status_(std::move(status)) {}

  Status& status() { return *status_; }
  [[nodiscard]] const Status& status() const { return *status_; }

  struct statusAttr {
    using Entity = VlanDomainStatus;
    using Key = Status::Key;
    using Value = Status::Value;
    static constexpr KilnPlatform::FixedString kName{"status"};
    static Status& of(VlanDomainStatus& entity) { return entity.status(); }
    static const Status& of(const VlanDomainStatus& entity) { return entity.status(); }
  };

 private:
  std::unique_ptr<Status> status_;
};

}  // namespace KilnVlanDomain
