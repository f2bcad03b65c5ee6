// A digest of a whole state, to find out whether two states are the same without keeping either.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "kiln/platform/Collection.h"
#include "kiln/platform/Value.h"

namespace KilnEmServer {

/// Collects the content of a state, part by part: a collection, a stage, a table. Two states with the same
/// value behave the same afterwards, as far as they were described. The owner of a state describes it with
/// `noteState(StateDigest&)`, a walk that changes nothing.
///
/// Addresses, handles and counters that only grow are not described. A number that is compared with such a
/// counter is described by its rank among those that can still be compared. Counts on which no decision
/// depends, times, and prefetching are not described either.
class StateDigest {
 public:
  /// 128 bits.
  struct Value {
    std::uint64_t high = 0;
    std::uint64_t low = 0;
    friend auto operator<=>(const Value&, const Value&) = default;
  };
  struct Part {
    std::string name;
    const void* collection;  ///< its address; null for a part that is none
    Value value;
  };
  /// Whether the orders of walks over collections belong to the state. They follow from the order in which
  /// keys were added and removed; the order of the changes that a walk makes follows from them.
  enum class Walks : std::uint8_t { ignored, noted };

  explicit StateDigest(Walks walks = Walks::ignored) : walks_(walks) { parts_.reserve(256); }

  /// Starts a part; subsequent content belongs to it.
  void begin(std::string name, const void* collection = nullptr);

  void add(const Value& value) {
    addWord(value.high);
    addWord(value.low);
  }
  void add(std::string_view text) {
    const XXH128_hash_t hash = XXH3_128bits(text.data(), text.size());
    addWord(hash.high64);
    addWord(hash.low64);
  }
  void add(const std::string& text) { add(std::string_view(text)); }
  void add(const char* text) { add(std::string_view(text)); }
  /// Any number, enumeration, described value or union, an optional, pair, tuple, pointer or container of
  /// them, or what has `noteState` of its own. A map, a set or a list is added in its order.
  template <class T>
  void add(const T& value);

  /// Calls `each(item)`, which must call `item(parts...)` for each of some items, in any order: the state is
  /// the same in any.
  template <class Each>
  void unordered(Each&& each) {
    addItems(false, std::forward<Each>(each));
  }
  /// The same for the items of a walk over a collection.
  template <class Each>
  void walked(Each&& each) {
    addItems(walks_ == Walks::noted, std::forward<Each>(each));
  }
  /// Keys and values of a collection.
  template <class K, class V>
  void addContent(const KilnPlatform::KeyedCollection<K, V>& collection) {
    walked([&](auto&& item) { KilnPlatform::forEachIn(collection, item); });
  }
  /// The keys that a walk over `collection` has still to visit.
  template <class C, class K>
  void addLeft(const C& collection, KilnPlatform::ScanCursor<K> cursor) {
    cursor.skippedBelow = 0;
    walked([&](auto&& item) {
      while (const K* key = collection.scanNext(cursor)) item(*key);
    });
  }
  /// A collection as a part of its own.
  template <class K, class V>
  void addPart(std::string name, const KilnPlatform::KeyedCollection<K, V>& collection) {
    begin(std::move(name), KilnPlatform::addressOf(collection));
    addContent(collection);
  }

  [[nodiscard]] const std::vector<Part>& parts() const { return parts_; }
  /// Of all parts, with their names.
  [[nodiscard]] Value value() const;
  /// Of these values alone.
  template <class... Parts>
  static Value valueOf(const Parts&... parts) {
    Lanes lanes(std::in_place);
    lanes.addAll(parts...);
    return lanes.scratch_;
  }

 private:
  static constexpr Value kSeed = {0x9E3779B97F4A7C15, 0xD1B54A32D192ED03};
  using Lanes = StateDigest;
  /// Without parts, for a value alone.
  explicit StateDigest(std::in_place_t /*valueOnly*/) : walks_(Walks::ignored) {}

  /// One-to-one for a fixed state, so that no word is lost.
  static std::uint64_t mixed(std::uint64_t word, std::uint64_t factor) {
    word ^= word >> 32U;
    word *= factor;
    word ^= word >> 29U;
    word *= 0xD6E8FEB86659FD93;
    return word ^ word >> 32U;
  }
  [[nodiscard]] Value& state() { return parts_.empty() ? scratch_ : parts_.back().value; }
  void addWord(std::uint64_t word) {
    Value& now = state();
    now.high = mixed(now.high + word, 0xFF51AFD7ED558CCD);
    now.low = mixed(now.low ^ word, 0xC4CEB9FE1A85EC53);
  }
  template <class... Parts>
  void addAll(const Parts&... parts) {
    (add(parts), ...);
  }
  template <class Each>
  void addItems(bool ordered, Each&& each);
  template <class T>
  void addPlain(const T& value);

  Walks walks_;
  std::vector<Part> parts_;
  Value scratch_ = kSeed;  ///< what is added before the first part
};

/// The names of the parts in which two digests differ, or that only one of them has.
std::vector<std::string> differingParts(const StateDigest& a, const StateDigest& b);

template <class Each>
void StateDigest::addItems(bool ordered, Each&& each) {
  const Value before = state();
  Value sum;
  std::uint64_t count = 0;
  if (!ordered) state() = kSeed;
  each([&](const auto&... parts) {
    addAll(parts...);
    ++count;
    if (ordered) return;
    sum.high += state().high;
    sum.low += state().low;
    state() = kSeed;
  });
  if (!ordered) {
    state() = before;
    add(sum);
  }
  addWord(count);
}

template <class T>
void StateDigest::addPlain(const T& value) {
  std::array<std::uint64_t, sizeof(T) + 1> words;
  KilnPlatform::detail::WordPacker packer(words.data());
  packer.add(value);
  const std::uint64_t* const end = packer.end();
  for (const std::uint64_t* word = words.data(); word != end; ++word) addWord(*word);
}

namespace detail {

template <class T>
concept Pointing = requires(const T& value) {
  *value;
  { value == nullptr } -> std::convertible_to<bool>;
};
template <class T>
concept Optional = requires(const T& value) {
  value.has_value();
  *value;
};
template <class T>
concept Listing = requires(const T& value) {
  value.begin();
  value.end();
};
template <class T>
concept TupleLike = requires {
  std::tuple_size<T>::value;
};

}  // namespace detail

template <class T>
void StateDigest::add(const T& value) {
  if constexpr (requires { value.noteState(*this); }) {
    value.noteState(*this);
  } else if constexpr (std::is_integral_v<T> || std::is_enum_v<T>) {
    addWord(static_cast<std::uint64_t>(value));
  } else if constexpr (KilnPlatform::NumberValue<T>) {
    addWord(value.number());
  } else if constexpr (KilnPlatform::UnionValue<T>) {
    addPlain(value);
  } else if constexpr (KilnPlatform::Described<T>) {
    if constexpr (std::is_trivially_copyable_v<T>) {
      addPlain(value);
    } else {
      std::apply([&](const auto&... field) { addAll(value.*(field.member)...); }, T::fields());
    }
  } else if constexpr (detail::Optional<T>) {
    addWord(value.has_value() ? 1 : 0);
    if (value.has_value()) add(*value);
  } else if constexpr (detail::Pointing<T>) {
    addWord(value == nullptr ? 0 : 1);
    if (value != nullptr) add(*value);
  } else if constexpr (detail::Listing<T>) {
    std::uint64_t count = 0;
    for (const auto& item : value) {
      add(item);
      ++count;
    }
    addWord(count);
  } else {
    static_assert(detail::TupleLike<T>);
    std::apply([&](const auto&... parts) { addAll(parts...); }, value);
  }
}

}  // namespace KilnEmServer
