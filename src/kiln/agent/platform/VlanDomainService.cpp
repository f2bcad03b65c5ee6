#include "kiln/agent/platform/VlanDomainService.h"

#include <algorithm>
#include <optional>
#include <tuple>
#include <utility>

#include "kiln/agent/platform/CooperativeScheduler.h"
#include "kiln/platform/Assert.h"

namespace KilnAgent {

VlanDomainService::VlanDomainService(const Ref<KilnPlatform::TaskScheduler>& scheduler,
                                     VlanDomainLimits limits)
    : config_(std::make_shared<KilnVlanDomain::VlanDomainConfig>(
          makeCollection<Interface, KilnPlatform::Unit>())),
      status_(std::make_shared<KilnVlanDomain::VlanDomainStatus>(makeCollection<Interface, std::uint16_t>())),
      limits_(limits),
      task_(
          scheduler, 0, "VlanDomainService",
          [](void* self) { static_cast<VlanDomainService*>(self)->handlePending(); }, this, kAgentPatience) {
  KILN_ASSERT(limits.first <= limits.last);
  config_->config().subscribe(*this);
}

VlanDomainService::~VlanDomainService() {
  config_->config().unsubscribe(*this);
}

void VlanDomainService::handleChange(const Interface& interface) {
  tell(VlanDomainChange::Record::request, interface);
  if (!insideCall_ || handling_ || mode_ == Mode::manual) return queue(interface);
  handling_ = true;
  settleRequest(interface);
  handling_ = false;
}

void VlanDomainService::queue(const Interface& interface) {
  if (isPending_.insert(interface).second) pending_.push_back(interface);
  task_.scheduleTask();
}

void VlanDomainService::handlePending() {
  while (!pending_.empty()) {
    const Interface interface = pending_.front();
    pending_.pop_front();
    isPending_.erase(interface);
    if (mode_ == Mode::automatic) settleRequest(interface);
    task_.scheduler()->taskWorkCountInc(1);
    if (!pending_.empty() && task_.scheduler()->taskShouldYield()) {
      task_.scheduler()->taskWorkPendingIs(pending_.size());
      task_.scheduleTask();
      return;
    }
  }
}

void VlanDomainService::settleRequest(const Interface& interface) {
  const bool asked = config_->config().has(interface);
  const bool allotted = status_->status().has(interface);
  if (asked && !allotted) {
    serve(interface);
  } else if (!asked && allotted) {
    allotmentIs(interface, std::nullopt);
    serveWaiting(poolOf(interface));
  } else if (!asked) {
    stopWaiting(interface);
  }
}

VlanDomainService::Pool& VlanDomainService::poolOf(const Interface& interface) {
  const std::uint16_t key = limits_.perTcam ? interface.systemTcamId : std::uint16_t{0};
  const auto [pool, isNew] = pools_.try_emplace(key);
  if (isNew) pool->second.firstMaybeFree = limits_.first;
  return pool->second;
}

std::optional<std::uint16_t> VlanDomainService::firstFree(Pool& pool) const {
  std::uint32_t& domain = pool.firstMaybeFree;
  while (domain <= limits_.last && pool.users.contains(domain)) ++domain;
  if (domain > limits_.last) return std::nullopt;
  return static_cast<std::uint16_t>(domain);
}

VlanDomainService::Group* VlanDomainService::findGroup(const Interface& interface) const {
  const auto group = groups_.find(interface);
  return group == groups_.end() ? nullptr : group->second.get();
}

std::optional<std::uint16_t> VlanDomainService::domainOf(const Group* group) {
  if (group == nullptr || group->users.empty()) return std::nullopt;
  return group->users.begin()->first;
}

void VlanDomainService::serve(const Interface& interface) {
  Group* const group = findGroup(interface);
  std::optional<std::uint16_t> domain = domainOf(group);
  if (!domain) domain = firstFree(poolOf(interface));
  if (!domain) return wait(interface);
  allotmentIs(interface, domain);
  while (group != nullptr && !group->waiting.empty()) allotmentIs(*group->waiting.begin(), domain);
}

void VlanDomainService::allotmentIs(const Interface& changed, std::optional<std::uint16_t> vlanDomain) {
  const Interface interface = changed;
  const std::optional<std::uint16_t> before = status_->status().get(interface);
  if (before) countUser(interface, *before, false);
  if (vlanDomain) {
    stopWaiting(interface);
    countUser(interface, *vlanDomain, true);
    status_->status().is(interface, *vlanDomain);
  } else {
    status_->status().del(interface);
  }
  tell(VlanDomainChange::Record::allotment, interface);
}

void VlanDomainService::countUser(const Interface& interface, std::uint16_t vlanDomain, bool more) {
  const auto count = [&](auto& users) {
    if (more) {
      ++users[vlanDomain];
    } else if (--users[vlanDomain] == 0) {
      users.erase(vlanDomain);
    }
  };
  Pool& pool = poolOf(interface);
  count(pool.users);
  if (!more && vlanDomain >= limits_.first) {
    pool.firstMaybeFree = std::min<std::uint32_t>(pool.firstMaybeFree, vlanDomain);
  }
  if (Group* group = findGroup(interface)) count(group->users);
}

void VlanDomainService::serveWaiting(Pool& pool) {
  while (!pool.waiting.empty() && firstFree(pool)) {
    const Interface next = pool.waiting.begin()->second;
    serve(next);
  }
}

void VlanDomainService::wait(const Interface& interface) {
  if (!waitingOrder_.try_emplace(interface, nextOrder_).second) return;
  poolOf(interface).waiting.emplace(nextOrder_++, interface);
  if (Group* group = findGroup(interface)) group->waiting.insert(interface);
}

void VlanDomainService::stopWaiting(const Interface& interface) {
  const auto order = waitingOrder_.find(interface);
  if (order == waitingOrder_.end()) return;
  poolOf(interface).waiting.erase(order->second);
  waitingOrder_.erase(order);
  if (Group* group = findGroup(interface)) group->waiting.erase(interface);
}

void VlanDomainService::rebuildPools() {
  pools_.clear();
  KilnPlatform::forEachIn(status_->status(), [this](const Interface& interface, std::uint16_t domain) {
    ++poolOf(interface).users[domain];
  });
  for (const auto& [interface, order] : waitingOrder_) poolOf(interface).waiting.emplace(order, interface);
}

void VlanDomainService::limitsAre(VlanDomainLimits limits) {
  KILN_ASSERT(limits.first <= limits.last);
  const bool otherPools = limits.perTcam != limits_.perTcam;
  limits_ = limits;
  tell(VlanDomainChange::Record::settings);
  if (otherPools) rebuildPools();
  for (auto& [key, pool] : pools_) {
    pool.firstMaybeFree = limits.first;
    serveWaiting(pool);
  }
}

void VlanDomainService::modeIs(Mode mode) {
  if (mode == mode_) return;
  mode_ = mode;
  tell(VlanDomainChange::Record::settings);
  if (mode == Mode::manual) {
    while (!waitingOrder_.empty()) {
      const Interface interface = waitingOrder_.begin()->first;
      stopWaiting(interface);
    }
    return;
  }
  KilnPlatform::forEachIn(status_->status(),
                          [this](const Interface& interface, std::uint16_t /*domain*/) { queue(interface); });
  KilnPlatform::forEachIn(
      config_->config(), [this](const Interface& interface, const KilnPlatform::Unit&) { queue(interface); });
}

std::size_t VlanDomainService::waiting() const {
  std::size_t count = 0;
  KilnPlatform::forEachIn(config_->config(), [&](const Interface& interface, const KilnPlatform::Unit&) {
    if (!status_->status().has(interface)) ++count;
  });
  return count;
}

void VlanDomainService::allot(const Interface& interface, std::uint16_t vlanDomain) {
  KILN_ASSERT(mode_ == Mode::manual);
  allotmentIs(interface, vlanDomain);
}

void VlanDomainService::revoke(const Interface& interface) {
  KILN_ASSERT(mode_ == Mode::manual);
  allotmentIs(interface, std::nullopt);
}

Ref<VlanDomainService::Group> VlanDomainService::groupOf(const Interface& interface) {
  Ref<Group>& group = groups_[interface];
  if (group) return group;
  group = std::make_shared<Group>();
  group->members = {interface};
  if (const auto domain = status_->status().get(interface)) group->users[*domain] = 1;
  if (waitingOrder_.contains(interface)) group->waiting.insert(interface);
  tell(VlanDomainChange::Record::share, interface);
  return group;
}

void VlanDomainService::join(const Ref<Group>& group, const Ref<Group>& joining) {
  group->members.insert(group->members.end(), joining->members.begin(), joining->members.end());
  for (const auto& [domain, users] : joining->users) group->users[domain] += users;
  group->waiting.insert(joining->waiting.begin(), joining->waiting.end());
  for (const Interface& member : joining->members) {
    groups_[member] = group;
    tell(VlanDomainChange::Record::share, member);
  }
}

/// The members that have another domain, or wait for one, get this one now.
void VlanDomainService::haveDomain(const std::vector<Interface>& members, std::uint16_t vlanDomain) {
  for (const Interface& member : members) {
    const std::optional<std::uint16_t> current = status_->status().get(member);
    if (current ? *current != vlanDomain : waitingOrder_.contains(member)) allotmentIs(member, vlanDomain);
  }
}

void VlanDomainService::share(std::uint64_t intfId, std::uint64_t withIntfId, std::uint16_t systemTcamId) {
  const Ref<Group> own = groupOf({intfId, systemTcamId});
  const Ref<Group> with = groupOf({withIntfId, systemTcamId});
  if (own == with) return;
  const std::optional<std::uint16_t> domain =
      domainOf(with.get()) ? domainOf(with.get()) : domainOf(own.get());
  const bool ownIsLarger = own->members.size() > with->members.size();
  const Ref<Group>& larger = ownIsLarger ? own : with;
  const Ref<Group>& smaller = ownIsLarger ? with : own;
  const bool largerHasIt =
      domain && larger->waiting.empty() && larger->users.size() == 1 && larger->users.contains(*domain);
  join(larger, smaller);
  if (mode_ != Mode::automatic || !domain) return;
  const std::vector<Interface> members = largerHasIt ? smaller->members : larger->members;
  haveDomain(members, *domain);
  serveWaiting(poolOf({intfId, systemTcamId}));
}

std::optional<VlanDomainService::Interface> VlanDomainService::sharesWith(const Interface& interface) const {
  const Group* group = findGroup(interface);
  return group == nullptr ? std::nullopt : std::optional(group->members.front());
}

void VlanDomainService::restoreAllotment(const Interface& interface, std::uint16_t vlanDomain) {
  allotmentIs(interface, vlanDomain);
  if (mode_ == Mode::automatic) queue(interface);  // released if it is not requested any more
}

void VlanDomainService::forgetServer() {
  forgetSubscribers(config_->config());
  forgetSubscribers(status_->status());
  config_->config().subscribe(*this);
  if (!pending_.empty()) task_.scheduleTask();
}

// The number of users of a domain follows from the allotments. Of a pool's search position only the first
// free domain is visible outside. An unused pool is equivalent to no pool.
void VlanDomainService::noteState(KilnEmServer::StateDigest& digest) const {
  digest.addPart("vlanDomainConfig", config_->config());
  digest.addPart("vlanDomainStatus", status_->status());
  digest.begin("VlanDomainService");
  digest.add(std::tie(limits_.first, limits_.last, limits_.perTcam, mode_, insideCall_, pending_));
  for (const auto& [tcam, pool] : pools_) {
    std::uint32_t free = pool.firstMaybeFree;
    while (free <= limits_.last && pool.users.contains(free)) ++free;
    if (pool.users.empty() && pool.waiting.empty() && free == limits_.first) continue;
    digest.add(std::tie(tcam, free));
    for (const auto& [order, interface] : pool.waiting) digest.add(interface);
    digest.add(pool.waiting.size());
  }
  for (const auto& [interface, group] : groups_) {
    if (group->members.front() != interface) continue;
    digest.add(std::tie(group->members, group->users, group->waiting));
  }
}

}  // namespace KilnAgent
