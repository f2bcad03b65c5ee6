#include <benchmark/benchmark.h>

#include <string>
#include <string_view>

// Without a filter, the benchmarks that take minutes are left out: those with a million entries.
int main(int argc, char** argv) {
  bool filtered = false;
  for (int i = 1; i < argc; ++i) {
    filtered = filtered || std::string_view(argv[i]).starts_with("--benchmark_filter");
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const auto ran = filtered ? benchmark::RunSpecifiedBenchmarks()
                            : benchmark::RunSpecifiedBenchmarks(std::string("-/[1-9][0-9]{6,}"));
  benchmark::Shutdown();
  return ran == 0 ? 1 : 0;
}
