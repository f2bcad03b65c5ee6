// Fatal assertions that stay on in release builds.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace KilnPlatform {

/// The name of the stage whose code is running, for the report of a failed assertion. Empty outside stages.
/// The view's storage belongs to the stage and outlives the scope that set it.
inline std::string_view& runningStageName() {
  static thread_local std::string_view name;
  return name;
}

/// Names the running stage for the lifetime of the scope and restores the previous name afterwards.
class RunningStageScope {
 public:
  explicit RunningStageScope(std::string_view name) : previous_(runningStageName()) {
    runningStageName() = name;
  }
  ~RunningStageScope() { runningStageName() = previous_; }
  RunningStageScope(const RunningStageScope&) = delete;
  RunningStageScope& operator=(const RunningStageScope&) = delete;

 private:
  std::string_view previous_;
};

/// Prints the failed condition, the running stage and the place to standard error and aborts.
[[noreturn]] [[gnu::cold]] [[gnu::noinline]] inline void assertionFailed(std::string_view condition,
                                                                         const char* file, int line) {
  const std::string_view stage = runningStageName();
  fmt::print(stderr, "Assertion failed: {} (stage {}, {}:{})\n", condition, stage.empty() ? "-" : stage, file,
             line);
  std::fflush(stderr);
  std::abort();
}

}  // namespace KilnPlatform

/// Aborts with the text of `condition` unless it holds. Never compiled out.
#define KILN_ASSERT(...)                                                 \
  do {                                                                   \
    if (!(__VA_ARGS__)) [[unlikely]]                                     \
      ::KilnPlatform::assertionFailed(#__VA_ARGS__, __FILE__, __LINE__); \
  } while (false)

/// As KILN_ASSERT, with an fmt format string and its arguments as the printed text. The arguments are
/// evaluated only on failure.
#define KILN_ASSERT_MESSAGE(condition, ...)                                            \
  do {                                                                                 \
    if (!(condition)) [[unlikely]]                                                     \
      ::KilnPlatform::assertionFailed(::fmt::format(__VA_ARGS__), __FILE__, __LINE__); \
  } while (false)
