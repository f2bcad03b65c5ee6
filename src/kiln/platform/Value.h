// Plain values: one description of a type's fields gives its hash, its text form and the parse of that form.
//
// A described value type ends with KILN_VALUE(Namespace, Name, field, field, ...), the fields in declaration
// order; all of them take part in equality, ordering and hashing.
//
// The text form is  TypeName(field: value, field: value); an enumeration prints as its value's name, a number
// in decimal, a tagged union as TypeName(alternative: value).
#pragma once

#include <fmt/format.h>
#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <boost/preprocessor/seq/elem.hpp>
#include <boost/preprocessor/seq/enum.hpp>
#include <boost/preprocessor/seq/seq.hpp>
#include <boost/preprocessor/seq/transform.hpp>
#include <boost/preprocessor/variadic/to_seq.hpp>
#include <charconv>
#include <compare>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "kiln/platform/Assert.h"
#include "kiln/platform/KeyHint.h"

namespace KilnPlatform {

/// One field of a described type.
template <class T, class M>
struct Field {
  const char* name;
  M T::*member;
};
template <class T, class M>
constexpr Field<T, M> fieldOf(const char* name, M T::*member) {
  return {name, member};
}

#define KILN_VALUE_FIELD(r, Type, field) ::KilnPlatform::fieldOf(#field, &Type::field)
/// Describes a value type: its name, its fields in the order in which they are named.
#define KILN_VALUE_FIELDS(Namespace, Type, ...)                                                  \
  static constexpr std::string_view kTypeName = #Namespace "::" #Type;                           \
  static constexpr auto fields() {                                                               \
    return std::tuple{BOOST_PP_SEQ_ENUM(                                                         \
        BOOST_PP_SEQ_TRANSFORM(KILN_VALUE_FIELD, Type, BOOST_PP_VARIADIC_TO_SEQ(__VA_ARGS__)))}; \
  }
/// Describes a value type, and gives it equality and ordering over its fields in declaration order.
#define KILN_VALUE(Namespace, Type, ...)                       \
  friend auto operator<=>(const Type&, const Type&) = default; \
  KILN_VALUE_FIELDS(Namespace, Type, __VA_ARGS__)

/// The names of an enumeration's values, in numeric order from `kFirst`. KILN_NAMED_ENUM gives them; an
/// enumeration with other names than its enumerators' specialises this:
///   static constexpr std::string_view kTypeName;
///   static constexpr int kFirst;
///   static constexpr std::array<std::string_view, N> kNames;
template <class E>
struct EnumNames {};

/// The names that KILN_NAMED_ENUM gives an enumeration.
template <std::size_t N>
struct EnumDescription {
  std::string_view typeName;
  int first;
  std::array<std::string_view, N> names;
};
template <std::size_t N>
EnumDescription(std::string_view, int, std::array<std::string_view, N>) -> EnumDescription<N>;
#define KILN_ENUMERATOR_NAME(r, data, name) std::string_view(#name)
#define KILN_NAMED_ENUM_OF(Namespace, Type, firstNumber, enumerators)                                 \
  enum class Type : std::uint8_t {                                                                    \
    BOOST_PP_SEQ_HEAD(enumerators) = (firstNumber),                                                   \
    BOOST_PP_SEQ_ENUM(BOOST_PP_SEQ_TAIL(enumerators))                                                 \
  };                                                                                                  \
  consteval auto describeEnum(Type) {                                                                 \
    return ::KilnPlatform::EnumDescription{                                                           \
        #Namespace "::" #Type, firstNumber,                                                           \
        std::array{BOOST_PP_SEQ_ENUM(BOOST_PP_SEQ_TRANSFORM(KILN_ENUMERATOR_NAME, _, enumerators))}}; \
  }
/// An enumeration of bytes whose values are numbered from `firstNumber`, with their names.
#define KILN_NAMED_ENUM(Namespace, Type, firstNumber, ...) \
  KILN_NAMED_ENUM_OF(Namespace, Type, firstNumber, BOOST_PP_VARIADIC_TO_SEQ(__VA_ARGS__))

template <class E>
requires requires {
  describeEnum(E{});
}
struct EnumNames<E> {
  static constexpr auto kDescription = describeEnum(E{});
  static constexpr std::string_view kTypeName = kDescription.typeName;
  static constexpr int kFirst = kDescription.first;
  static constexpr auto kNames = kDescription.names;
};

template <class E>
concept NamedEnum = std::is_enum_v<E> && requires {
  EnumNames<E>::kNames;
};

template <class T>
concept Described = requires {
  { T::kTypeName } -> std::convertible_to<std::string_view>;
  T::fields();
};

template <class T>
concept UnionValue = requires {
  typename T::UnionTraits;
};

/// A value that is a number with a restricted range or meaning: `using Number = ...`, `number()`, and
/// construction from a number, which throws std::range_error when out of range.
template <class T>
concept NumberValue = requires(const T& value) {
  typename T::Number;
  { value.number() } -> std::convertible_to<typename T::Number>;
};

/// Value without content, for sets. Any two are equal.
struct Unit {
  friend auto operator<=>(const Unit&, const Unit&) = default;
  static constexpr std::string_view kTypeName = "Unit";
  static constexpr auto fields() { return std::tuple{}; }
};

namespace detail {

/// The part of a qualified name after the last "::".
constexpr std::string_view unqualified(std::string_view name) {
  const std::size_t at = name.rfind("::");
  return at == std::string_view::npos ? name : name.substr(at + 2);
}

}  // namespace detail

// --- Enumerations ------------------------------------------------------------------------------------------

/// The name of an enumeration value; "unknown" for a number that names no value.
template <NamedEnum E>
constexpr std::string_view stringValue(E value) {
  const auto index = static_cast<std::int64_t>(value) - EnumNames<E>::kFirst;
  if (index < 0 || index >= static_cast<std::int64_t>(EnumNames<E>::kNames.size())) return "unknown";
  return EnumNames<E>::kNames[static_cast<std::size_t>(index)];
}

/// The enumeration value with that number; a range error if there is none.
template <NamedEnum E>
constexpr E enumFromNumber(std::int64_t number) {
  const auto count = static_cast<std::int64_t>(EnumNames<E>::kNames.size());
  if (number < EnumNames<E>::kFirst || number >= EnumNames<E>::kFirst + count) {
    throw std::range_error(fmt::format("{} has no value {}", EnumNames<E>::kTypeName, number));
  }
  return static_cast<E>(number);
}

/// The enumeration value with that name; a range error if there is none.
template <NamedEnum E>
constexpr E enumFromString(std::string_view text) {
  for (std::size_t i = 0; i < EnumNames<E>::kNames.size(); ++i) {
    if (EnumNames<E>::kNames[i] == text) return static_cast<E>(EnumNames<E>::kFirst + static_cast<int>(i));
  }
  throw std::range_error(
      fmt::format("Invalid string rep for {}", detail::unqualified(EnumNames<E>::kTypeName)));
}

/// Calls `visitor` with each value of the enumeration, in numeric order.
template <NamedEnum E, class Visitor>
constexpr void forEachEnumValue(Visitor&& visitor) {
  for (std::size_t i = 0; i < EnumNames<E>::kNames.size(); ++i) {
    visitor(static_cast<E>(EnumNames<E>::kFirst + static_cast<int>(i)));
  }
}

/// The values of the enumeration, in numeric order.
template <NamedEnum E>
constexpr auto allEnumValues() {
  std::array<E, EnumNames<E>::kNames.size()> values{};
  std::size_t at = 0;
  forEachEnumValue<E>([&](E value) { values[at++] = value; });
  return values;
}

// --- Bounded integers --------------------------------------------------------------------------------------

/// An unsigned integer of `Bits` bits, stored in the smallest standard type that holds it.
template <unsigned Bits>
class BoundedUint {
 public:
  static_assert(Bits > 0 && Bits <= 32);
  using Number = std::conditional_t<Bits <= 8, std::uint8_t,
                                    std::conditional_t<Bits <= 16, std::uint16_t, std::uint32_t>>;
  static constexpr std::uint64_t kMax = (std::uint64_t{1} << Bits) - 1;

  constexpr BoundedUint() = default;
  /// Throws std::range_error, for example "U18::value < 0 or > 0x0003ffff not allowed".
  constexpr explicit BoundedUint(std::uint64_t value) : value_(static_cast<Number>(value)) {
    if (value > kMax) [[unlikely]]
      throwOutOfRange();
  }

  [[nodiscard]] constexpr Number number() const { return value_; }
  friend auto operator<=>(const BoundedUint&, const BoundedUint&) = default;

 private:
  [[noreturn]] static void throwOutOfRange() {
    throw std::range_error(
        fmt::format("U{}::value < 0 or > 0x{:0{}x} not allowed", Bits, kMax, sizeof(Number) * 2));
  }

  Number value_ = 0;
};

using U3 = BoundedUint<3>;
using U9 = BoundedUint<9>;
using U11 = BoundedUint<11>;
using U12 = BoundedUint<12>;
using U18 = BoundedUint<18>;
using U20 = BoundedUint<20>;

// --- Tagged unions -----------------------------------------------------------------------------------------

namespace detail {

/// Copies a value's fields, but not the padding between them.
template <class T>
void storeFields(const T& value, std::byte* to) {
  if constexpr (Described<T>) {
    const auto storeField = [&](const auto& field) {
      const auto& content = value.*(field.member);
      storeFields(content, to + (reinterpret_cast<const std::byte*>(&content) -
                                 reinterpret_cast<const std::byte*>(&value)));
    };
    std::apply([&](const auto&... field) { (storeField(field), ...); }, T::fields());
  } else {
    static_assert(std::has_unique_object_representations_v<T>);
    std::memcpy(to, &value, sizeof(T));
  }
}

}  // namespace detail

/// A tagged union of trivially copyable alternatives. Tag value 0 is `undefined` and holds nothing; tag i
/// holds the i-th alternative. `Traits` gives
///   using Tag = <NamedEnum whose value 0 is undefined>;
///   static constexpr std::string_view kTypeName;  // qualified
///   static constexpr std::string_view kName;      // unqualified, for error texts
///   static constexpr std::size_t kCapacity;       // bytes reserved for the alternative
///   static constexpr std::size_t kHints;          // optional: hints that it carries for keys that hold it
template <class Traits, class... Alternatives>
class TaggedUnion {
 public:
  using UnionTraits = Traits;
  using Tag = typename Traits::Tag;
  template <Tag tag>
  using Alternative = std::tuple_element_t<static_cast<std::size_t>(tag) - 1, std::tuple<Alternatives...>>;
  static constexpr std::size_t kAlternatives = sizeof...(Alternatives);
  template <class A>
  static constexpr bool kHolds = (std::is_same_v<A, Alternatives> || ...);

  static_assert(((sizeof(Alternatives) <= Traits::kCapacity) && ...));
  static_assert((std::is_trivially_copyable_v<Alternatives> && ...));

  static_assert(Traits::kCapacity % sizeof(std::uint64_t) == 0);
  using Words = std::array<std::uint64_t, Traits::kCapacity / sizeof(std::uint64_t)>;

  TaggedUnion() = default;
  template <class A>
  requires kHolds<A>  // NOLINTNEXTLINE(google-explicit-constructor)
  TaggedUnion(const A& alternative) : tag_(tagOf<A>()) {
    detail::storeFields(alternative, storage_);
  }

  [[nodiscard]] Tag tag() const { return tag_; }
  /// The place where a key that holds this union was last found, in the key space of number `Number`.
  template <std::size_t Number>
  [[nodiscard]] const KeyHint& hint() const {
    return std::get<Number>(hints_);
  }

  /// The tag under which alternative A is held.
  template <class A>
  requires kHolds<A>
  static constexpr Tag tagOf() {
    std::size_t index = 0;
    std::size_t found = 0;
    ((++index, found = std::is_same_v<A, Alternatives> ? index : found), ...);
    return static_cast<Tag>(found);
  }

  /// The alternative A, or null if the union holds another one (or none). Invalid after assignment to the
  /// union.
  template <class A>
  requires kHolds<A>
  [[nodiscard]] const A* getIf() const {
    return tag_ == tagOf<A>() ? std::launder(reinterpret_cast<const A*>(storage_)) : nullptr;
  }

  /// The alternative A; a range error if the union holds another one (or none).
  template <class A>
  requires kHolds<A>
  [[nodiscard]] const A& get() const {
    const A* alternative = getIf<A>();
    if (alternative == nullptr) [[unlikely]]
      throwBadAccess(tagOf<A>());
    return *alternative;
  }
  template <Tag tag>
  [[nodiscard]] const Alternative<tag>& get() const {
    return get<Alternative<tag>>();
  }

  /// Calls `visitor` with the held alternative; does nothing for `undefined`.
  template <class Visitor>
  void visit(Visitor&& visitor) const {
    (void)((tag_ == tagOf<Alternatives>() && (visitor(*getIf<Alternatives>()), true)) || ...);
  }

  /// The alternative's bytes. Padding is zero, so equal values have equal words.
  [[nodiscard]] Words words() const {
    Words words;
    std::memcpy(words.data(), storage_, sizeof(words));
    return words;
  }

  friend bool operator==(const TaggedUnion& a, const TaggedUnion& b) {
    // Word by word: a wider load of bytes that were just stored in narrower parts stalls.
    for (std::size_t at = 0; at < std::tuple_size_v<Words>; ++at) {
      if (a.word(at) != b.word(at)) return false;
    }
    return a.tag_ == b.tag_;
  }
  friend std::strong_ordering operator<=>(const TaggedUnion& a, const TaggedUnion& b) {
    if (a.tag_ != b.tag_) return a.tag_ <=> b.tag_;
    std::strong_ordering order = std::strong_ordering::equal;
    a.visit([&]<class A>(const A& alternative) { order = alternative <=> *b.template getIf<A>(); });
    return order;
  }

  /// Replaces the content by a default alternative of `tag`, and passes it to `fill` by reference.
  template <class Fill>
  static TaggedUnion make(Tag tag, Fill&& fill) {
    TaggedUnion made;
    (void)((tag == tagOf<Alternatives>() && (
               [&] {
                 Alternatives alternative{};
                 fill(alternative);
                 made = TaggedUnion(alternative);
               }(),
               true)) ||
           ...);
    return made;
  }

 private:
  [[nodiscard]] std::uint64_t word(std::size_t at) const {
    std::uint64_t word;
    std::memcpy(&word, storage_ + at * sizeof(word), sizeof(word));
    return word;
  }
  [[noreturn]] [[gnu::cold]] void throwBadAccess(Tag wanted) const {
    throw std::range_error(fmt::format("{}: bad union access to {}, the value holds {}", Traits::kName,
                                       stringValue(wanted), stringValue(tag_)));
  }

  static constexpr std::size_t kHints = [] {
    if constexpr (requires { Traits::kHints; }) {
      return Traits::kHints;
    } else {
      return std::size_t{0};
    }
  }();

  // The small members are last, so that a holder of a union can place its own small members behind them.
  alignas(8) std::byte storage_[Traits::kCapacity] = {};
  Tag tag_{};
  std::array<KeyHint, kHints> hints_;
};

// --- Hash --------------------------------------------------------------------------------------------------

namespace detail {

/// Packs the fields of a plain value side by side into words.
class WordPacker {
 public:
  explicit WordPacker(std::uint64_t* words) : next_(words) {}

  template <class T>
  void add(const T& value) {
    if constexpr (std::is_enum_v<T>) {
      add(static_cast<std::underlying_type_t<T>>(value));
    } else if constexpr (NumberValue<T>) {
      add(value.number());
    } else if constexpr (UnionValue<T>) {
      add(value.tag());
      flush();
      for (const std::uint64_t word : value.words()) *next_++ = word;
    } else if constexpr (Described<T>) {
      std::apply([&](const auto&... field) { (add(value.*(field.member)), ...); }, T::fields());
    } else {
      static_assert(std::is_integral_v<T>);
      constexpr unsigned kBits = sizeof(T) * 8;
      if (bits_ + kBits > 64) flush();
      word_ |= static_cast<std::uint64_t>(static_cast<std::make_unsigned_t<T>>(value)) << bits_;
      bits_ += kBits;
    }
  }
  /// Ends the last word; returns the position behind it.
  std::uint64_t* end() {
    flush();
    return next_;
  }

 private:
  void flush() {
    if (bits_ == 0) return;
    *next_++ = word_;
    word_ = 0;
    bits_ = 0;
  }
  std::uint64_t* next_;
  std::uint64_t word_ = 0;
  unsigned bits_ = 0;
};

}  // namespace detail

/// Hash over all fields of a plain value, continued from `seed`; well mixed in all its bits. The same on
/// every machine of one byte order.
template <class T>
std::size_t hashValue(const T& value, std::size_t seed = 0) {
  if constexpr (std::is_same_v<T, std::string>) {
    return XXH3_64bits_withSeed(value.data(), value.size(), seed);
  } else if constexpr (std::is_trivially_copyable_v<T>) {
    // Each field takes at most one word; a union takes one more beside its content.
    std::array<std::uint64_t, sizeof(T) + 1> words;
    detail::WordPacker packer(words.data());
    packer.add(value);
    const auto bytes = static_cast<std::size_t>(packer.end() - words.data()) * sizeof(std::uint64_t);
    return XXH3_64bits_withSeed(words.data(), bytes, seed);
  } else {
    static_assert(Described<T>);
    std::apply([&](const auto&... field) { ((seed = hashValue(value.*(field.member), seed)), ...); },
               T::fields());
    return seed;
  }
}

/// Function object for containers; its marker says that the hash needs no further mixing.
template <class T>
struct ValueHash {
  using is_avalanching = void;
  std::size_t operator()(const T& value) const { return hashValue(value); }
};

// --- Text form ---------------------------------------------------------------------------------------------

/// Appends the text form of `value`.
template <class T>
void appendText(std::string& out, const T& value) {
  if constexpr (NamedEnum<T>) {
    out += stringValue(value);
  } else if constexpr (NumberValue<T>) {
    out += fmt::format_int(value.number()).c_str();
  } else if constexpr (UnionValue<T>) {
    out += T::UnionTraits::kTypeName;
    out += '(';
    out += stringValue(value.tag());
    value.visit([&](const auto& alternative) {
      out += ": ";
      appendText(out, alternative);
    });
    out += ')';
  } else if constexpr (Described<T>) {
    out += T::kTypeName;
    out += '(';
    bool first = true;
    const auto appendField = [&](const auto& field) {
      if (!std::exchange(first, false)) out += ", ";
      out += field.name;
      out += ": ";
      appendText(out, value.*(field.member));
    };
    std::apply([&](const auto&... field) { (appendField(field), ...); }, T::fields());
    out += ')';
  } else if constexpr (std::is_integral_v<T>) {
    out += fmt::format_int(value).c_str();
  } else {
    out += value;
  }
}

/// The text form of `value`.
template <class T>
std::string textOf(const T& value) {
  std::string out;
  appendText(out, value);
  return out;
}

namespace detail {

[[noreturn]] inline void throwInvalidText(std::string_view typeName) {
  throw std::range_error(fmt::format("Invalid string rep for {}", unqualified(typeName)));
}

/// Reads a text form from front to back; every error names `typeName`.
struct TextReader {
  std::string_view rest;

  void expect(std::string_view token, std::string_view typeName) {
    if (!rest.starts_with(token)) throwInvalidText(typeName);
    rest.remove_prefix(token.size());
  }
  std::string_view word() {
    std::size_t length = 0;
    while (length < rest.size() && rest[length] != ',' && rest[length] != ')' && rest[length] != ':')
      ++length;
    const std::string_view read = rest.substr(0, length);
    rest.remove_prefix(length);
    return read;
  }
};

template <class T>
void readNumber(TextReader& reader, T& number, std::string_view owner) {
  const std::string_view word = reader.word();
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  if (error != std::errc{} || end != word.data() + word.size() || word.empty()) throwInvalidText(owner);
}

/// `owner` is the type that an error names: the outermost union if there is one (`inUnion`), otherwise the
/// innermost type.
template <class T>
// One branch per kind of value, as when the form is written. NOLINTNEXTLINE(readability-function-size)
void readText(TextReader& reader, T& value, std::string_view owner, bool inUnion = false) {
  if constexpr (NamedEnum<T>) {
    value = enumFromString<T>(reader.word());
  } else if constexpr (NumberValue<T>) {
    std::uint64_t number = 0;
    readNumber(reader, number, owner);
    value = T(number);
  } else if constexpr (UnionValue<T>) {
    using Traits = typename T::UnionTraits;
    using Names = EnumNames<typename T::Tag>;
    const std::string_view blame = inUnion ? owner : Traits::kTypeName;
    reader.expect(Traits::kTypeName, blame);
    reader.expect("(", blame);
    const std::string_view name = reader.word();
    std::size_t index = 0;
    while (index < Names::kNames.size() && Names::kNames[index] != name) ++index;
    if (index == Names::kNames.size()) {
      throw std::range_error(
          fmt::format("Invalid string rep for {}: unknown alternative {}", Traits::kName, name));
    }
    value = T::make(static_cast<typename T::Tag>(index), [&](auto& alternative) {
      reader.expect(": ", blame);
      readText(reader, alternative, blame, true);
    });
    reader.expect(")", blame);
  } else if constexpr (Described<T>) {
    const std::string_view blame = inUnion ? owner : T::kTypeName;
    reader.expect(T::kTypeName, blame);
    reader.expect("(", blame);
    bool first = true;
    const auto readField = [&](const auto& field) {
      if (!std::exchange(first, false)) reader.expect(", ", blame);
      reader.expect(field.name, blame);
      reader.expect(": ", blame);
      readText(reader, value.*(field.member), blame, inUnion);
    };
    std::apply([&](const auto&... field) { (readField(field), ...); }, T::fields());
    reader.expect(")", blame);
  } else {
    readNumber(reader, value, owner);
  }
}

}  // namespace detail

/// The value whose text form is `text`. Throws std::range_error: "Invalid string rep for <type>" if the text
/// is malformed, with ": unknown alternative <name>" if it names no alternative of a union, and a bounded
/// integer's own message if a number is out of its range.
template <class T>
T valueFromText(std::string_view text) {
  detail::TextReader reader{text};
  T value{};
  std::string_view typeName = "value";
  if constexpr (UnionValue<T>) {
    typeName = T::UnionTraits::kTypeName;
  } else if constexpr (Described<T>) {
    typeName = T::kTypeName;
  }
  detail::readText(reader, value, typeName);
  if (!reader.rest.empty()) detail::throwInvalidText(typeName);
  return value;
}

/// An optional value in a trace: prints the value, or "none".
template <class T>
struct OptionalText {
  const T* value;
};

}  // namespace KilnPlatform

/// Values print to fmt as their text form; the text is made only when it is formatted.
template <class T>
requires(KilnPlatform::NamedEnum<T> || KilnPlatform::Described<T> || KilnPlatform::UnionValue<T> ||
         KilnPlatform::NumberValue<T>) struct fmt::formatter<T> {
  constexpr auto parse(format_parse_context& context) { return context.begin(); }
  auto format(const T& value, format_context& context) const {
    const std::string text = KilnPlatform::textOf(value);
    return std::copy(text.begin(), text.end(), context.out());
  }
};

template <class T>
struct fmt::formatter<KilnPlatform::OptionalText<T>> {
  constexpr auto parse(format_parse_context& context) { return context.begin(); }
  auto format(const KilnPlatform::OptionalText<T>& optional, format_context& context) const {
    std::string text = "none";
    if (optional.value != nullptr) {
      text.clear();
      KilnPlatform::appendText(text, *optional.value);
    }
    return std::copy(text.begin(), text.end(), context.out());
  }
};
