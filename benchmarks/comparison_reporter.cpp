#include "comparison_reporter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

namespace vexo::bench {

namespace {

constexpr int kNameWidth = 22;
constexpr int kCellWidth = 15;

double median(std::vector<double> values) {
  if (values.empty()) return std::nan("");
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// The greatest of the repetitions by the least.
double spread(const std::vector<double>& values) {
  if (values.empty()) return std::nan("");
  const auto [least, greatest] = std::minmax_element(values.begin(), values.end());
  return *greatest / *least;
}

}  // namespace

ComparisonReporter::ComparisonReporter(std::vector<Contestant> compared, std::vector<Goal> wanted)
    : contestants(std::move(compared)), goals(std::move(wanted)) {}

bool ComparisonReporter::ReportContext(const Context& context) {
  PrintBasicContext(&GetErrorStream(), context);
  return true;
}

void ComparisonReporter::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) {
    const std::string& name = run.run_name.function_name;
    const std::size_t slash = name.find('/', name.find('/') + 1);  // contestants may have one too
    const std::string rowName = name.substr(0, slash);
    if (run.error_occurred) {
      errors.push_back(rowName + ": " + run.error_message);
      continue;
    }
    if (run.run_type != Run::RT_Iteration) continue;
    for (const auto& [counter, value] : run.counters) {
      Row& row = rowOf(run, rowName + (counter.empty() ? "" : " ") + counter);
      row.nanoseconds[name.substr(slash + 1)].push_back(value.value * 1e9);
    }
  }
}

void ComparisonReporter::Finalize() {
  // They came in the order in which they ended, which is random.
  std::stable_sort(rows.begin(), rows.end(),
                   [](const Row& left, const Row& right) { return left.order < right.order; });
  std::string peers;
  for (const Contestant& contestant : contestants) {
    if (contestant.peer) peers += (peers.empty() ? "" : ", ") + std::string(contestant.name);
  }
  std::printf("\nMedians, as ratios to the fastest of %s (below 1: faster than all), and in ns\n",
              peers.c_str());
  std::printf("%-*s", kNameWidth, "");
  for (const Contestant& contestant : contestants) {
    std::printf("%*s", kCellWidth, contestant.name);
  }
  std::printf("%*s\n", kCellWidth, "our max/min");
  for (const Row& row : rows) printRow(row);
  std::printf("\n");
  for (const Goal& goal : goals) printGoal(goal);
  std::sort(errors.begin(), errors.end());
  errors.erase(std::unique(errors.begin(), errors.end()), errors.end());
  for (const std::string& error : errors) std::printf("Not measured: %s\n", error.c_str());
}

ComparisonReporter::Row& ComparisonReporter::rowOf(const Run& run, const std::string& name) {
  const auto found =
      std::find_if(rows.begin(), rows.end(), [&](const Row& row) { return row.name == name; });
  if (found != rows.end()) return *found;
  rows.push_back({name, run.family_index, {}});
  return rows.back();
}

double ComparisonReporter::medianOf(const Row& row, const Contestant& contestant) const {
  const auto found = row.nanoseconds.find(contestant.name);
  return found == row.nanoseconds.end() ? std::nan("") : median(found->second);
}

double ComparisonReporter::fastestPeer(const Row& row) const {
  double fastest = std::nan("");
  for (const Contestant& contestant : contestants) {
    if (contestant.peer) fastest = std::fmin(fastest, medianOf(row, contestant));
  }
  return fastest;
}

void ComparisonReporter::printRow(const Row& row) const {
  const double fastest = fastestPeer(row);
  std::printf("%-*s", kNameWidth, row.name.c_str());
  for (const Contestant& contestant : contestants) {
    const double time = medianOf(row, contestant);
    if (std::isnan(time)) {
      std::printf("%*s", kCellWidth, "-");
    } else {
      std::printf("%7.2f %7.0f", time / fastest, time);
    }
  }
  const auto ours = row.nanoseconds.find(contestants.front().name);
  if (ours != row.nanoseconds.end()) std::printf("%*.2f", kCellWidth, spread(ours->second));
  std::printf("\n");
}

void ComparisonReporter::printGoal(const Goal& goal) const {
  double worst = std::nan("");
  std::string where;
  for (const Row& row : rows) {
    const bool counts = std::find(goal.rows.begin(), goal.rows.end(), row.name) != goal.rows.end();
    const double ratio = medianOf(row, contestants.front()) / fastestPeer(row);
    if (!counts || std::isnan(ratio) || ratio <= worst) continue;
    worst = ratio;
    where = row.name;
  }
  if (std::isnan(worst)) return;
  std::printf("Goal: %s at most %.2f: %s, the worst is %.2f (%s)\n", goal.what, goal.ratio,
              worst <= goal.ratio ? "met" : "MISSED", worst, where.c_str());
}

}  // namespace vexo::bench
