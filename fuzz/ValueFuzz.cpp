// The text form of plain values: an accepted text is written out again as the same value, any other text is a
// range error.
//
// The first byte chooses the type, by an upper-case letter; with a lower-case letter the rest is the value's
// encoding instead of its text.
#include <array>
#include <optional>
#include <stdexcept>

#include "fuzz/Fuzz.h"
#include "kiln/agent/io/RecordCode.h"
#include "kiln/runtime/model/EmTypes.h"

namespace KilnFuzz {
namespace {

using KilnPlatform::textOf;
using KilnPlatform::valueFromText;

template <class T>
void checkForms(const T& value) {
  const std::string text = textOf(value);
  const T read = valueFromText<T>(text);
  KILN_ASSERT(read == value && KilnPlatform::hashValue(read) == KilnPlatform::hashValue(value));
  KILN_ASSERT(textOf(read) == text);
  const std::string bytes = KilnAgent::encoded(value);
  KilnAgent::Decoder decoder(bytes);
  KILN_ASSERT(decoder.take<T>() == value);
  decoder.end();
}

template <class T>
std::optional<T> fromText(std::string_view text) {
  try {
    return valueFromText<T>(text);
  } catch (const std::range_error& error) {
    const std::string_view message = error.what();
    KILN_ASSERT(message.starts_with("Invalid string rep for ") || message.ends_with(" not allowed"));
    return std::nullopt;
  }
}

template <class T>
std::optional<T> fromBytes(std::string_view bytes) {
  try {
    KilnAgent::Decoder decoder(bytes);
    const T value = decoder.take<T>();
    decoder.end();
    KILN_ASSERT(KilnAgent::encoded(value) == bytes);
    return value;
  } catch (const std::range_error&) {
    return std::nullopt;
  }
}

template <class T>
void check(bool encoded, std::string_view input) {
  if (const std::optional<T> value = encoded ? fromBytes<T>(input) : fromText<T>(input)) checkForms(*value);
}

template <class... Types>
struct Checks {
  static constexpr std::array kAll = {&check<Types>...};
};
using Values = Checks<KilnPlatform::U3, KilnPlatform::U12, KilnPlatform::U20, Hardware::Kiln::FapId,
                      Hardware::Kiln::LocalCoreId, KilnEmServer::FeatureType, KilnEmServer::EmComposerKey,
                      KilnEmServer::EmResolvedKey, KilnEmServer::EmEntry, KilnEmServer::EmRequestKey,
                      KilnEmServer::EmLogicalKey, KilnEmServer::EmHwKey, KilnEmServer::EmRequestStatus,
                      KilnEmServer::EmSwTableStatusEntry, KilnEmServer::ResolutionState,
                      KilnEmServer::ResolverRequest, KilnTunnelNiLib::IsemSrvStatusEntry>;

}  // namespace
}  // namespace KilnFuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  constexpr std::uint8_t kLowerCase = 0x20;
  const auto& checks = KilnFuzz::Values::kAll;
  checks[(data[0] & 0x1FU) % checks.size()]((data[0] & kLowerCase) != 0,
                                            KilnFuzz::textIn(data, size).substr(1));
  return 0;
}
