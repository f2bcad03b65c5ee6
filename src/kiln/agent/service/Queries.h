// The queries that a running agent answers, by name.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "kiln/agent/io/InputError.h"
#include "kiln/agent/io/JsonValue.h"
#include "kiln/agent/io/TextSource.h"

namespace KilnAgent {

/// Answers lines such as {"op":"show","what":"agent"}.
class Queries {
 public:
  /// Produces the content of an answer, which is JSON.
  using Query = std::function<std::unique_ptr<TextSource>()>;
  /// A query's name, and the content of the answer's member of that name.
  using Answer = std::pair<std::string, std::unique_ptr<TextSource>>;

  void queryIs(std::string what, Query query) { queries_[std::move(what)] = std::move(query); }
  /// Throws InputError if there is no query of the name, or if the line has other members.
  [[nodiscard]] Answer answer(const Json& line) const {
    const std::string& what = readString(requireMember(line, "what", {}), {nullptr, "what"});
    const auto found = queries_.find(what);
    if (found != queries_.end()) {
      refuseOtherMembers(line, {"op", "what"}, {});
      return {found->first, found->second()};
    }
    std::string known;
    for (const auto& [name, query] : queries_) known += (known.empty() ? "" : ", ") + name;
    throw InputError(fmt::format("what: unknown name \"{}\", known are {}", what, known));
  }

 private:
  std::map<std::string, Query> queries_;
};

}  // namespace KilnAgent
