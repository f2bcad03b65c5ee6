#include "kiln/runtime/stage/StateDigest.h"

#include <algorithm>
#include <map>

namespace KilnEmServer {

void StateDigest::begin(std::string name, const void* collection) {
  parts_.push_back({std::move(name), collection, kSeed});
}

StateDigest::Value StateDigest::value() const {
  StateDigest all(std::in_place);
  all.add(scratch_);
  for (const Part& part : parts_) {
    all.add(part.name);
    all.add(part.value);
  }
  return all.scratch_;
}

std::vector<std::string> differingParts(const StateDigest& a, const StateDigest& b) {
  using Values = std::vector<StateDigest::Value>;
  std::map<std::string, std::pair<Values, Values>> byName;
  for (const auto& part : a.parts()) byName[part.name].first.push_back(part.value);
  for (const auto& part : b.parts()) byName[part.name].second.push_back(part.value);
  std::vector<std::string> names;
  for (const auto& [name, values] : byName) {
    if (values.first != values.second) names.push_back(name);
  }
  return names;
}

}  // namespace KilnEmServer
