// What the benchmarks of single calls share.
#pragma once

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "comparison_reporter.h"
#include "require.h"

namespace vexo::bench {

// The time of an iteration, as what was measured.
inline void report(benchmark::State& state) {
  using benchmark::Counter;
  state.counters[kPlain] =
      Counter(static_cast<double>(state.iterations()),
              static_cast<Counter::Flags>(Counter::kIsRate | Counter::kInvert));
}

// A step is what is measured: one transfer, one buffer, one file.
template <typename Step>
void measure(benchmark::State& state, Step step) {
  while (state.KeepRunning()) step();
  report(state);
}

inline void add(const std::string& row, const char* contestant, void (*body)(benchmark::State&)) {
  benchmark::RegisterBenchmark((row + "/" + contestant).c_str(), body);
}

// Runs what was added, with `defaults` before the caller's options, which so have the last word.
// The program's exit status.
inline int run(int argc, char** argv, std::vector<std::string> defaults,
               benchmark::BenchmarkReporter& reporter) {
  std::vector<char*> arguments = {argv[0]};
  for (std::string& argument : defaults) arguments.push_back(argument.data());
  arguments.insert(arguments.end(), argv + 1, argv + argc + 1);  // with the null at the end
  int count = static_cast<int>(arguments.size()) - 1;
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
  const bool ran = benchmark::RunSpecifiedBenchmarks(&reporter) > 0;
  benchmark::Shutdown();
  return ran ? 0 : 1;
}

}  // namespace vexo::bench
