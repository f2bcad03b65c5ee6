// Told of keys whose change is on its way.
#pragma once

namespace KilnEmServer {

/// One who keeps something under keys of this type elsewhere than in a column.
template <class K>
class KeyFollower {
 public:
  /// A change goes on under this key: what lies under it may be fetched now.
  virtual void expectNow(const K& key) const = 0;

 protected:
  ~KeyFollower() = default;
};

}  // namespace KilnEmServer
