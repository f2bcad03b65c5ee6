// A keyed collection whose entries are stored, and used, in a mapped chip file.
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <boost/unordered/unordered_flat_set.hpp>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kiln/agent/chip/ChipFile.h"
#include "kiln/agent/io/RecordCode.h"
#include "kiln/platform/Assert.h"
#include "kiln/platform/Value.h"
#include "kiln/runtime/collections/Collection.h"

namespace KilnAgent {

/// Entries in a chip file, with an index in memory that is built when the file is opened. An entry never
/// moves; a walk goes from the last slot to the first.
///
/// A slot holds a key, two places for its value, and one word that says which of them is current, or that the
/// slot is free. A change is prepared in the place that is not current, and takes effect by the store of that
/// word. A process that is killed has made the stores of all earlier instructions and of no later ones, so
/// only reordering by the compiler must be prevented. The checksum of a value covers key, value and word.
template <class K, class V>
class MappedCollection final : public KilnPlatform::KeyedCollection<K, V> {
 public:
  /// Throws InputError if the file cannot be used or an entry in it is damaged; the file is then not changed.
  explicit MappedCollection(const std::string& path)
      : file_(path, layout()), index_(0, IndexHash{this}, IndexEqual{this}) {
    for (std::size_t at = file_.slots(); at-- != 0;) load(static_cast<std::uint32_t>(at));
  }

  [[nodiscard]] const V* find(const K& key) const override {
    const auto at = index_.find(Probe{&key});
    return at == index_.end() ? nullptr : &current(slot(*at)).value;
  }
  [[nodiscard]] std::size_t size() const override { return index_.size(); }
  /// Whether another key can be inserted; grows the file if necessary.
  bool roomForOne() {
    if (!free_.empty()) return true;
    const std::size_t before = file_.slots();
    if (!file_.grow()) return false;
    for (std::size_t at = file_.slots(); at-- != before;) free_.push_back(static_cast<std::uint32_t>(at));
    return true;
  }

  /// It is an assertion failure to insert a key without room for it.
  bool is(const K& key, const V& value) override {
    const K changed = key;
    const auto at = index_.find(Probe{&changed});
    if (at != index_.end()) {
      Slot& own = slot(*at);
      if (current(own).value == value) return false;
      publish(own, value, 1 - (own.word & 1U));
    } else {
      KILN_ASSERT(roomForOne());
      const std::uint32_t inserted = free_.back();
      free_.pop_back();
      slot(inserted).key = changed;
      publish(slot(inserted), value, 0);
      index_.insert(inserted);
    }
    subscribers_.notify(changed);
    return true;
  }

  bool del(const K& key) override {
    const K deleted = key;
    const auto at = index_.find(Probe{&deleted});
    if (at == index_.end()) return false;
    const std::uint32_t freed = *at;
    index_.erase(at);
    store(slot(freed), 0);
    free_.push_back(freed);
    subscribers_.notify(deleted);
    return true;
  }

  const K* scanNext(KilnPlatform::ScanCursor<K>& cursor) const override {
    if (!std::exchange(cursor.started, true)) cursor.index = file_.slots();
    while (cursor.index != 0) {
      const Slot& candidate = slot(--cursor.index);
      if (candidate.word != 0) return &candidate.key;
    }
    return nullptr;
  }

  void subscribe(KilnPlatform::KeySubscriber<K>& subscriber) const override { subscribers_.add(subscriber); }
  void unsubscribe(KilnPlatform::KeySubscriber<K>& subscriber) const override {
    subscribers_.remove(subscriber);
  }
  /// Forgets every subscriber without notifying it: for the simulation of a process that died.
  void forgetSubscribers() const { subscribers_.forgetAll(); }

 private:
  struct Version {
    V value;
    std::uint32_t checksum;
  };
  struct Slot {
    /// 0 if the slot is free; else twice a number that grows with each change, plus the index of the current
    /// value.
    std::uint64_t word;
    K key;
    Version versions[2];
  };
  static_assert(sizeof(Slot) <= ChipFile::kSlotBytes && std::is_trivially_copyable_v<Slot>);
  /// Never reached by the number of changes.
  static constexpr std::uint64_t kMaxWord = std::uint64_t{1} << 62U;

  struct Probe {
    const K* key;
  };
  struct IndexHash {
    using is_avalanching = void;
    using is_transparent = void;
    const MappedCollection* owner;
    std::size_t operator()(std::uint32_t at) const { return KilnPlatform::hashValue(owner->slot(at).key); }
    std::size_t operator()(Probe probe) const { return KilnPlatform::hashValue(*probe.key); }
  };
  struct IndexEqual {
    using is_transparent = void;
    const MappedCollection* owner;
    bool operator()(std::uint32_t a, std::uint32_t b) const {
      return owner->slot(a).key == owner->slot(b).key;
    }
    bool operator()(Probe a, std::uint32_t b) const { return *a.key == owner->slot(b).key; }
    bool operator()(std::uint32_t a, Probe b) const { return owner->slot(a).key == *b.key; }
  };

  /// The layout of a slot, in words, so that a file of another build is not misread.
  static std::string layout() {
    std::string text =
        fmt::format("slot {} key {} values {} {} checksum {}\n", sizeof(Slot), offsetof(Slot, key),
                    offsetof(Slot, versions), sizeof(Version), offsetof(Version, checksum));
    addFields<K>(text);
    addFields<V>(text);
    return text;
  }
  template <class T>
  static void addFields(std::string& text) {
    const T value{};
    const auto* begin = reinterpret_cast<const char*>(&value);
    text += fmt::format("{} {}\n", T::kTypeName, sizeof(T));
    const auto add = [&](const auto& field) {
      const auto& member = value.*(field.member);
      text += fmt::format(" {} {} {}\n", field.name, reinterpret_cast<const char*>(&member) - begin,
                          sizeof member);
    };
    std::apply([&](const auto&... field) { (add(field), ...); }, T::fields());
  }

  void load(std::uint32_t at) {
    const Slot& found = slot(at);
    if (found.word == 0) return free_.push_back(at);
    if (found.word > kMaxWord ||
        current(found).checksum != checksum(found.key, current(found).value, found.word)) {
      file_.refuse(fmt::format("the entry in slot {} is damaged", at));
    }
    requireKey(at);
    if (!index_.insert(at).second) file_.refuse(fmt::format("the key in slot {} stands there twice", at));
    changes_ = std::max(changes_, found.word / 2);
  }

  /// Refuses the file if no key has the bytes that were last read for a checksum.
  void requireKey(std::uint32_t at) const {
    try {
      (void)Decoder(encoded_).take<K>();
    } catch (const std::range_error& error) {
      file_.refuse(fmt::format("the key in slot {} is impossible: {}", at, error.what()));
    }
  }

  /// Prepares the value in one of the two places, then makes it the current one.
  void publish(Slot& slot, const V& value, std::uint64_t place) {
    const std::uint64_t word = 2 * ++changes_ + place;
    slot.versions[place].value = value;
    slot.versions[place].checksum = checksum(slot.key, value, word);
    store(slot, word);
  }
  static void store(Slot& slot, std::uint64_t word) {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    std::atomic_ref(slot.word).store(word, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }

  [[nodiscard]] std::uint32_t checksum(const K& key, const V& value, std::uint64_t word) const {
    encoded_.clear();
    encode(encoded_, key);
    encode(encoded_, value);
    return checksumOf(encoded_, word);
  }

  [[nodiscard]] Slot& slot(std::size_t at) const { return *reinterpret_cast<Slot*>(file_.slot(at)); }
  [[nodiscard]] static const Version& current(const Slot& slot) { return slot.versions[slot.word & 1U]; }

  ChipFile file_;
  boost::unordered_flat_set<std::uint32_t, IndexHash, IndexEqual> index_;
  std::vector<std::uint32_t> free_;
  std::uint64_t changes_ = 0;    ///< the number of the latest change
  mutable std::string encoded_;  ///< input of the checksum; kept to reuse its memory
  mutable KilnEmServer::SubscriberList<K> subscribers_;
};

}  // namespace KilnAgent
