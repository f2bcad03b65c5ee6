#include <array>
#include <cstdlib>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

#include "bench/Chain.h"
#include "kiln/runtime/collections/PageArena.h"

namespace KilnBench {
namespace {

constexpr std::size_t kBatch = 256;
constexpr std::size_t kAhead = 16;  ///< distance between the handled and the prefetched item

using Handle = std::uint32_t;
constexpr Handle kNone = ~Handle{0};

/// Prefetches the lines of `bytes` bytes. Always inlined: g++ 12 drops calls to a function that does nothing
/// else.
template <std::size_t bytes>
[[gnu::always_inline]] inline void fetch(const void* memory) {
  const auto* begin = static_cast<const std::byte*>(memory);
  __builtin_prefetch(begin);
  if constexpr (bytes > 64) __builtin_prefetch(begin + 64);
  if constexpr (bytes > 8) __builtin_prefetch(begin + bytes - 8);
}

/// Elements that never move, by handle, in the same kind of memory as the server's.
template <class T>
class Pages {
 public:
  static constexpr std::size_t kPerPage = 128;
  [[nodiscard]] T& operator[](Handle handle) {
    return pages_[handle / kPerPage]->elements[handle % kPerPage];
  }
  [[nodiscard]] const T& operator[](Handle handle) const {
    return pages_[handle / kPerPage]->elements[handle % kPerPage];
  }
  /// Makes room for a handle, the one after the greatest so far.
  void makeRoom(Handle handle) {
    if (handle == pages_.size() * kPerPage) pages_.push_back(KilnEmServer::makePage<Page>());
  }

 private:
  struct Page {
    std::array<T, kPerPage> elements;
  };
  std::vector<KilnEmServer::PagePtr<Page>> pages_;
};

class Bits {
 public:
  void makeRoom(Handle handle) {
    if (handle / 64 == words_.size()) words_.push_back(0);
  }
  [[nodiscard]] bool test(Handle handle) const { return (words_[handle / 64] >> (handle % 64) & 1U) != 0; }
  /// True if it was not set.
  bool set(Handle handle) {
    const std::uint64_t before = words_[handle / 64];
    words_[handle / 64] = before | std::uint64_t{1} << (handle % 64);
    return words_[handle / 64] != before;
  }
  void reset(Handle handle) { words_[handle / 64] &= ~(std::uint64_t{1} << (handle % 64)); }

 private:
  std::vector<std::uint64_t> words_;
};

/// From hashes to handles: linear probing over 8-byte cells.
class Index {
 public:
  [[gnu::always_inline]] inline void fetchCell(std::uint32_t hash) const { fetch<8>(&cells_[hash & mask()]); }
  /// The handle that is probably the one of the key with this hash.
  [[nodiscard]] Handle likely(std::uint32_t hash) const {
    return find(hash, [](Handle) { return true; });
  }
  template <class Equal>
  [[nodiscard]] Handle find(std::uint32_t hash, Equal&& equal) const {
    for (std::size_t at = hash & mask(); cells_[at].next != 0; at = (at + 1) & mask()) {
      if (cells_[at].hash == hash && equal(cells_[at].next - 1)) return cells_[at].next - 1;
    }
    return kNone;
  }
  void insert(std::uint32_t hash, Handle handle) {
    if (++size_ * 4 > cells_.size() * 3) grow();
    place({hash, handle + 1});
  }
  void erase(std::uint32_t hash, Handle handle) {
    std::size_t hole = hash & mask();
    while (cells_[hole].next != handle + 1) hole = (hole + 1) & mask();
    for (std::size_t at = (hole + 1) & mask(); cells_[at].next != 0; at = (at + 1) & mask()) {
      if (((at - (cells_[at].hash & mask())) & mask()) < ((at - hole) & mask())) continue;
      cells_[hole] = cells_[at];
      hole = at;
    }
    cells_[hole] = {};
    --size_;
  }

 private:
  struct Cell {
    std::uint32_t hash = 0;
    std::uint32_t next = 0;  ///< the handle plus one; 0 in an empty cell
  };
  [[nodiscard]] std::size_t mask() const { return cells_.size() - 1; }
  void place(Cell cell) {
    std::size_t at = cell.hash & mask();
    while (cells_[at].next != 0) at = (at + 1) & mask();
    cells_[at] = cell;
  }
  void grow() {
    const std::vector<Cell> before = std::exchange(cells_, std::vector<Cell>(cells_.size() * 2));
    for (const Cell& cell : before) {
      if (cell.next != 0) place(cell);
    }
  }

  std::vector<Cell> cells_ = std::vector<Cell>(1024);
  std::size_t size_ = 0;
};

template <std::size_t stage>
struct Column {
  Pages<ChainValue<stage>> values;
  Bits present;
  Bits dirty;  ///< in the list of changes that this stage must handle
};

template <class Stages>
struct Columns;
template <std::size_t... stages>
struct Columns<std::index_sequence<stages...>> {
  using Type = std::tuple<Column<stages>...>;
};

/// A request that is not handled yet.
struct Change {
  const ChainRequest* request;
  std::uint32_t hash;
};

}  // namespace

struct FloorContent {
  FloorContent() { requests.reserve(kBatch); }

  void publish(std::uint32_t n, std::uint32_t version) { requests.push_back(chainPublication(n, version)); }
  void withdraw(std::uint32_t n) { requests.push_back(chainWithdrawal(n)); }
  void handIn() {
    for (const ChainRequest& request : requests) add(request);
    handleBatch();
    requests.clear();
  }
  void settle() {}
  [[nodiscard]] std::uint32_t settled(std::uint32_t version) const {
    const auto& last = std::get<kStages - 1>(columns);
    std::uint32_t count = 0;
    for (Handle handle = 0; handle < used; ++handle) {
      if (last.present.test(handle) && last.values[handle].words[0] == lastWordOf(version)) ++count;
    }
    return count;
  }

  template <std::size_t stage>
  auto& column() {
    return std::get<stage>(columns);
  }

  void add(const ChainRequest& request) {
    Change& change = intake[waiting++];
    change = {&request, static_cast<std::uint32_t>(hashOf(request.key))};
    index.fetchCell(change.hash);
    if (waiting == kBatch) handleBatch();
  }

  [[gnu::always_inline]] inline void fetchRequest(std::uint32_t hash) {
    const Handle handle = index.likely(hash);
    if (handle == kNone) return;
    fetch<sizeof(ChainKey)>(&keys[handle]);
    fetch<kValueBytes[0]>(&column<0>().values[handle]);
  }

  Handle intern(const Change& change) {
    const Handle found = find(change);
    if (found != kNone) return found;
    Handle handle = used;
    if (free.empty()) {
      makeRoom(used++);
    } else {
      handle = free.back();
      free.pop_back();
    }
    keys[handle] = change.request->key;
    index.insert(change.hash, handle);
    return handle;
  }
  [[nodiscard]] Handle find(const Change& change) const {
    return index.find(change.hash, [&](Handle handle) { return keys[handle] == change.request->key; });
  }
  void makeRoom(Handle handle) {
    keys.makeRoom(handle);
    std::apply(
        [handle](auto&... each) {
          (each.values.makeRoom(handle), ...);
          (each.present.makeRoom(handle), ...);
          (each.dirty.makeRoom(handle), ...);
        },
        columns);
  }

  void takeIn(const Change& change) {
    auto& own = column<0>();
    if (!change.request->wanted) {
      const Handle handle = find(change);
      if (handle == kNone || !own.present.test(handle)) return;
      own.present.reset(handle);
      if (column<1>().dirty.set(handle)) changed[0].push_back(handle);
      return;
    }
    const Handle handle = intern(change);
    const ChainValue<0>& value = change.request->value;
    if (!own.present.set(handle) && own.values[handle] == value) return;
    own.values[handle] = value;
    if (column<1>().dirty.set(handle)) changed[0].push_back(handle);
  }

  template <std::size_t stage>
  void handleStage() {
    const std::vector<Handle>& in = changed[stage - 1];
    for (std::size_t i = 0; i < in.size(); ++i) {
      if (i + kAhead < in.size()) {
        fetch<kValueBytes[stage - 1]>(&column<stage - 1>().values[in[i + kAhead]]);
        fetch<kValueBytes[stage]>(&column<stage>().values[in[i + kAhead]]);
      }
      handle<stage>(in[i]);
    }
    changed[stage - 1].clear();
  }
  template <std::size_t stage>
  void handle(Handle handle) {
    auto& own = column<stage>();
    own.dirty.reset(handle);
    if (column<stage - 1>().present.test(handle)) {
      const auto value = chainStep<stage>(column<stage - 1>().values[handle]);
      if (!own.present.set(handle) && own.values[handle] == value) return;
      own.values[handle] = value;
    } else {
      if (!own.present.test(handle)) return;
      own.present.reset(handle);
    }
    if constexpr (stage + 1 < kStages) {
      if (column<stage + 1>().dirty.set(handle)) changed[stage].push_back(handle);
    } else {
      changed[stage].push_back(handle);
    }
  }
  /// A key that was removed from the last stage was removed from all.
  void release() {
    for (const Handle handle : changed[kStages - 1]) {
      if (column<kStages - 1>().present.test(handle)) continue;
      index.erase(static_cast<std::uint32_t>(hashOf(keys[handle])), handle);
      free.push_back(handle);
    }
    changed[kStages - 1].clear();
  }

  void handleBatch() {
    for (std::size_t i = 0; i < waiting; ++i) {
      if (i + kAhead < waiting) fetchRequest(intake[i + kAhead].hash);
      takeIn(intake[i]);
    }
    waiting = 0;
    [this]<std::size_t... before>(std::index_sequence<before...>) {
      (handleStage<before + 1>(), ...);
    }
    (std::make_index_sequence<kStages - 1>());
    release();
  }

  Index index;
  Pages<ChainKey> keys;
  std::vector<Handle> free;
  Handle used = 0;
  Columns<std::make_index_sequence<kStages>>::Type columns;
  std::array<std::vector<Handle>, kStages> changed;  ///< by the stage that made the change
  std::vector<ChainRequest> requests;                ///< created and not submitted yet
  std::array<Change, kBatch> intake{};
  std::size_t waiting = 0;
};

template class Chain<FloorContent>;

}  // namespace KilnBench
