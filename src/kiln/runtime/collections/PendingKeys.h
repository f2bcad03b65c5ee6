// The keys that changed and are not handled yet.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "kiln/platform/Assert.h"
#include "kiln/runtime/collections/AlwaysInline.h"
#include "kiln/runtime/collections/KeySpace.h"
#include "kiln/runtime/collections/PageArena.h"

namespace KilnEmServer {

/// A moment: the low bits of a counter that only grows. Compared moments are less than 2^31 apart.
using Arrival = std::uint32_t;
/// Initial value of such counters: shortly before they wrap around, so that every longer run exercises the
/// wrap-around.
inline constexpr Arrival kFirstArrival = ~Arrival{0} - 100;
/// Whether `a` came before `b`.
inline bool isBefore(Arrival a, Arrival b) {
  return static_cast<std::int32_t>(a - b) < 0;
}

/// Numbers in the order of their arrival, each with its moment: a queue of pages from the thread's arena.
class ArrivalQueue {
 public:
  struct Item {
    std::uint32_t number;
    Arrival arrival;
  };

  ArrivalQueue() = default;
  ~ArrivalQueue() {
    while (first_ != nullptr) dropFirst();
  }
  ArrivalQueue(const ArrivalQueue&) = delete;
  ArrivalQueue& operator=(const ArrivalQueue&) = delete;

  [[nodiscard]] bool empty() const { return size_ == 0; }
  [[nodiscard]] std::size_t size() const { return size_; }

  KILN_ALWAYS_INLINE void push(std::uint32_t number, Arrival arrival) {
    if (end_ == kPerPage) [[unlikely]]
      addPage();
    last_->items[end_++] = {number, arrival};
    ++size_;
  }
  /// Arrival of the first item; the queue must not be empty.
  [[nodiscard]] Arrival firstArrival() const { return first_->items[begin_].arrival; }
  /// The number `ahead` places after the first; `ahead` is below both size() and the size of a page.
  [[nodiscard]] std::uint32_t numberAhead(std::size_t ahead) const {
    const std::size_t at = begin_ + ahead;
    return at < kPerPage ? first_->items[at].number : first_->next->items[at - kPerPage].number;
  }
  /// Visits every item, in order.
  template <class Visitor>
  void forEach(Visitor&& visit) const {
    std::size_t at = begin_;
    std::size_t left = size_;
    for (const Page* page = first_; left != 0; page = page->next, at = 0) {
      for (; left != 0 && at != kPerPage; ++at, --left) visit(page->items[at]);
    }
  }
  /// Removes and returns the first number; the queue must not be empty.
  KILN_ALWAYS_INLINE std::uint32_t pop() {
    KILN_ASSERT(size_ != 0);
    const std::uint32_t number = first_->items[begin_++].number;
    if (--size_ == 0) {
      begin_ = 0;
      end_ = 0;  // the only page is used again
    } else if (begin_ == kPerPage) [[unlikely]] {
      dropFirst();
      begin_ = 0;
    }
    return number;
  }

 private:
  static constexpr std::size_t kPerPage = 255;
  struct Page {
    std::array<Item, kPerPage> items;
    Page* next;
  };
  [[gnu::noinline]] void addPage() {
    Page* page = makePage<Page>().release();
    page->next = nullptr;
    if (last_ == nullptr) {
      first_ = page;
    } else {
      last_->next = page;
    }
    last_ = page;
    end_ = 0;
  }
  [[gnu::noinline]] void dropFirst() {
    const PagePtr<Page> dropped(std::exchange(first_, first_->next));
    if (first_ == nullptr) last_ = nullptr;
  }

  Page* first_ = nullptr;
  Page* last_ = nullptr;
  std::size_t begin_ = 0;       ///< in the first page
  std::size_t end_ = kPerPage;  ///< in the last page; kPerPage if there is none
  std::size_t size_ = 0;
};

/// A queue that holds a key at most once, in the order of arrival.
template <class K>
class PendingKeys {
 public:
  using Handle = typename KeySpace<K>::Handle;

  PendingKeys() = default;
  ~PendingKeys() { clear(); }
  PendingKeys(const PendingKeys&) = delete;
  PendingKeys& operator=(const PendingKeys&) = delete;

  /// Adds the key at the end unless it is in the queue. `arrival` is later than that of the previous call.
  /// True if added.
  KILN_ALWAYS_INLINE bool add(const K& key, Arrival arrival) {
    const Handle handle = keys_.obtain(key, 0, [](Handle) {});
    if (!queued_.set(handle)) return false;
    keys_.useLast();
    queue_.push(handle, arrival);
    return true;
  }
  [[nodiscard]] bool empty() const { return queue_.empty(); }
  [[nodiscard]] std::size_t size() const { return queue_.size(); }
  [[nodiscard]] bool has(const K& key) const {
    return !empty() && queued_.has(keys_.find(key, [](Handle) {}));
  }
  /// Arrival of the first key; the queue must not be empty.
  [[nodiscard]] Arrival headArrival() const { return queue_.firstArrival(); }

  /// Visits every key with its arrival, in order.
  template <class Visitor>
  void forEach(Visitor&& visit) const {
    queue_.forEach([&](const ArrivalQueue::Item& item) { visit(keys_.key(item.number), item.arrival); });
  }

  /// Removes and returns the first key. A later change adds it again.
  [[nodiscard]] KILN_ALWAYS_INLINE KeyUse<K> take() {
    const Handle handle = queue_.pop();
    queued_.reset(handle);
    ++taken_;
    return KeyUse<K>(keys_, handle);
  }
  /// The same as take(), for callers that need only the key.
  K pop() { return K(take().key()); }
  /// Calls `fetch` with the handle of each key that will be handled some time later, once per key.
  template <class Fetch>
  KILN_ALWAYS_INLINE void prefetchFar(Fetch&& fetch) {
    prefetchUntil(far_, kFar, [&](Handle later) {
      keys_.prefetchUsed(later);
      fetch(later);
    });
  }
  /// The same for keys that will be handled soon, and for which prefetchFar was done before; `fetch` gets the
  /// key.
  template <class Fetch>
  KILN_ALWAYS_INLINE void prefetchNear(Fetch&& fetch) {
    prefetchUntil(near_, kNear, [&](Handle soon) { fetch(keys_.key(soon)); });
  }

  void clear() {
    while (!empty()) (void)pop();
  }

 private:
  // Far enough ahead that a fetch from memory completes in time, near enough that the fetched lines are still
  // in the cache.
  static constexpr std::size_t kFar = 20;
  static constexpr std::size_t kNear = 8;
  /// A bit per handle.
  class Bits {
   public:
    /// True if the bit was not set.
    KILN_ALWAYS_INLINE bool set(std::uint32_t handle) {
      if (handle / 64 >= words_.size()) [[unlikely]]
        grow(handle / 64 + 1);
      std::uint64_t& word = words_[handle / 64];
      const std::uint64_t bit = std::uint64_t{1} << (handle % 64);
      if ((word & bit) != 0) return false;
      word |= bit;
      return true;
    }
    [[nodiscard]] bool has(std::uint32_t handle) const {
      return handle / 64 < words_.size() && (words_[handle / 64] >> (handle % 64) & 1) != 0;
    }
    void reset(std::uint32_t handle) { words_[handle / 64] &= ~(std::uint64_t{1} << (handle % 64)); }

   private:
    [[gnu::noinline]] void grow(std::size_t words) { words_.resize(words); }

    std::vector<std::uint64_t> words_;
  };

  /// Calls `fetch` for those of the first `ahead` keys that were not announced yet; `announced` counts the
  /// announced ones.
  template <class Fetch>
  KILN_ALWAYS_INLINE void prefetchUntil(std::size_t& announced, std::size_t ahead, Fetch&& fetch) {
    if (announced < taken_) announced = taken_;
    for (const std::size_t end = taken_ + std::min(queue_.size(), ahead); announced < end; ++announced) {
      fetch(queue_.numberAhead(announced - taken_));
    }
  }

  KeySpace<K>& keys_ = KeySpace<K>::instance();
  ArrivalQueue queue_;
  Bits queued_;
  // Counts over the queue's lifetime: keys taken, and keys that prefetchFar and prefetchNear announced or
  // missed.
  std::size_t taken_ = 0;
  std::size_t far_ = 0;
  std::size_t near_ = 0;
};

}  // namespace KilnEmServer
