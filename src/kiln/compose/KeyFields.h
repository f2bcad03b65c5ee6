// Derives a hardware key from the fields of a logical key, for every key type.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "kiln/platform/EmKeys.h"

namespace KilnEmServer {

namespace detail {
/// Whether a field of one structure and a field of another, by their places, have the same name.
template <class A, std::size_t a, class B, std::size_t b>
inline constexpr bool kSameName =
    std::string_view(std::get<a>(A::fields()).name) == std::string_view(std::get<b>(B::fields()).name);

template <class T>
using FieldPlaces = std::make_index_sequence<std::tuple_size_v<decltype(T::fields())>>;
}  // namespace detail

/// Calls `visitor(field, hwField)` with each field of a row's logical key that is also in its hardware key,
/// in the order of the hardware key's fields; each is a KilnPlatform::Field.
template <class Row, class Visitor>
constexpr void forEachCommonField(Visitor&& visitor) {
  using From = typename Row::ComposerKey;
  using To = typename Row::EntryKey;
  const auto match = [&]<std::size_t from, std::size_t to>() {
    if constexpr (detail::kSameName<From, from, To, to>) {
      visitor(std::get<from>(From::fields()), std::get<to>(To::fields()));
    }
  };
  const auto matchAll = [&]<std::size_t to, std::size_t... from>(std::index_sequence<from...>) {
    (match.template operator()<from, to>(), ...);
  };
  [&]<std::size_t... to>(std::index_sequence<to...>) {
    (matchAll.template operator()<to>(detail::FieldPlaces<From>()), ...);
  }
  (detail::FieldPlaces<To>());
}

/// Whether a row's hardware key can be derived from its logical key: every field of each is a field of the
/// other, except the VLAN domain, which replaces the interface.
template <class Row>
consteval bool keysAgree() {
  constexpr bool resolved = Row::kResolver == ResolverKeyUnionTag::vd;
  std::size_t common = 0;
  forEachCommonField<Row>([&](const auto&, const auto&) { ++common; });
  const std::size_t fields = std::tuple_size_v<decltype(Row::ComposerKey::fields())>;
  const std::size_t hwFields = std::tuple_size_v<decltype(Row::EntryKey::fields())>;
  if (!resolved) return common == fields && common == hwFields;
  return requires(const typename Row::ComposerKey& key, const typename Row::EntryKey& hwKey) {
    key.intfId;
    key.systemTcamId;
    hwKey.vlanDomain;
  }
  &&common + 2 == fields&& common + 1 == hwFields;
}

/// The hardware key of a logical key, with the VLAN domain if its type needs one. Throws std::range_error for
/// the first field that does not fit: the logical key's fields in the order of the hardware key, then the
/// domain.
template <class Row>
typename Row::EntryKey entryKeyOf(const typename Row::ComposerKey& key, std::uint64_t vlanDomain = 0) {
  static_assert(keysAgree<Row>(), "a field of the logical or of the hardware key has no counterpart");
  typename Row::EntryKey hwKey;
  forEachCommonField<Row>([&](const auto& field, const auto& hwField) {
    using Width = std::remove_reference_t<decltype(hwKey.*(hwField.member))>;
    using Logical = std::remove_cvref_t<decltype(key.*(field.member))>;
    static_assert(KilnPlatform::NumberValue<Width> || sizeof(Width) >= sizeof(Logical),
                  "a narrower field of the hardware key is to check its range: use a bounded integer");
    hwKey.*(hwField.member) = Width(key.*(field.member));
  });
  if constexpr (Row::kResolver == ResolverKeyUnionTag::vd) {
    hwKey.vlanDomain = decltype(hwKey.vlanDomain)(vlanDomain);
  }
  return hwKey;
}

}  // namespace KilnEmServer
