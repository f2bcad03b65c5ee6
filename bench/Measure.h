// Measurement: the thread's own CPU time, medians, and counted allocations.
#pragma once

#include <time.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace KilnBench {

/// CPU time of this thread in nanoseconds. Other programs on the machine increase it only through their use
/// of caches and memory.
inline double threadNanoseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

/// CPU time in nanoseconds that `work` takes.
template <class Work>
double timed(Work&& work) {
  const double begin = threadNanoseconds();
  work();
  return threadNanoseconds() - begin;
}

/// The value below which `share` (0 to 1) of the samples are; there must be at least one. Reorders them.
inline double quantile(std::vector<double>& samples, double share) {
  const auto last = static_cast<double>(samples.size() - 1);
  const auto at = samples.begin() + static_cast<std::ptrdiff_t>(last * share);
  std::nth_element(samples.begin(), at, samples.end());
  return *at;
}
inline double median(std::vector<double> samples) {
  return quantile(samples, 0.5);
}

/// A well mixed 64-bit number.
constexpr std::uint64_t mixed(std::uint64_t number) {
  number = (number ^ (number >> 30U)) * 0xBF58476D1CE4E5B9U;
  number = (number ^ (number >> 27U)) * 0x94D049BB133111EBU;
  return number ^ (number >> 31U);
}

/// The numbers from 0 to count - 1; shuffled, in an order that is the same for the same `seed`.
std::vector<std::uint32_t> numbers(std::uint32_t count, bool shuffled, std::uint64_t seed);

/// Number of this process's calls of the allocator so far.
std::uint64_t allocations();
/// Bytes that are allocated and not freed, including the allocator's overhead.
std::size_t heapBytes();

}  // namespace KilnBench
