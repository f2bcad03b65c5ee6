// What a running agent can be asked, by name.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>

#include "agent/InputError.h"
#include "agent/JsonValue.h"

namespace KilnAgent {

/// Answers lines such as {"op":"show","what":"agent"}.
class Queries {
 public:
  /// Gets the whole line and returns its answer. May throw InputError for members that it does not take.
  using Query = std::function<Json(const Json& line)>;

  void queryIs(std::string what, Query query) { queries_[std::move(what)] = std::move(query); }
  /// Throws InputError where nothing goes by the name.
  [[nodiscard]] Json answer(const Json& line) const {
    const std::string& what = readString(requireMember(line, "what", {}), {nullptr, "what"});
    const auto found = queries_.find(what);
    if (found != queries_.end()) return found->second(line);
    std::string known;
    for (const auto& [name, query] : queries_) known += (known.empty() ? "" : ", ") + name;
    throw InputError(fmt::format("what: unknown name \"{}\", known are {}", what, known));
  }

 private:
  std::map<std::string, Query> queries_;
};

}  // namespace KilnAgent
