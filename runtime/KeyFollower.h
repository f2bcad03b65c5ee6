// Told of keys whose change is on its way.
#pragma once

namespace KilnEmServer {

/// Whoever looks under keys of a type where no column is.
template <class K>
class KeyFollower {
 public:
  /// A change goes on under this key: what lies under it is to be fetched now.
  virtual void expectNow(const K& key) const = 0;

 protected:
  ~KeyFollower() = default;
};

}  // namespace KilnEmServer
