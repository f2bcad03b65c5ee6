// Keys by number, of every key type, for generated load.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <type_traits>

#include "kiln/compose/KeyFields.h"
#include "kiln/platform/EmKeys.h"

namespace KilnAgent {

/// The greatest value of a logical key's field that fits the field of the hardware key; both are given as
/// types.
template <class Field, class HwField>
constexpr std::uint64_t greatestFitting() {
  if constexpr (KilnPlatform::NumberValue<HwField>) {
    return std::min<std::uint64_t>(HwField::kMax, std::numeric_limits<Field>::max());
  } else {
    return std::numeric_limits<Field>::max();
  }
}

/// Calls `visitor(value, greatest)` with each field of `key` that is also in the row's hardware key, and the
/// greatest value that fits there.
template <class Row, class Visitor>
void forEachKeyField(typename Row::ComposerKey& key, Visitor&& visitor) {
  KilnEmServer::forEachCommonField<Row>([&](const auto& field, const auto& hwField) {
    typename Row::EntryKey hwKey;
    auto& value = key.*(field.member);
    visitor(value, greatestFitting<std::remove_reference_t<decltype(value)>,
                                   std::remove_reference_t<decltype(hwKey.*(hwField.member))>>());
  });
}

/// The key of this number on an interface, if the type has an interface. Different numbers have different
/// keys, as many as the fields of the hardware key have values.
template <class Row>
typename Row::ComposerKey numberedKey(std::uint64_t number,
                                      const KilnTunnelNiLib::IntfIdSystemTcamId& interface) {
  typename Row::ComposerKey key;
  if constexpr (requires { key.intfId; }) {
    key.intfId = interface.intfId;
    key.systemTcamId = interface.systemTcamId;
  }
  forEachKeyField<Row>(key, [&](auto& value, std::uint64_t greatest) {
    value = static_cast<std::remove_reference_t<decltype(value)>>(number & greatest);
    number = greatest == std::numeric_limits<std::uint64_t>::max() ? 0 : number / (greatest + 1);
  });
  return key;
}

}  // namespace KilnAgent
