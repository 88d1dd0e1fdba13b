// Measures the string functions on 1 MiB of text beside Abseil's. Both make the same: strings of
// their own in a new vector, or a change in place. What prepares an argument is not timed.
//
//   strings_bench                   all rows, the repetitions of both shuffled
//   strings_bench --benchmark_...   as any Google Benchmark program
//
// Machines drift while they run: compare ratios within a run, not times between runs. Times are the
// thread's processor time for the whole text.
#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <absl/strings/ascii.h>
#include <absl/strings/str_replace.h>
#include <absl/strings/str_split.h>
#include <time.h>

#include <vexo_utils/string_utils.h>

#include "comparison_reporter.h"

namespace vexo::bench {

namespace {

using benchmark::State;
using Strings = std::vector<std::string>;

constexpr std::size_t kSize = 1 << 20;

// Ours first. Nothing in common with the event loops but the table.
const std::vector<Contestant> kContestants = {{"vexo", false, nullptr}, {"abseil", true, nullptr}};

double processorSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Pieces of random length, `mean` bytes on average, with one of the delimiters after each.
std::string textOf(std::size_t mean, const Strings& delimiters) {
  std::minstd_rand random(1);
  std::string text;
  while (text.size() < kSize) {
    for (std::size_t length = random() % (2 * mean + 1); length > 0; --length) {
      text += static_cast<char>('a' + random() % 26);
    }
    text += delimiters[random() % delimiters.size()];
  }
  text.resize(kSize);
  return text;
}

// Registers ROW/CONTESTANT for both. `Result` is what they are given anew each time, and make.
template <typename Result>
void addRow(const std::string& row, const Result& before, void (*ours)(const std::string&, Result&),
            void (*peers)(const std::string&, Result&), const std::string& text) {
  const auto measure = [before, text](State& state, void (*function)(const std::string&, Result&),
                                      void (*other)(const std::string&, Result&)) {
    Result expected = before;
    other(text, expected);
    double seconds = 0;
    while (state.KeepRunning()) {
      Result result = before;
      const double start = processorSeconds();
      function(text, result);
      const double taken = processorSeconds() - start;
      state.SetIterationTime(taken);
      seconds += taken;
      if (result != expected) return state.SkipWithError("the results differ");
    }
    state.counters[kPlain] = seconds / static_cast<double>(state.iterations());
  };
  const std::pair<const char*, std::pair<decltype(ours), decltype(ours)>> both[] = {
      {kContestants[0].name, {ours, peers}}, {kContestants[1].name, {peers, ours}}};
  for (const auto& [name, functions] : both) {
    benchmark::RegisterBenchmark((row + "/" + name).c_str(), [measure,
                                                              functions = functions](State& state) {
      measure(state, functions.first, functions.second);
    })->UseManualTime();
  }
}

void addTokenizeAndSplit() {
  using utils::split;
  using utils::tokenize;
  addRow<Strings>(
      "tokenize/words", {}, [](const std::string& s, Strings& out) { tokenize(s, out, " ", true); },
      [](const std::string& s, Strings& out) { out = absl::StrSplit(s, ' ', absl::SkipEmpty()); },
      textOf(6, {" "}));
  addRow<Strings>(
      "tokenize/4-delimiters", {},
      [](const std::string& s, Strings& out) { tokenize(s, out, " ,;\n", false); },
      [](const std::string& s, Strings& out) { out = absl::StrSplit(s, absl::ByAnyChar(" ,;\n")); },
      textOf(6, {" ", ",", ";", "\n"}));
  addRow<Strings>(
      "split/fields", {}, [](const std::string& s, Strings& out) { split(s, ",", out); },
      [](const std::string& s, Strings& out) { out = absl::StrSplit(s, ','); }, textOf(6, {","}));
  addRow<Strings>(
      "split/lines", {}, [](const std::string& s, Strings& out) { split(s, "\n", out); },
      [](const std::string& s, Strings& out) { out = absl::StrSplit(s, '\n'); },
      textOf(80, {"\n"}));
  addRow<Strings>(
      "split/crlf-lines", {}, [](const std::string& s, Strings& out) { split(s, "\r\n", out); },
      [](const std::string& s, Strings& out) { out = absl::StrSplit(s, "\r\n"); },
      textOf(80, {"\r\n"}));
  addRow<Strings>(
      "split/long-delimiter", {},
      [](const std::string& s, Strings& out) { split(s, "--boundary", out); },
      [](const std::string& s, Strings& out) { out = absl::StrSplit(s, "--boundary"); },
      textOf(1000, {"--boundary"}));
}

void addReplaceAll() {
  using utils::replaceAll;
  const auto add = [](const char* row, auto ours, auto peers, const std::string& text) {
    addRow<std::string>(row, text, ours, peers, text);
  };
  add(
      "replaceAll/byte", [](const std::string&, std::string& s) { replaceAll(s, " ", "-"); },
      [](const std::string&, std::string& s) {
        absl::StrReplaceAll({{" ", "-"}}, &s);
      },
      textOf(6, {" "}));
  add(
      "replaceAll/longer", [](const std::string&, std::string& s) { replaceAll(s, "&", "&amp;"); },
      [](const std::string&, std::string& s) {
        absl::StrReplaceAll({{"&", "&amp;"}}, &s);
      },
      textOf(40, {"&"}));
  add(
      "replaceAll/crlf", [](const std::string&, std::string& s) { replaceAll(s, "\r\n", "\n"); },
      [](const std::string&, std::string& s) {
        absl::StrReplaceAll({{"\r\n", "\n"}}, &s);
      },
      textOf(80, {"\r\n"}));
  add(
      "replaceAll/absent", [](const std::string&, std::string& s) { replaceAll(s, "a--", "b"); },
      [](const std::string&, std::string& s) {
        absl::StrReplaceAll({{"a--", "b"}}, &s);
      },
      textOf(6, {" "}));
}

void addTrim() {
  const auto add = [](const char* row, std::size_t left, std::size_t right) {
    const std::string text = std::string(left, ' ') +
                             textOf(80, {"\n"}).substr(0, kSize - left - right) +
                             std::string(right, '\n');
    addRow<std::string>(
        row, text, [](const std::string&, std::string& s) { utils::trim(s); },
        [](const std::string&, std::string& s) { absl::StripAsciiWhitespace(&s); }, text);
  };
  add("trim/few", 4, 1);
  add("trim/half", kSize / 4, kSize / 4);
  add("trim/all", kSize, 0);
}

}  // namespace

}  // namespace vexo::bench

int main(int argc, char** argv) {
  using namespace vexo::bench;
  // Before the caller's, which so have the last word.
  std::vector<std::string> defaults = {"--benchmark_enable_random_interleaving=true",
                                       "--benchmark_repetitions=15", "--benchmark_min_time=0.05"};
  std::vector<char*> arguments = {argv[0]};
  for (std::string& argument : defaults) arguments.push_back(argument.data());
  arguments.insert(arguments.end(), argv + 1, argv + argc + 1);  // with the null at the end
  int count = static_cast<int>(arguments.size()) - 1;

  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
  addTokenizeAndSplit();
  addReplaceAll();
  addTrim();
  ComparisonReporter reporter(
      kContestants,
      {{"tokenize and split",
        {"tokenize/words", "tokenize/4-delimiters", "split/fields", "split/lines",
         "split/crlf-lines", "split/long-delimiter"},
        1.0},
       {"replaceAll",
        {"replaceAll/byte", "replaceAll/longer", "replaceAll/crlf", "replaceAll/absent"},
        1.0},
       {"trim", {"trim/few", "trim/half", "trim/all"}, 1.0}});
  const bool ran = benchmark::RunSpecifiedBenchmarks(&reporter) > 0;
  benchmark::Shutdown();
  return ran ? 0 : 1;
}
