// Whether the tests run under the address sanitizer, which makes a fork many times slower.
#pragma once

namespace KilnTest {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitized = true;
#elif defined(__has_feature)
inline constexpr bool kSanitized = __has_feature(address_sanitizer);
#else
inline constexpr bool kSanitized = false;
#endif

}  // namespace KilnTest
