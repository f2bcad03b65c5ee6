// Keys by handle. A key that is in several collections is stored and hashed once; each collection stores its
// values under the key's handle.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

#include "kiln/platform/Assert.h"
#include "kiln/platform/Collection.h"
#include "kiln/platform/Value.h"
#include "kiln/runtime/collections/AlwaysInline.h"
#include "kiln/runtime/collections/Column.h"
#include "kiln/runtime/collections/FetchAhead.h"
#include "kiln/runtime/collections/HandleIndex.h"
#include "kiln/runtime/collections/KeyFollower.h"
#include "kiln/runtime/collections/PageArena.h"

namespace KilnEmServer {

template <class K>
class KeyUse;

/// All keys of one type that are in any collection or pending list of this thread. A handle is valid while it
/// has at least one use.
///
/// Handles are allocated in pages of kPerPage, each page for keys of one group only: keys that are in the
/// same collections are adjacent there.
template <class K>
class KeySpace {
 public:
  using Handle = std::uint32_t;
  static constexpr Handle kNone = HandleIndex::kNone;
  static constexpr std::size_t kPerPage = ColumnPlaces::kPerPage;

  /// This thread's space. It lives as long as the thread, so that collections of any lifetime may use it.
  static KeySpace& instance() {
    static thread_local auto* const space = new KeySpace;
    return *space;
  }

  /// The handle of a key, or kNone if the key is not in use. If the keys exceed the cache, a recently
  /// released key may still have a handle, under which no collection has a value. `prefetchAt(handle)` is
  /// called with each candidate handle before its key is compared.
  template <class PrefetchAt>
  [[nodiscard]] Handle find(const K& key, PrefetchAt prefetchAt) const {
    // Usually it is the object that was looked up last.
    if (&key == &lastSlot_->key) [[likely]]
      return last_;
    return findOther(key, prefetchAt);
  }
  [[nodiscard]] Handle find(const K& key) const {
    return find(key, [](Handle) {});
  }
  /// The handle of a key, with one more use. A key that was not in use joins the group of its partition, or
  /// `group` if its type has no partitions.
  Handle acquire(const K& key, std::size_t group = 0) {
    obtain(key, group, [](Handle) {});
    ++lastSlot_->uses;
    return last_;
  }
  /// The same without an additional use: if the key was not in use, the caller must take a use immediately.
  template <class PrefetchAt>
  Handle obtain(const K& key, std::size_t group, PrefetchAt prefetchAt) {
    if (&key != &lastSlot_->key) [[unlikely]]
      findOrAdd(key, group, prefetchAt);
    return last_;
  }
  /// One more use of the handle that was last looked up and found, or added.
  void useLast() { ++lastSlot_->uses; }
  /// Releases a use. With the last use the handle is freed, now or soon.
  void release(Handle handle) { release(slot(handle), handle); }
  /// The key of a handle that is in use; its address is stable as long as it is in use.
  [[nodiscard]] const K& key(Handle handle) const { return slot(handle).key; }
  /// Hint: the key is about to be looked up in several collections.
  void setLast(Handle handle) const { setLast(slot(handle), handle); }
  /// Hint: a key that no component holds yet will be looked up. Prefetches its place in the index and returns
  /// the hash, which prefetchFound takes once that place is in the cache.
  [[nodiscard]] std::uint32_t prefetchIndex(const K& key) const {
    const std::uint32_t hash = hashOf(key);
    index_.prefetch(hash);
    return hash;
  }
  /// Prefetches the key's likely slot. Returns the likely handle, or kNone if the key is not in use.
  Handle prefetchFound(std::uint32_t hash, const K& key) const {
    const Handle likely = prefetchFound(hash);
    if (likely != kNone) hintAt(key, likely);
    return likely;
  }
  Handle prefetchFound(std::uint32_t hash) const {
    const Handle likely = index_.find(hash, [](Handle) { return true; });
    if (likely != kNone) prefetch(likely);
    return likely;
  }
  /// Prefetches the key into the cache.
  void prefetch(Handle handle) const {
    if (mayBeInUse(handle)) prefetchUsed(handle);
  }
  /// The same for a handle that is in use.
  KILN_ALWAYS_INLINE void prefetchUsed(Handle handle) const {
    const Slot& prefetched = slot(handle);
    prefetchLine(&prefetched);
    prefetchLine(&prefetched.uses);
  }
  /// Prefetches the data of followers under the key, and of every column if the key remembers its place.
  void prefetchEverywhere(const K& key) const {
    const Handle handle = hintOf(key).handle();
    if (mayBeInUse(handle)) {
      prefetch(handle);
      columns_.prefetch(handle);
    }
    for (const KeyFollower<K>* follower : followers_) follower->prefetchNow(key);
  }
  /// Registers a column by handles of this space for prefetchEverywhere.
  void columnIs(const ColumnPlaces& column) { columns_.add(column); }
  void columnDel(const ColumnPlaces& column) { columns_.remove(column); }
  /// Registers a follower for prefetchEverywhere; it must be removed before it is destroyed.
  void followerIs(const KeyFollower<K>& follower) { followers_.push_back(&follower); }
  void followerDel(const KeyFollower<K>& follower) { std::erase(followers_, &follower); }
  /// The group of the keys that share a page with a handle that is in use, and the first handle after that
  /// page.
  [[nodiscard]] std::size_t groupAt(Handle handle) const { return pageUses_[handle / kPerPage].group; }
  [[nodiscard]] static Handle pageAfter(Handle handle) {
    return static_cast<Handle>((handle / kPerPage + 1) * kPerPage);
  }
  /// Keys in use. If they exceed the cache, a few recently released keys are included.
  [[nodiscard]] std::size_t size() const { return index_.size(); }
  /// Whether the keys and their data are too large for the cache.
  [[nodiscard]] bool exceedsCache() const { return index_.size() >= kExceedsCache; }

 private:
  struct Slot {
    K key{};
    std::uint32_t hash = 0;
    std::uint32_t uses = 0;
  };
  using Slots = std::array<Slot, kPerPage>;
  struct PageUse {
    std::uint32_t group;
    std::uint32_t nextWithRoom = kNone;                     ///< page of the group
    std::array<std::uint64_t, kPerPage / 64> handles = {};  ///< a bit for each that is in use

    [[nodiscard]] bool empty() const {
      std::uint64_t any = 0;
      for (const std::uint64_t word : handles) any |= word;
      return any == 0;
    }
    [[nodiscard]] bool full() const {
      std::uint64_t all = ~std::uint64_t{0};
      for (const std::uint64_t word : handles) all &= word;
      return ~all == 0;
    }
    /// Allocates the least handle that is not in use; there must be one.
    std::uint32_t take() {
      std::size_t word = 0;
      while (~handles[word] == 0) ++word;
      const auto bit = static_cast<unsigned>(std::countr_one(handles[word]));
      handles[word] |= std::uint64_t{1} << bit;
      return static_cast<std::uint32_t>(word * 64 + bit);
    }
    void give(std::uint32_t handle) { handles[handle / 64] &= ~(std::uint64_t{1} << (handle % 64)); }
  };

  static constexpr std::size_t kExceedsCache = 4096;
  /// Flag in the uses of a handle that is in `retired_`.
  static constexpr std::uint32_t kRetired = std::uint32_t{1} << 31U;
  /// Whether keys remember where they were found.
  static constexpr bool kHinted = requires(const K& key) { hintOf(key); };

  friend class KeyUse<K>;

  KeySpace() = default;

  KILN_ALWAYS_INLINE void release(Slot& released, Handle handle) {
    KILN_ASSERT((released.uses & ~kRetired) != 0);
    if (--released.uses == 0) [[unlikely]]
      retire(handle);
  }
  void setLast(Slot& last, Handle handle) const {
    last_ = handle;
    lastSlot_ = &last;
  }
  static std::uint32_t hashOf(const K& key) {
    return static_cast<std::uint32_t>(KilnPlatform::hashValue(key));
  }
  [[nodiscard]] Slot& slot(Handle handle) const { return (*pages_[handle / kPerPage])[handle % kPerPage]; }
  /// Whether any handle of the page is in use.
  [[nodiscard]] bool mayBeInUse(Handle handle) const {
    return handle / kPerPage < pages_.size() && pages_[handle / kPerPage] != nullptr;
  }
  template <class PrefetchAt>
  [[gnu::noinline]] Handle findOther(const K& key, PrefetchAt prefetchAt) const {
    if (isWhereHinted(key) || isLast(key)) return last_;
    return lookUp(hashOf(key), key, prefetchAt);
  }
  /// Afterwards the key is the one that was looked up last.
  template <class PrefetchAt>
  [[gnu::noinline]] void findOrAdd(const K& key, std::size_t group, PrefetchAt prefetchAt) {
    if (isWhereHinted(key) || isLast(key)) return;
    const std::uint32_t hash = hashOf(key);
    if (lookUp(hash, key, prefetchAt) == kNone) add(hash, key, group);
  }
  [[nodiscard]] bool isLast(const K& key) const {
    if (last_ == kNone || !(lastSlot_->key == key)) return false;
    hintAt(key, last_);
    return true;
  }
  /// Whether the key is still at its hinted place; if so, it becomes the one that was looked up last.
  [[nodiscard]] bool isWhereHinted(const K& key) const {
    if constexpr (kHinted) {
      const Handle handle = hintOf(key).handle();
      if (!mayBeInUse(handle)) return false;
      Slot& hinted = slot(handle);
      if (hinted.uses == 0 || (&hinted.key != &key && !(hinted.key == key))) return false;
      setLast(hinted, handle);
      return true;
    } else {
      return false;
    }
  }
  static void hintAt(const K& key, Handle handle) {
    if constexpr (kHinted) hintOf(key).handleIs(handle);
  }
  template <class PrefetchAt>
  [[nodiscard]] Handle lookUp(std::uint32_t hash, const K& key, PrefetchAt prefetchAt) const {
    const Handle found = index_.find(hash, [&](Handle handle) {
      prefetchAt(handle);
      return slot(handle).key == key;
    });
    if (found == kNone) return kNone;
    hintAt(key, found);
    setLast(found);
    return found;
  }

  void add(std::uint32_t hash, const K& key, std::size_t group) {
    const Handle handle = takeFree(groupOf(key, group));
    hintAt(key, handle);
    slot(handle) = {key, hash, 0};
    index_.insert(hash, handle);
    setLast(handle);
  }
  static std::size_t groupOf(const K& key, std::size_t group) {
    using Partition = KilnPlatform::KeyPartition<K>;
    if constexpr (Partition::kGroups > 1) {
      return Partition::groupOf(Partition::of(key));
    } else {
      return group;
    }
  }
  Handle takeFree(std::size_t group) {
    if (group >= withRoom_.size()) withRoom_.resize(group + 1, kNone);
    std::uint32_t& first = withRoom_[group];
    if (first == kNone) {
      first = static_cast<std::uint32_t>(pages_.size());
      pages_.emplace_back();
      pageUses_.push_back({static_cast<std::uint32_t>(group)});
    }
    const std::uint32_t at = first;
    PageUse& use = pageUses_[at];
    const auto handle = static_cast<Handle>(at * kPerPage + use.take());
    if (use.full()) first = use.nextWithRoom;
    PagePtr<Slots>& page = pages_[at];
    if (page == nullptr) page = makePage<Slots>();
    return handle;
  }
  /// The handle has no use left. If the keys exceed the cache, it is freed only after some more were retired,
  /// when its place in the index has been prefetched; until then its key may come into use again.
  [[gnu::noinline]] void retire(Handle handle) {
    if (!exceedsCache()) {
      free(handle);
      return;
    }
    Slot& retired = slot(handle);
    index_.prefetch(retired.hash);
    retired.uses = kRetired;
    freeRetired(std::exchange(retired_[nextRetired_], handle));
    nextRetired_ = (nextRetired_ + 1) % retired_.size();
    if (exceedsCache()) return;
    for (Handle& before : retired_) freeRetired(std::exchange(before, kNone));
  }
  void freeRetired(Handle handle) {
    if (handle == kNone) return;
    Slot& retired = slot(handle);
    retired.uses &= ~kRetired;
    if (retired.uses == 0) free(handle);
  }
  void free(Handle handle) {
    Slot& freed = slot(handle);
    index_.erase(freed.hash, handle);
    if (last_ == handle) forgetLast();
    if constexpr (!std::is_trivially_destructible_v<K>) freed.key = K{};
    PageUse& use = pageUses_[handle / kPerPage];
    if (use.full()) use.nextWithRoom = std::exchange(withRoom_[use.group], handle / kPerPage);
    use.give(handle % kPerPage);
    if (use.empty()) pages_[handle / kPerPage].reset();
    if (index_.size() == 0) clear();
  }
  /// Allocation starts at the first handle again.
  void clear() {
    forgetLast();
    index_.clear();
    forget(pages_);
    forget(pageUses_);
    withRoom_.clear();
  }
  /// Empties a list, and frees its memory if it is large.
  template <class T>
  static void forget(std::vector<T>& list) {
    list.clear();
    if (list.capacity() > 64) list.shrink_to_fit();
  }
  void forgetLast() {
    last_ = kNone;
    lastSlot_ = &noSlot_;
  }

  std::vector<PagePtr<Slots>> pages_;  ///< null if no handle of the page is in use
  std::vector<PageUse> pageUses_;
  std::vector<std::uint32_t> withRoom_;  ///< per group the first page with a handle that is not in use
  HandleIndex index_;
  std::array<Handle, 8> retired_ = {kNone, kNone, kNone, kNone, kNone, kNone, kNone, kNone};
  std::size_t nextRetired_ = 0;
  ColumnList columns_;
  std::vector<const KeyFollower<K>*> followers_;
  // The key that was looked up last is looked up again more often than not.
  mutable Handle last_ = kNone;
  mutable Slot* lastSlot_ = &noSlot_;  ///< never null
  Slot noSlot_;                        ///< a slot that holds no key; marks that no key was looked up
};

/// Keeps a key in use for its own lifetime. Looking up key() is cheap in every collection.
template <class K>
class KeyUse {
 public:
  explicit KeyUse(const K& key) : KeyUse(KeySpace<K>::instance(), KeySpace<K>::instance().acquire(key)) {}
  /// Takes ownership of one use of the handle.
  KeyUse(KeySpace<K>& keys, typename KeySpace<K>::Handle handle)
      : keys_(keys), slot_(keys.slot(handle)), handle_(handle) {
    keys_.setLast(slot_, handle_);
  }
  /// An additional use of a handle that is in use.
  static KeyUse another(KeySpace<K>& keys, typename KeySpace<K>::Handle handle) {
    return KeyUse(keys, keys.slot(handle), handle);
  }
  KILN_ALWAYS_INLINE ~KeyUse() { keys_.release(slot_, handle_); }
  KeyUse(const KeyUse&) = delete;
  KeyUse& operator=(const KeyUse&) = delete;
  [[nodiscard]] const K& key() const { return slot_.key; }

 private:
  KeyUse(KeySpace<K>& keys, typename KeySpace<K>::Slot& slot, typename KeySpace<K>::Handle handle)
      : keys_(keys), slot_(slot), handle_(handle) {
    ++slot.uses;
    keys_.setLast(slot_, handle_);
  }

  KeySpace<K>& keys_;
  typename KeySpace<K>::Slot& slot_;
  typename KeySpace<K>::Handle handle_;
};

/// Keeps a stored key in use, in the size of a handle.
template <class K>
class KeyHold {
 public:
  using Handle = typename KeySpace<K>::Handle;

  KeyHold() = default;
  explicit KeyHold(const K& key) : handle_(KeySpace<K>::instance().acquire(key)) {}
  KeyHold(KeyHold&& other) noexcept : handle_(std::exchange(other.handle_, KeySpace<K>::kNone)) {}
  KeyHold& operator=(KeyHold&& other) noexcept {
    std::swap(handle_, other.handle_);
    return *this;
  }
  KeyHold(const KeyHold&) = delete;
  KeyHold& operator=(const KeyHold&) = delete;
  ~KeyHold() {
    if (*this) KeySpace<K>::instance().release(handle_);
  }

  explicit operator bool() const { return handle_ != KeySpace<K>::kNone; }
  [[nodiscard]] bool is(const K& key) const { return *this && KeySpace<K>::instance().find(key) == handle_; }
  /// The key; there must be one.
  [[nodiscard]] const K& key() const { return KeySpace<K>::instance().key(handle_); }

 private:
  Handle handle_ = KeySpace<K>::kNone;
};

}  // namespace KilnEmServer
