// Text that can be a template argument.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace KilnPlatform {

/// A compile-time text of N-1 characters and a terminating zero; structural, so that it can be a template
/// argument.
template <std::size_t N>
struct FixedString {
  char data[N] = {};

  constexpr FixedString() = default;
  // NOLINTNEXTLINE(google-explicit-constructor)
  constexpr FixedString(const char (&text)[N]) { std::copy_n(text, N, data); }

  [[nodiscard]] constexpr std::string_view view() const { return {data, N - 1}; }
  [[nodiscard]] constexpr const char* c_str() const { return data; }
};

/// Joins two texts at compile time.
template <std::size_t A, std::size_t B>
constexpr FixedString<A + B - 1> operator+(const FixedString<A>& left, const FixedString<B>& right) {
  FixedString<A + B - 1> joined;
  std::copy_n(left.data, A - 1, joined.data);
  std::copy_n(right.data, B, joined.data + A - 1);
  return joined;
}

template <std::size_t A, std::size_t B>
constexpr FixedString<A + B - 1> operator+(const FixedString<A>& left, const char (&right)[B]) {
  return left + FixedString<B>(right);
}

template <std::size_t A, std::size_t B>
constexpr FixedString<A + B - 1> operator+(const char (&left)[A], const FixedString<B>& right) {
  return FixedString<A>(left) + right;
}

/// The text with its first letter in upper case: "emTypeToConfig" becomes "EmTypeToConfig".
template <std::size_t N>
constexpr FixedString<N> upperCamel(FixedString<N> text) {
  if (N > 1 && text.data[0] >= 'a' && text.data[0] <= 'z') {
    text.data[0] = static_cast<char>(text.data[0] - 'a' + 'A');
  }
  return text;
}

}  // namespace KilnPlatform
