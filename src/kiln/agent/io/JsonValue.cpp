#include "kiln/agent/io/JsonValue.h"

#include <algorithm>

namespace KilnAgent {
namespace {

std::string_view kindOf(const Json& json) {
  switch (json.type()) {
    case Json::value_t::null:
      return "null";
    case Json::value_t::object:
      return "an object";
    case Json::value_t::array:
      return "an array";
    case Json::value_t::string:
      return "a text";
    case Json::value_t::boolean:
      return "true or false";
    default:
      return "a number";
  }
}

}  // namespace

std::string JsonPath::text() const {
  std::string path = outer == nullptr ? std::string() : outer->text();
  if (!path.empty() && !name.empty()) path += '.';
  return path += name;
}

void JsonPath::fail(std::string_view wrong) const {
  const std::string path = text();
  throw InputError(path.empty() ? std::string(wrong) : fmt::format("{}: {}", path, wrong));
}

std::string parseErrorText(const Json::exception& error) {
  std::string text = error.what();
  if (const std::size_t code = text.find("] "); code != std::string::npos) text.erase(0, code + 2);
  return text;
}

bool ParseGuard::operator()(int depth, Json::parse_event_t event, const Json& parsed) {
  const bool opens = event == Json::parse_event_t::object_start || event == Json::parse_event_t::array_start;
  if (opens && depth >= kMaxDepth) throw InputError(fmt::format("more than {} levels are nested", kMaxDepth));
  if (event == Json::parse_event_t::object_start) {
    names_.resize(static_cast<std::size_t>(depth) + 1);
    names_.back().clear();
  } else if (event == Json::parse_event_t::key) {
    auto& names = names_[static_cast<std::size_t>(depth) - 1];
    const std::string& name = parsed.get_ref<const std::string&>();
    if (std::find(names.begin(), names.end(), name) != names.end()) {
      throw InputError(fmt::format("field \"{}\" is given twice", name));
    }
    if (names.size() == kMaxNames) throw InputError(fmt::format("more than {} fields", kMaxNames));
    names.push_back(name);
  }
  return true;
}

void requireObject(const Json& json, const JsonPath& path) {
  if (!json.is_object()) path.fail(fmt::format("expected an object, found {}", kindOf(json)));
}

const Json& requireMember(const Json& object, std::string_view name, const JsonPath& path) {
  const auto member = object.find(name);
  if (member == object.end()) path.fail(fmt::format("field \"{}\" is missing", name));
  return *member;
}

void refuseOtherMembers(const Json& object, std::initializer_list<std::string_view> names,
                        const JsonPath& path) {
  for (const auto& [name, member] : object.items()) {
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      JsonPath{&path, name}.fail(fmt::format("unknown field, known are {}", fmt::join(names, ", ")));
    }
  }
}

std::uint64_t readWholeNumber(const Json& json, std::uint64_t max, const JsonPath& path) {
  if (!json.is_number()) path.fail(fmt::format("expected a whole number, found {}", kindOf(json)));
  if (json.is_number_float()) {
    path.fail(
        fmt::format("a fraction, an exponent or too large a number is not allowed, only the digits of a "
                    "whole number from 0 to {}",
                    max));
  }
  if (!json.is_number_unsigned() || json.get<std::uint64_t>() > max) {
    const std::string found = json == 0 ? "-0" : json.dump();  // the library has no other sign of -0
    path.fail(fmt::format("{} is out of range, a whole number from 0 to {} is expected", found, max));
  }
  return json.get<std::uint64_t>();
}

const std::string& readString(const Json& json, const JsonPath& path) {
  if (!json.is_string()) path.fail(fmt::format("expected a text, found {}", kindOf(json)));
  return json.get_ref<const std::string&>();
}

bool readBool(const Json& json, const JsonPath& path) {
  if (!json.is_boolean()) path.fail(fmt::format("expected true or false, found {}", kindOf(json)));
  return json.get<bool>();
}

Hardware::Kiln::FapId readFapId(const Json& json, const JsonPath& path) {
  if (json == "all") return Hardware::Kiln::FapId::allFap();
  Hardware::Kiln::FapId fapId;
  readValue(json, fapId, path);
  return fapId;
}

Hardware::Kiln::LocalCoreId readLocalCoreId(const Json& json, const JsonPath& path) {
  if (json == "all") return Hardware::Kiln::LocalCoreId::all();
  Hardware::Kiln::LocalCoreId localCoreId;
  readValue(json, localCoreId, path);
  return localCoreId;
}

void addChipAndCore(Json& json, Hardware::Kiln::FapId fapId, Hardware::Kiln::LocalCoreId localCoreId) {
  if (fapId != Hardware::Kiln::FapId::allFap()) json["fapId"] = fapId.number();
  if (localCoreId != Hardware::Kiln::LocalCoreId::all()) json["localCoreId"] = localCoreId.number();
}

void failForAlternatives(bool found, std::string_view kind, const JsonPath& path) {
  path.fail(
      fmt::format("exactly one \"<table>{}\" is expected, found {}", kind, found ? "a second one" : "none"));
}

KilnEmServer::EmEntry readEntry(const Json& json, const JsonPath& path) {
  requireObject(json, path);
  KilnEmServer::EmEntry entry;
  bool found = false;
  for (const auto& [name, member] : json.items()) {
    if (found) failForAlternatives(true, "Entry", path);
    if (!readAlternative(name, member, entry, path)) JsonPath{&path, name}.fail("unknown field");
    found = true;
  }
  if (!found) failForAlternatives(false, "Entry", path);
  return entry;
}

}  // namespace KilnAgent
