#include "agent/VlanDomainService.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "agent/CooperativeScheduler.h"
#include "platform/Assert.h"

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
  queue(interface);
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
    takeBack(interface);
    serveWaiting(poolOf(interface));
  } else if (!asked) {
    stopWaiting(interface);
  }
}

VlanDomainService::Pool& VlanDomainService::poolOf(const Interface& interface) {
  const auto [pool, isNew] = pools_.try_emplace(interface.systemTcamId);
  if (isNew) pool->second.firstMaybeFree = limits_.first;
  return pool->second;
}

std::optional<std::uint16_t> VlanDomainService::firstFree(Pool& pool) const {
  std::uint32_t& domain = pool.firstMaybeFree;
  while (domain <= limits_.last && pool.users.contains(domain)) ++domain;
  if (domain > limits_.last) return std::nullopt;
  return static_cast<std::uint16_t>(domain);
}

std::optional<std::uint16_t> VlanDomainService::domainOfGroup(const Interface& interface) const {
  const auto group = groups_.find(interface);
  if (group == groups_.end()) return std::nullopt;
  for (const Interface& member : *group->second) {
    if (const auto* domain = status_->status().find(member)) return *domain;
  }
  return std::nullopt;
}

void VlanDomainService::serve(const Interface& interface) {
  Pool& pool = poolOf(interface);
  std::optional<std::uint16_t> domain = domainOfGroup(interface);
  if (!domain) domain = firstFree(pool);
  if (!domain) {
    if (waitingOrder_.try_emplace(interface, nextOrder_).second)
      pool.waiting.emplace(nextOrder_++, interface);
    return;
  }
  give(interface, *domain);
  const auto group = groups_.find(interface);
  if (group == groups_.end()) return;
  for (const Interface& member : *group->second) {
    if (waitingOrder_.contains(member)) give(member, *domain);
  }
}

void VlanDomainService::give(const Interface& interface, std::uint16_t vlanDomain) {
  stopWaiting(interface);
  ++poolOf(interface).users[vlanDomain];
  status_->status().is(interface, vlanDomain);
  tell(VlanDomainChange::Record::allotment, interface);
}

void VlanDomainService::takeBack(const Interface& interface) {
  Pool& pool = poolOf(interface);
  const std::uint16_t domain = *status_->status().find(interface);
  if (--pool.users[domain] == 0) {
    pool.users.erase(domain);
    if (domain >= limits_.first) pool.firstMaybeFree = std::min<std::uint32_t>(pool.firstMaybeFree, domain);
  }
  status_->status().del(interface);
  tell(VlanDomainChange::Record::allotment, interface);
}

void VlanDomainService::serveWaiting(Pool& pool) {
  while (!pool.waiting.empty() && firstFree(pool)) {
    const Interface next = pool.waiting.begin()->second;
    serve(next);
  }
}

void VlanDomainService::stopWaiting(const Interface& interface) {
  const auto order = waitingOrder_.find(interface);
  if (order == waitingOrder_.end()) return;
  poolOf(interface).waiting.erase(order->second);
  waitingOrder_.erase(order);
}

void VlanDomainService::limitsAre(VlanDomainLimits limits) {
  KILN_ASSERT(limits.first <= limits.last);
  limits_ = limits;
  tell(VlanDomainChange::Record::settings);
  for (auto& [systemTcamId, pool] : pools_) {
    pool.firstMaybeFree = limits.first;
    serveWaiting(pool);
  }
}

void VlanDomainService::modeIs(Mode mode) {
  if (mode == mode_) return;
  mode_ = mode;
  tell(VlanDomainChange::Record::settings);
  pools_.clear();
  waitingOrder_.clear();
  if (mode == Mode::manual) return;
  KilnPlatform::forEachIn(status_->status(), [this](const Interface& interface, std::uint16_t domain) {
    ++poolOf(interface).users[domain];
    queue(interface);
  });
  KilnPlatform::forEachIn(
      config_->config(), [this](const Interface& interface, const KilnPlatform::Unit&) { queue(interface); });
}

void VlanDomainService::allot(const Interface& interface, std::uint16_t vlanDomain) {
  KILN_ASSERT(mode_ == Mode::manual);
  status_->status().is(interface, vlanDomain);
  tell(VlanDomainChange::Record::allotment, interface);
}

void VlanDomainService::revoke(const Interface& interface) {
  KILN_ASSERT(mode_ == Mode::manual);
  status_->status().del(interface);
  tell(VlanDomainChange::Record::allotment, interface);
}

Ref<VlanDomainService::Group> VlanDomainService::groupOf(const Interface& interface) {
  Ref<Group>& group = groups_[interface];
  if (!group) group = std::make_shared<Group>(Group{interface});
  return group;
}

void VlanDomainService::share(std::uint64_t intfId, std::uint64_t withIntfId, std::uint16_t systemTcamId) {
  const Ref<Group> joining = groupOf({intfId, systemTcamId});
  const Ref<Group> group = groupOf({withIntfId, systemTcamId});
  if (joining == group) return;
  for (const Interface& member : *joining) groups_[member] = group;
  group->insert(group->end(), joining->begin(), joining->end());
  for (const Interface& member : *group) tell(VlanDomainChange::Record::share, member);
  if (mode_ != Mode::automatic) return;
  const std::optional<std::uint16_t> domain = domainOfGroup({intfId, systemTcamId});
  if (!domain) return;
  for (const Interface& member : *group) {
    const auto* current = status_->status().find(member);
    if (current != nullptr ? *current == *domain : !waitingOrder_.contains(member)) continue;
    if (current != nullptr) takeBack(member);
    give(member, *domain);
  }
  serveWaiting(poolOf({intfId, systemTcamId}));
}

std::optional<VlanDomainService::Interface> VlanDomainService::sharesWith(const Interface& interface) const {
  const auto group = groups_.find(interface);
  return group == groups_.end() ? std::nullopt : std::optional(group->second->front());
}

void VlanDomainService::restoreAllotment(const Interface& interface, std::uint16_t vlanDomain) {
  status_->status().is(interface, vlanDomain);
  if (mode_ == Mode::manual) return;
  ++poolOf(interface).users[vlanDomain];
  queue(interface);  // where nobody asks for it any more, it is taken back
}

void VlanDomainService::forgetServer() {
  forgetSubscribers(config_->config());
  forgetSubscribers(status_->status());
  config_->config().subscribe(*this);
  if (!pending_.empty()) task_.scheduleTask();
}

}  // namespace KilnAgent
