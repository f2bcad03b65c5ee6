// Prefetch requests for keys that are about to be handled.
#pragma once

namespace KilnEmServer {

/// A holder of data under keys of this type that is not stored in a column.
template <class K>
class KeyFollower {
 public:
  /// A change of this key is about to be handled: the data under the key may be prefetched now.
  virtual void prefetchNow(const K& key) const = 0;

 protected:
  ~KeyFollower() = default;
};

}  // namespace KilnEmServer
