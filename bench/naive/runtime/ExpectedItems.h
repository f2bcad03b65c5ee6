// One item after the other.
#pragma once

#include <span>

namespace KilnEmServer {

template <class C, class Item, class KeyOf, class Visit>
void forEachExpected(const C& /*collection*/, std::span<const Item> items, KeyOf&& /*keyOf*/, Visit&& visit) {
  for (const Item& item : items) visit(item);
}

}  // namespace KilnEmServer
