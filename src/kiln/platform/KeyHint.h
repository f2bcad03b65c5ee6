// The place where a key was last found: a field of key types that makes the next lookup cheap.
#pragma once

#include <array>
#include <compare>
#include <cstdint>

namespace KilnPlatform {

/// The handle that a key had in its key space when it was last looked up, or is likely to have. It is not
/// part of the key's value. Copies of the key carry it, and the lookup verifies it. Three bytes without
/// alignment fill a gap in the key types; greater handles are not kept.
class KeyHint {
 public:
  static constexpr std::uint32_t kNone = 0xFFFFFF;

  /// kNone if no place is known.
  [[nodiscard]] constexpr std::uint32_t handle() const {
    return bytes_[0] | std::uint32_t{bytes_[1]} << 8U | std::uint32_t{bytes_[2]} << 16U;
  }
  /// Const, because a lookup does not change the key's value.
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
