// ComparisonReporter: prints, when all benchmarks have run, one table of the contestants side by
// side: a line for each measured thing, and in each cell the median over the repetitions, in ns and
// as a ratio to the fastest peer's.
//
// A benchmark is named GROUP/ROW/CONTESTANT. Its counters are what it measured, in seconds: kPlain
// stands for the row itself, any other is added to the row's name.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "loops/loop.h"

namespace vexo::bench {

inline constexpr const char* kPlain = "";

// Something that is wanted of the first contestant in some rows.
struct Goal {
  const char* what;
  std::vector<std::string> rows;
  double ratio;  // at most this, to the fastest peer
};

class ComparisonReporter : public benchmark::BenchmarkReporter {
 public:
  ComparisonReporter(std::vector<Contestant> contestants, std::vector<Goal> goals);

  bool ReportContext(const Context& context) override;
  void ReportRuns(const std::vector<Run>& runs) override;
  void Finalize() override;

 private:
  struct Row {
    std::string name;
    std::int64_t order;                                      // of the benchmarks' registration
    std::map<std::string, std::vector<double>> nanoseconds;  // by contestant, one a repetition
  };

  Row& rowOf(const Run& run, const std::string& name);
  double medianOf(const Row& row, const Contestant& contestant) const;  // NaN: not measured
  double fastestPeer(const Row& row) const;                             // NaN: none
  void printRow(const Row& row) const;
  void printGoal(const Goal& goal) const;

  const std::vector<Contestant> contestants;
  const std::vector<Goal> goals;
  std::vector<Row> rows;
  std::vector<std::string> errors;  // a row and why it was not measured
};

}  // namespace vexo::bench
