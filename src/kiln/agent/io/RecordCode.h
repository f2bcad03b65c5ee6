// Converts plain values to and from bytes: one encoding for all of them, based on the description of their
// fields.
//
// Numbers are big-endian in their full width, so that the order of encoded keys is the order of their fields;
// a text is its length and its bytes; a tagged union is one byte for its tag, then its alternative. Names are
// not part of the encoding: the user of the bytes must store their meaning separately.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "kiln/platform/KilnTunnelNiLib.h"
#include "kiln/platform/Value.h"

namespace KilnAgent {

/// Appends the bytes of a number, the most significant first.
template <std::unsigned_integral N>
void encodeNumber(std::string& out, N number) {
  std::array<char, sizeof(N)> bytes;
  for (std::size_t at = 0; at < sizeof(N); ++at) {
    bytes[at] = static_cast<char>(number >> (sizeof(N) - 1 - at) * 8);
  }
  out.append(bytes.data(), bytes.size());
}

/// Appends the encoding of `value`.
template <class T>
void encode(std::string& out, const T& value) {
  if constexpr (std::is_enum_v<T>) {
    encodeNumber(out, static_cast<std::make_unsigned_t<std::underlying_type_t<T>>>(value));
  } else if constexpr (std::is_integral_v<T>) {
    encodeNumber(out, static_cast<std::make_unsigned_t<T>>(value));
  } else if constexpr (KilnPlatform::NumberValue<T>) {
    encodeNumber(out, value.number());
  } else if constexpr (KilnPlatform::UnionValue<T>) {
    encode(out, value.tag());
    value.visit([&](const auto& alternative) { encode(out, alternative); });
  } else if constexpr (std::is_same_v<T, std::string>) {
    encodeNumber(out, static_cast<std::uint32_t>(value.size()));
    out += value;
  } else {
    static_assert(KilnPlatform::Described<T>);
    std::apply([&](const auto&... field) { (encode(out, value.*(field.member)), ...); }, T::fields());
  }
}

template <class T>
std::string encoded(const T& value) {
  std::string out;
  encode(out, value);
  return out;
}

/// Whether a value may have any number of the enumeration's type, not only named ones.
template <class E>
inline constexpr bool kAnyNumber = !KilnPlatform::NamedEnum<E>;
/// A request may have a kind that the server does not know.
template <>
inline constexpr bool kAnyNumber<KilnTunnelNiLib::RequestKind> = true;

/// Decodes values from the front of encoded bytes. Throws std::range_error if the bytes end early or encode
/// no valid value.
class Decoder {
 public:
  explicit Decoder(std::string_view bytes) : rest_(bytes) {}

  template <class T>
  void take(T& value) {
    if constexpr (std::is_enum_v<T>) {
      const auto read = number<std::make_unsigned_t<std::underlying_type_t<T>>>();
      if constexpr (!kAnyNumber<T>) KilnPlatform::enumFromNumber<T>(static_cast<std::int64_t>(read));
      value = static_cast<T>(read);
    } else if constexpr (std::is_integral_v<T>) {
      value = static_cast<T>(number<std::make_unsigned_t<T>>());
    } else if constexpr (KilnPlatform::NumberValue<T>) {
      value = T(number<typename T::Number>());
    } else if constexpr (KilnPlatform::UnionValue<T>) {
      const auto tag = number<std::uint8_t>();
      if (tag > T::kAlternatives) throw std::range_error("an unknown alternative");
      value = T::make(static_cast<typename T::Tag>(tag), [&](auto& alternative) { this->take(alternative); });
    } else if constexpr (std::is_same_v<T, std::string>) {
      value = std::string(bytes(number<std::uint32_t>()));
    } else {
      static_assert(KilnPlatform::Described<T>);
      std::apply([&](const auto&... field) { (take(value.*(field.member)), ...); }, T::fields());
    }
  }
  template <class T>
  T take() {
    T value{};
    take(value);
    return value;
  }
  [[nodiscard]] bool atEnd() const { return rest_.empty(); }
  /// Throws if bytes are left over.
  void end() const {
    if (!rest_.empty()) throw std::range_error("bytes are left over");
  }

 private:
  std::string_view bytes(std::size_t count) {
    if (rest_.size() < count) throw std::range_error("it ends early");
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(count);
    return taken;
  }
  template <class N>
  N number() {
    std::uint64_t read = 0;
    for (const char byte : bytes(sizeof(N))) read = read << 8U | static_cast<unsigned char>(byte);
    return static_cast<N>(read);
  }

  std::string_view rest_;
};

/// Detects accidental damage, not malice.
inline std::uint32_t checksumOf(std::string_view bytes, std::uint64_t seed = 0) {
  return static_cast<std::uint32_t>(XXH3_64bits_withSeed(bytes.data(), bytes.size(), seed));
}

}  // namespace KilnAgent
