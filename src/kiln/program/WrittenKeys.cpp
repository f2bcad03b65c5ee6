#include "kiln/program/WrittenKeys.h"

#include <algorithm>
#include <utility>

namespace KilnEmServer {

void WrittenKeys::written(const EmHwKey& hwKey, const EmLogicalKey& emLogicalKey, OperationNumber operation) {
  if (!emWrittenKeys_) return;
  Owners& owners = owners_.obtain(hwKey);
  Owner* known = find(owners, emLogicalKey);
  if (known != nullptr) {
    known->last = operation;
  } else {
    add(owners, emLogicalKey, operation);
  }
}

WrittenKeys::Owner* WrittenKeys::find(Owners& owners, const EmLogicalKey& emLogicalKey) {
  const auto isIt = [&](const Owner& owner) { return owner.emLogicalKey.is(emLogicalKey); };
  if (isIt(owners.first)) return &owners.first;
  if (isIt(owners.second)) return &owners.second;
  if (owners.others == nullptr) return nullptr;
  const auto at = std::find_if(owners.others->begin(), owners.others->end(), isIt);
  return at == owners.others->end() ? nullptr : &*at;
}

void WrittenKeys::add(Owners& owners, const EmLogicalKey& emLogicalKey, OperationNumber operation) {
  Owner owner{KeyHold<EmLogicalKey>(emLogicalKey), operation};
  if (!owners.first.emLogicalKey) {
    owners.first = std::move(owner);
  } else if (!owners.second.emLogicalKey) {
    owners.second = std::move(owner);
  } else {
    if (owners.others == nullptr) owners.others = std::make_unique<std::vector<Owner>>();
    owners.others->push_back(std::move(owner));
  }
  count(emLogicalKey, true);
}

void WrittenKeys::answered(const EmHwKey& hwKey, OperationNumber operation, bool holds) {
  Owners* owners = !emWrittenKeys_ ? nullptr : owners_.find(hwKey);
  if (owners == nullptr) return;
  dropOvertaken(*owners, operation, holds);
  if (!owners->first.emLogicalKey) owners_.del(hwKey);
}

void WrittenKeys::dropOvertaken(Owners& owners, OperationNumber operation, bool holds) {
  const auto drop = [&](const Owner& owner) {
    const bool overtaken = owner.last < operation || (owner.last == operation && !holds);
    if (overtaken) count(owner.emLogicalKey.key(), false);
    return overtaken;
  };
  if (owners.others != nullptr) {
    std::erase_if(*owners.others, drop);
    if (owners.others->empty()) owners.others.reset();
  }
  if (owners.second.emLogicalKey && drop(owners.second)) owners.second = takeOther(owners);
  if (drop(owners.first)) owners.first = std::exchange(owners.second, takeOther(owners));
}

WrittenKeys::Owner WrittenKeys::takeOther(Owners& owners) {
  if (owners.others == nullptr) return {};
  Owner taken = std::move(owners.others->back());
  owners.others->pop_back();
  if (owners.others->empty()) owners.others.reset();
  return taken;
}

void WrittenKeys::count(const EmLogicalKey& emLogicalKey, bool more) {
  const std::uint32_t* present = emWrittenKeys_->find(emLogicalKey);
  const std::uint32_t before = present == nullptr ? 0 : *present;
  const std::uint32_t now = more ? before + 1 : before - 1;
  if (now == 0) {
    emWrittenKeys_->erase(emLogicalKey);
  } else {
    emWrittenKeys_->insert(emLogicalKey, now);
  }
}

template <class Visitor>
void WrittenKeys::forEachOwner(const Owners& owners, Visitor&& visit) {
  if (owners.first.emLogicalKey) visit(owners.first);
  if (owners.second.emLogicalKey) visit(owners.second);
  if (owners.others == nullptr) return;
  for (const Owner& owner : *owners.others) visit(owner);
}

// Numbers are compared only with those of unanswered operations, and described with these.
void WrittenKeys::noteState(StateDigest& digest) const {
  digest.unordered([&](auto&& item) {
    owners_.forEach([&](const EmHwKey& hwKey, const Owners& owners) {
      forEachOwner(owners, [&](const Owner& owner) { item(hwKey, owner.emLogicalKey.key()); });
    });
  });
}

void WrittenKeys::noteOperation(StateDigest& digest, const EmHwKey& hwKey, OperationNumber operation) const {
  const Owners* owners = owners_.find(hwKey);
  if (owners == nullptr) return;
  digest.unordered([&](auto&& item) {
    forEachOwner(*owners, [&](const Owner& owner) {
      item(owner.emLogicalKey.key(), owner.last < operation, owner.last == operation);
    });
  });
}

}  // namespace KilnEmServer
