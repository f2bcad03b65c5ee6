// One item after the other, without prefetching.
#pragma once

#include <span>

namespace KilnEmServer {

template <class C, class Item, class KeyOf, class Visit>
void forEachPrefetched(const C& /*collection*/, std::span<const Item> items, KeyOf&& /*keyOf*/,
                       Visit&& visit) {
  for (const Item& item : items) visit(item);
}

template <class C>
class KeyPrefetcher {
 public:
  void prefetch(const C& /*collection*/, const typename C::Key& /*key*/, bool /*next*/) {}
};

}  // namespace KilnEmServer
