#include "kiln/server/CheckRequest.h"

#include <fmt/format.h>

#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>

#include "kiln/compose/KeyFields.h"
#include "kiln/platform/EmKeys.h"

namespace KilnEmServer {
namespace {

using namespace KilnTunnelNiLib;

/// Collects the first field that does not fit the hardware.
class FieldCheck {
 public:
  template <class Bounded>
  void fits(std::string_view field, std::uint64_t value) {
    if (problem_ || value <= Bounded::kMax) return;
    problem_ = fmt::format("{} is {}, but the hardware holds at most {}", field, value, Bounded::kMax);
  }
  [[nodiscard]] const std::optional<std::string>& problem() const { return problem_; }

 private:
  std::optional<std::string> problem_;
};

template <class Row>
void checkFields(FieldCheck& check, const typename Row::ComposerKey& key) {
  forEachCommonField<Row>([&](const auto& field, const auto& hwField) {
    using Width = std::remove_reference_t<decltype(std::declval<typename Row::EntryKey>().*(hwField.member))>;
    if constexpr (KilnPlatform::NumberValue<Width>) check.fits<Width>(field.name, key.*(field.member));
  });
}

std::optional<std::string> checkChipAndCore(Hardware::Kiln::FapId fapId,
                                            Hardware::Kiln::LocalCoreId localCoreId) {
  const bool allFaps = fapId == Hardware::Kiln::FapId::allFap();
  const bool allCores = localCoreId == Hardware::Kiln::LocalCoreId::all();
  if (allFaps && allCores) return std::nullopt;
  if (allFaps != allCores) {
    return fmt::format("fapId {} and localCoreId {}: either both must be \"all\" or both specific",
                       fapId.number(), localCoreId.number());
  }
  if (fapId > Hardware::Kiln::FapId::allFap()) return fmt::format("fapId {} is no chip", fapId.number());
  if (localCoreId > Hardware::Kiln::LocalCoreId::all()) {
    return fmt::format("localCoreId {} is no core", localCoreId.number());
  }
  return std::nullopt;
}

}  // namespace

template <class Db>
std::optional<std::string> checkRequest(const typename Db::EntryKey& key,
                                        const SrvConfigEntry<typename Db::ClientData>& request) {
  const EmComposerKeyUnionTag keyTag = key.emComposerKey.tag();
  const EmEntryUnionTag entryTag = (request.clientData.*Db::kEntryOfClientData).tag();
  if (keyTag == EmComposerKeyUnionTag::undefined_) return "the key names no table";
  if (emTypeOf(keyTag) != Db::kEmType) {
    return fmt::format("{} is a key of the {} database, not of {}", keyTag, emTypeOf(keyTag), Db::kEmType);
  }
  if (static_cast<int>(entryTag) != static_cast<int>(keyTag)) {
    return fmt::format("the entry is of {}, but the key is of {}", entryTag, keyTag);
  }
  if (request.requestKind > RequestKind::hold) {
    return fmt::format("request kind {} is unknown", static_cast<int>(request.requestKind));
  }
  if (auto problem = checkChipAndCore(key.fapId, key.localCoreId)) return problem;
  FieldCheck check;
  visitKeyType(keyTag, [&]<class Row>() {
    checkFields<Row>(check, key.emComposerKey.template get<typename Row::ComposerKey>());
  });
  return check.problem();
}

template std::optional<std::string> checkRequest<Lem>(const LemEntryKey&, const LemSrvConfigEntry&);
template std::optional<std::string> checkRequest<Isem>(const IsemEntryKey&, const IsemSrvConfigEntry&);
template std::optional<std::string> checkRequest<Esem>(const EsemEntryKey&, const EsemSrvConfigEntry&);

}  // namespace KilnEmServer
