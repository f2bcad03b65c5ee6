// Where a key was found last: a field of key types that makes finding them again cheap.
#pragma once

#include <array>
#include <compare>
#include <cstdint>

namespace KilnPlatform {

/// The handle under which a key stood in its key space when it was looked up last, or is likely to stand. It
/// is no part of the key's value; copies of the key take it along, and whoever uses it verifies it. Three
/// bytes without alignment, which fit where a key has a gap; greater handles are not kept.
class KeyHint {
 public:
  static constexpr std::uint32_t kNone = 0xFFFFFF;

  /// kNone where nothing is known.
  [[nodiscard]] constexpr std::uint32_t handle() const {
    return bytes_[0] | std::uint32_t{bytes_[1]} << 8U | std::uint32_t{bytes_[2]} << 16U;
  }
  /// To look a key up changes nothing but what is known of it.
  constexpr void handleIs(std::uint32_t handle) const {
    const std::uint32_t kept = handle < kNone ? handle : kNone;
    bytes_ = {static_cast<std::uint8_t>(kept), static_cast<std::uint8_t>(kept >> 8U),
              static_cast<std::uint8_t>(kept >> 16U)};
  }

  friend constexpr bool operator==(const KeyHint& /*a*/, const KeyHint& /*b*/) { return true; }
  friend constexpr std::strong_ordering operator<=>(const KeyHint& /*a*/, const KeyHint& /*b*/) {
    return std::strong_ordering::equal;
  }

 private:
  mutable std::array<std::uint8_t, 3> bytes_ = {0xFF, 0xFF, 0xFF};
};

}  // namespace KilnPlatform
