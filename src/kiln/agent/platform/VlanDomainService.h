// The VLAN-domain service: allots VLAN domains to the interfaces that the server requests.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "kiln/agent/platform/Collections.h"
#include "kiln/platform/KilnVlanDomain.h"
#include "kiln/platform/Ref.h"
#include "kiln/platform/TaskScheduler.h"
#include "kiln/runtime/stage/StateDigest.h"

namespace KilnAgent {

using KilnPlatform::Ref;

/// The domains that the service may allot automatically. `first` must not exceed `last`.
struct VlanDomainLimits {
  std::uint16_t first = 1;
  std::uint16_t last = 511;
  /// Whether each system TCAM has its own domains, for chips with separate tables. Otherwise interfaces that
  /// do not share never get the same domain, whatever their system TCAMs.
  bool perTcam = false;
  friend bool operator==(const VlanDomainLimits&, const VlanDomainLimits&) = default;
};

/// One change of the state that the service needs to continue after a restart.
struct VlanDomainChange {
  enum class Record : std::uint8_t {
    settings,   ///< mode and limits; the interface has no meaning
    share,      ///< the sharing partner of an interface
    request,    ///< whether the server requests a domain
    allotment,  ///< the domain of an interface
  };
  Record record;
  KilnTunnelNiLib::IntfIdSystemTcamId interface;
};

/// Notified after each such change.
class VlanDomainObserver {
 public:
  virtual void handleDomainChange(const VlanDomainChange& change) = 0;

 protected:
  ~VlanDomainObserver() = default;
};

/// Automatic mode, the initial one: each request gets the first free domain, or the domain of the interfaces
/// with which it shares. Without a free domain it waits; waiting requests are served in the order in which
/// they were made. A domain that is not requested any more is free again.
///
/// Manual mode: allotments are made and revoked by hand, whether or not they are requested.
///
/// The service handles requests on a task of its own, or inside the call that makes them.
class VlanDomainService final : private KilnPlatform::KeySubscriber<KilnTunnelNiLib::IntfIdSystemTcamId> {
 public:
  using Interface = KilnTunnelNiLib::IntfIdSystemTcamId;
  enum class Mode : std::uint8_t { automatic, manual };

  VlanDomainService(const Ref<KilnPlatform::TaskScheduler>& scheduler, VlanDomainLimits limits);
  ~VlanDomainService();
  VlanDomainService(const VlanDomainService&) = delete;
  VlanDomainService& operator=(const VlanDomainService&) = delete;

  [[nodiscard]] const Ref<KilnVlanDomain::VlanDomainConfig>& config() const { return config_; }
  [[nodiscard]] Ref<const KilnVlanDomain::VlanDomainStatus> status() const { return status_; }

  [[nodiscard]] Mode mode() const { return mode_; }
  /// A change to manual mode keeps the allotted domains. A change to automatic mode keeps those that are
  /// requested and frees the others.
  void modeIs(Mode mode);

  [[nodiscard]] bool insideCall() const { return insideCall_; }
  /// Whether subsequent requests are handled inside the change that makes them.
  void insideCallIs(bool insideCall) { insideCall_ = insideCall; }

  /// Interfaces keep their domains, including those outside the new limits.
  void limitsAre(VlanDomainLimits limits);

  /// Manual mode only: gives the interface this domain, any 16-bit value, and replaces its previous one.
  void allot(const Interface& interface, std::uint16_t vlanDomain);
  /// Manual mode only: removes the interface's domain, if it has one.
  void revoke(const Interface& interface);

  /// Automatic allotment gives one domain to `intfId`, `withIntfId` and all interfaces that already share
  /// with either. It is the domain of the group of `withIntfId`, if that group has one. The cost is
  /// proportional to the smaller group and to the number of allotments that change.
  void share(std::uint64_t intfId, std::uint64_t withIntfId, std::uint16_t systemTcamId);

  [[nodiscard]] const VlanDomainLimits& limits() const { return limits_; }
  /// One of the interfaces with which this one shares, the same for the whole group; none if it does not
  /// share.
  [[nodiscard]] std::optional<Interface> sharesWith(const Interface& interface) const;

  // Restores the state of an earlier service: first mode and limits, then sharing, then allotments, then the
  // requests in the order in which they were made. Nothing is allotted before the scheduler runs.
  void restoreAllotment(const Interface& interface, std::uint16_t vlanDomain);
  void restoreRequest(const Interface& interface) { config_->configIs(interface); }

  /// Sets the one observer, which must outlive the service or be replaced; null for none.
  void observerIs(VlanDomainObserver* observer) { observer_ = observer; }

  /// Number of requests without a domain. Walks over all requests.
  [[nodiscard]] std::size_t waiting() const;

  /// Forgets the server's subscriptions, as if its process had died, and schedules its own work again after
  /// the scheduler forgot its tasks.
  void forgetServer();

  /// Describes requests and allotments, and the order of the waiting requests.
  void noteState(KilnEmServer::StateDigest& digest) const;

 private:
  /// Interfaces that share a domain, and their domains: more than one only after manual mode.
  struct Group {
    std::vector<Interface> members;
    std::map<std::uint16_t, std::uint32_t> users;
    std::set<Interface> waiting;
  };

  /// Domains that are allotted together: the number of interfaces that have each, and a lower bound of the
  /// free ones.
  struct Pool {
    std::map<std::uint32_t, std::uint32_t> users;
    std::uint32_t firstMaybeFree = 0;
    std::map<std::uint64_t, Interface> waiting;  ///< by the order of the requests
  };

  void handleChange(const Interface& interface) override;
  void queue(const Interface& interface);
  void tell(VlanDomainChange::Record record, const Interface& interface = {}) const {
    if (observer_ != nullptr) observer_->handleDomainChange({record, interface});
  }
  void handlePending();
  void settleRequest(const Interface& interface);

  Pool& poolOf(const Interface& interface);
  void rebuildPools();
  void serve(const Interface& interface);
  void allotmentIs(const Interface& interface, std::optional<std::uint16_t> vlanDomain);
  void countUser(const Interface& interface, std::uint16_t vlanDomain, bool more);
  void serveWaiting(Pool& pool);
  void wait(const Interface& interface);
  void stopWaiting(const Interface& interface);
  [[nodiscard]] Group* findGroup(const Interface& interface) const;
  [[nodiscard]] static std::optional<std::uint16_t> domainOf(const Group* group);
  std::optional<std::uint16_t> firstFree(Pool& pool) const;
  Ref<Group> groupOf(const Interface& interface);
  void join(const Ref<Group>& group, const Ref<Group>& joining);
  void haveDomain(const std::vector<Interface>& members, std::uint16_t vlanDomain);

  Ref<KilnVlanDomain::VlanDomainConfig> config_;
  Ref<KilnVlanDomain::VlanDomainStatus> status_;
  VlanDomainLimits limits_;
  Mode mode_ = Mode::automatic;
  bool insideCall_ = false;
  bool handling_ = false;                ///< subsequent requests wait for the task
  std::map<std::uint16_t, Pool> pools_;  ///< by system TCAM, or only one
  std::map<Interface, std::uint64_t> waitingOrder_;
  std::uint64_t nextOrder_ = 0;
  std::map<Interface, Ref<Group>> groups_;  ///< only of interfaces that share
  std::deque<Interface> pending_;           ///< interfaces whose request changed, each once
  std::set<Interface> isPending_;
  VlanDomainObserver* observer_ = nullptr;
  KilnPlatform::Task task_;
};

}  // namespace KilnAgent
