// The agent's own collections: made by the server's implementation, held by what publishes them.
#pragma once

#include <memory>

#include "platform/Collection.h"
#include "runtime/Collection.h"

namespace KilnAgent {

template <class K, class V>
std::unique_ptr<KilnPlatform::KeyedCollection<K, V>> makeCollection() {
  return std::make_unique<KilnEmServer::Collection<K, V>>();
}

/// Drops every subscriber of a collection that makeCollection made, without telling it: as if the process
/// that subscribed had died.
template <class K, class V>
void forgetSubscribers(const KilnPlatform::KeyedCollection<K, V>& collection) {
  static_cast<const KilnEmServer::Collection<K, V>&>(collection).forgetSubscribers();
}

}  // namespace KilnAgent
