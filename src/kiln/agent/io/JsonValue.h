// Converts plain values to and from JSON: one converter for all of them, based on the description of their
// fields.
//
// A described value is an object of its fields, a number with a restricted range is a number, an enumeration
// is its value's name. A tagged union is one member of its owner's object, named after the alternative.
#pragma once

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "kiln/agent/io/InputError.h"
#include "kiln/platform/EmKeys.h"
#include "kiln/platform/Hardware.h"
#include "kiln/platform/Value.h"

namespace KilnAgent {

using Json = nlohmann::json;

/// The path from the outermost JSON object to the value being read, for error texts. Lives on the reader's
/// stack.
struct JsonPath {
  const JsonPath* outer = nullptr;
  std::string_view name;

  /// For example "key.isemMplsEntryKey.label".
  [[nodiscard]] std::string text() const;
  /// Throws InputError with the path and the reason.
  [[noreturn]] void fail(std::string_view wrong) const;
};

/// The JSON library's message for malformed text, without its codes.
std::string parseErrorText(const Json::exception& error);

/// Passed to the JSON library's parser to refuse text that the library accepts and the agent must not: an
/// object that names a member twice, of which the library would keep only one, and deep nesting, since the
/// library copies and writes values by recursion.
class ParseGuard {
 public:
  /// Maximum nesting of objects and arrays; operations need six.
  static constexpr int kMaxDepth = 32;
  static constexpr std::size_t kMaxNames = 64;  ///< of one object

  /// Throws InputError if `parsed` is a name that the open object already has, or if the nesting is too deep.
  bool operator()(int depth, Json::parse_event_t event, const Json& parsed);

 private:
  std::vector<std::vector<std::string>> names_;  ///< of the open objects, outermost first
};

/// Throws unless `json` is an object.
void requireObject(const Json& json, const JsonPath& path);
/// The member of an object; throws if there is none.
const Json& requireMember(const Json& object, std::string_view name, const JsonPath& path);
/// Throws for the first member whose name is not among `names`.
void refuseOtherMembers(const Json& object, std::initializer_list<std::string_view> names,
                        const JsonPath& path);
/// A whole number of at most `max`; throws for anything else.
std::uint64_t readWholeNumber(const Json& json, std::uint64_t max, const JsonPath& path);
/// A text; throws for anything else.
const std::string& readString(const Json& json, const JsonPath& path);
/// True or false; throws for anything else.
bool readBool(const Json& json, const JsonPath& path);

/// The value of an enumeration by its name; throws with the known names for anything else.
template <KilnPlatform::NamedEnum E>
E readEnum(const Json& json, const JsonPath& path) {
  using Names = KilnPlatform::EnumNames<E>;
  const std::string& name = readString(json, path);
  for (std::size_t i = 0; i < Names::kNames.size(); ++i) {
    if (Names::kNames[i] == name) return static_cast<E>(Names::kFirst + static_cast<int>(i));
  }
  path.fail(fmt::format("unknown name \"{}\", known are {}", name, fmt::join(Names::kNames, ", ")));
}

/// Reads `json` into `value`. Every field must be present, and no other; throws InputError if a field is
/// missing, unknown, of another type or out of its range.
template <class T>
void readValue(const Json& json, T& value, const JsonPath& path) {
  if constexpr (KilnPlatform::NamedEnum<T>) {
    value = readEnum<T>(json, path);
  } else if constexpr (KilnPlatform::NumberValue<T>) {
    const std::uint64_t number = readWholeNumber(json, std::numeric_limits<std::uint64_t>::max(), path);
    try {
      value = T(number);
    } catch (const std::range_error& error) {
      path.fail(fmt::format("{} is out of range: {}", number, error.what()));
    }
  } else if constexpr (std::is_integral_v<T>) {
    value = static_cast<T>(readWholeNumber(json, std::numeric_limits<T>::max(), path));
  } else {
    static_assert(KilnPlatform::Described<T>);
    requireObject(json, path);
    const auto readField = [&](const auto& field) {
      readValue(requireMember(json, field.name, path), value.*(field.member), JsonPath{&path, field.name});
    };
    std::apply(
        [&](const auto&... field) {
          (readField(field), ...);
          if (json.size() != sizeof...(field)) refuseOtherMembers(json, {field.name...}, path);
        },
        T::fields());
  }
}

/// Reads the member of `object` that is named after an alternative of the union; does nothing if the name is
/// of no alternative.
template <KilnPlatform::UnionValue U>
bool readAlternative(std::string_view name, const Json& json, U& value, const JsonPath& path) {
  using Tag = typename U::Tag;
  using Names = KilnPlatform::EnumNames<Tag>;
  for (std::size_t i = 1; i < Names::kNames.size(); ++i) {
    if (Names::kNames[i] != name) continue;
    value = U::make(static_cast<Tag>(i), [&](auto& alternative) {
      readValue(json, alternative, JsonPath{&path, name});
    });
    return true;
  }
  return false;
}

/// The JSON of a value.
template <class T>
Json toJson(const T& value) {
  if constexpr (KilnPlatform::NamedEnum<T>) {
    return std::string(KilnPlatform::stringValue(value));
  } else if constexpr (KilnPlatform::NumberValue<T>) {
    return value.number();
  } else if constexpr (std::is_integral_v<T> || std::is_same_v<T, std::string>) {
    return value;
  } else if constexpr (KilnPlatform::UnionValue<T>) {
    Json json = Json::object();
    value.visit([&](const auto& alternative) {
      json[std::string(KilnPlatform::stringValue(value.tag()))] = toJson(alternative);
    });
    return json;
  } else {
    static_assert(KilnPlatform::Described<T>);
    Json json = Json::object();
    std::apply([&](const auto&... field) { ((json[field.name] = toJson(value.*(field.member))), ...); },
               T::fields());
    return json;
  }
}

// --- Keys and entries --------------------------------------------------------------------------------------
//
// A key is {fapId?, localCoreId?, "<stem>EntryKey": {fields}}, for requests and for the hardware. Chip and
// core are numbers or "all", which is the default and is omitted.

/// A chip, as a number or "all".
Hardware::Kiln::FapId readFapId(const Json& json, const JsonPath& path);
/// A core, as a number or "all".
Hardware::Kiln::LocalCoreId readLocalCoreId(const Json& json, const JsonPath& path);
/// Adds chip and core to a key's JSON, each unless it is "all".
void addChipAndCore(Json& json, Hardware::Kiln::FapId fapId, Hardware::Kiln::LocalCoreId localCoreId);
/// Throws: `json` must hold exactly one member of `kind`, but holds none or (`found`) a second one.
[[noreturn]] void failForAlternatives(bool found, std::string_view kind, const JsonPath& path);

/// A key whose `unionMember` holds the part that names the table.
template <class Key, class Union>
Key readKey(const Json& json, Union Key::*unionMember, const JsonPath& path) {
  requireObject(json, path);
  Key key{};
  key.fapId = Hardware::Kiln::FapId::allFap();
  key.localCoreId = Hardware::Kiln::LocalCoreId::all();
  bool found = false;
  for (const auto& [name, member] : json.items()) {
    if (name == "fapId") {
      key.fapId = readFapId(member, JsonPath{&path, name});
    } else if (name == "localCoreId") {
      key.localCoreId = readLocalCoreId(member, JsonPath{&path, name});
    } else {
      Union alternative;
      if (!readAlternative(name, member, alternative, path)) JsonPath{&path, name}.fail("unknown field");
      if (found) failForAlternatives(true, "EntryKey", path);
      key.*unionMember = alternative;
      found = true;
    }
  }
  if (!found) failForAlternatives(false, "EntryKey", path);
  return key;
}

template <class Key, class Union>
Json keyToJson(const Key& key, Union Key::*unionMember) {
  Json json = toJson(key.*unionMember);
  addChipAndCore(json, key.fapId, key.localCoreId);
  return json;
}

/// An entry: {"<stem>Entry": {fields}}.
KilnEmServer::EmEntry readEntry(const Json& json, const JsonPath& path);

}  // namespace KilnAgent
