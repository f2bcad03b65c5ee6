#include "sim/Marks.h"

#include <fmt/format.h>

#include <fstream>
#include <utility>

#include "kiln/agent/io/InputError.h"

namespace KilnSim {

bool Marks::wants(const KilnPlatform::TraceDescriptor& descriptor) {
  Count& count = counts_[descriptor.text.data()];
  count.text = descriptor.text;
  ++count.count;
  return descriptor.level == 0 && descriptor.text == "{}: key {} left out: {}";
}

void Marks::write(const KilnPlatform::TraceRecord& record) {
  unexpected_ += fmt::format("traced: {}\n", record.message);
}

std::uint64_t Marks::count(std::string_view text) const {
  const bool isEnd = text.starts_with("...");
  if (isEnd) text.remove_prefix(3);
  std::uint64_t sum = 0;
  for (const auto& [place, count] : counts_) {
    if (isEnd ? count.text.ends_with(text) : count.text == text) sum += count.count;
  }
  return sum;
}

std::string Marks::takeUnexpected() {
  return std::exchange(unexpected_, {});
}

std::vector<std::string> Marks::listed(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw KilnAgent::InputError(fmt::format("{}: cannot be read", path));
  std::vector<std::string> marks;
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line[0] != '#') marks.push_back(line);
  }
  return marks;
}

}  // namespace KilnSim
