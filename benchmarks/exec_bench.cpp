// Measures how long it takes to run a program and to take its output, beside posix_spawn(3) with
// waitpid(2) and a plain read loop, and libuv.
//
//   exec_bench                   all rows, the repetitions of all contestants shuffled
//   exec_bench --benchmark_...   as any Google Benchmark program
//
// Machines drift while they run: compare ratios within a run, not times between runs. Times are
// wall-clock time for one program from start to end.
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <uv.h>

#include <vexo_utils/exec.h>
#include <vexo_utils/timer.h>

#include "comparison_reporter.h"

namespace vexo::bench {

namespace {

using benchmark::State;

constexpr std::size_t kLargeParent = 512U << 20;
constexpr std::size_t kOutput = 64U << 20;
const std::string kWriteOutput = "head -c " + std::to_string(kOutput) + " /dev/zero";

const std::vector<Contestant> kContestants = {{"sysExec", false, nullptr},
                                              {"SysExec", false, nullptr},
                                              {"posix_spawn", true, nullptr},
                                              {"libuv", true, nullptr}};

// ---- /bin/true, from start to end; true when it ended with 0 ----

bool runBySysExec() {
  return utils::sysExecSimple("/bin/true") == 0;
}

bool runByRunner() {
  utils::SysExec runner;
  bool good = runner.setExe("/bin/true").start();
  while (good && runner.getState() == 1) {
    runner.waitReady(1000);
    good = runner.service();
  }
  return good && runner.getStatus() == 0;
}

bool runByPosixSpawn() {
  char name[] = "/bin/true";
  char* argv[] = {name, nullptr};
  pid_t pid = -1;
  int status = -1;
  return posix_spawn(&pid, name, nullptr, nullptr, argv, environ) == 0 &&
         waitpid(pid, &status, 0) == pid && status == 0;
}

bool runByLibuv() {
  char name[] = "/bin/true";
  char* argv[] = {name, nullptr};
  std::int64_t status = -1;
  uv_process_t process{};
  process.data = &status;
  uv_process_options_t options{};
  options.file = name;
  options.args = argv;
  options.exit_cb = [](uv_process_t* ended, std::int64_t code, int) {
    *static_cast<std::int64_t*>(ended->data) = code;
    uv_close(reinterpret_cast<uv_handle_t*>(ended), nullptr);
  };
  return uv_spawn(uv_default_loop(), &process, &options) == 0 &&
         uv_run(uv_default_loop(), UV_RUN_DEFAULT) == 0 && status == 0;
}

// ---- 64 MiB of output; true when all of it came ----

bool readBySysExec() {
  std::string out;
  return utils::shellExec(kWriteOutput, nullptr, &out, nullptr, 0, 0, 0) == 0 &&
         out.size() == kOutput;
}

bool readByRunner() {
  std::vector<char> out;
  utils::SysExec runner;
  runner.setExe("/bin/sh").setArgs({"-c", kWriteOutput}).setOut(&out);
  bool good = runner.start();
  while (good && runner.getState() == 1) {
    good = runner.service();
    runner.waitReady(1000);
  }
  runner.stop();
  return good && out.size() == kOutput;
}

bool readByPosixSpawn() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  std::string command = kWriteOutput;
  char shell[] = "/bin/sh";
  char option[] = "-c";
  char* argv[] = {shell, option, command.data(), nullptr};
  pid_t pid = -1;
  const bool started = posix_spawn(&pid, shell, &actions, nullptr, argv, environ) == 0;
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  std::string out;
  static char block[16384];
  for (ssize_t got = 0; started && (got = read(ends[0], block, sizeof block)) > 0;) {
    out.append(block, static_cast<std::size_t>(got));
  }
  close(ends[0]);
  int status = -1;
  return started && waitpid(pid, &status, 0) == pid && status == 0 && out.size() == kOutput;
}

void addBenchmark(const std::string& name, bool (*run)()) {
  const auto measure = [run](State& state) {
    double seconds = 0;
    while (state.KeepRunning()) {
      const long long start = nowNs();
      const bool good = run();
      const double taken = static_cast<double>(nowNs() - start) * 1e-9;
      state.SetIterationTime(taken);
      seconds += taken;
      if (!good) return state.SkipWithError("the program failed");
    }
    state.counters[kPlain] = seconds / static_cast<double>(state.iterations());
  };
  benchmark::RegisterBenchmark(name.c_str(), measure)->UseManualTime();
}

void addRuns(const std::string& row) {
  addBenchmark(row + "/sysExec", runBySysExec);
  addBenchmark(row + "/SysExec", runByRunner);
  addBenchmark(row + "/posix_spawn", runByPosixSpawn);
  addBenchmark(row + "/libuv", runByLibuv);
}

}  // namespace

}  // namespace vexo::bench

int main(int argc, char** argv) {
  using namespace vexo::bench;
  // The small parent's rows must not see the large one's memory: two programs in one.
  const bool large = argc > 1 && std::strcmp(argv[1], "--large-parent") == 0;
  if (large) {
    ++argv;
    --argc;
    void* memory =
        mmap(nullptr, kLargeParent, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return 1;
    std::memset(memory, 1, kLargeParent);
  }
  // Before the caller's, which so have the last word.
  std::vector<std::string> defaults = {"--benchmark_enable_random_interleaving=true",
                                       "--benchmark_repetitions=15", "--benchmark_min_time=0.05"};
  std::vector<char*> arguments = {argv[0]};
  for (std::string& argument : defaults) arguments.push_back(argument.data());
  arguments.insert(arguments.end(), argv + 1, argv + argc + 1);  // with the null at the end
  int count = static_cast<int>(arguments.size()) - 1;
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;

  const std::string run = large ? "true/512-MiB-parent" : "true/small-parent";
  addRuns(run);
  std::vector<Goal> goals = {{"sysExec of /bin/true", {run}, large ? 1.3 : 1.2}};
  if (!large) {
    addBenchmark("output/64-MiB/sysExec", readBySysExec);
    addBenchmark("output/64-MiB/SysExec", readByRunner);
    addBenchmark("output/64-MiB/posix_spawn", readByPosixSpawn);
    goals.push_back({"64 MiB of output", {"output/64-MiB"}, 1.0});
  }
  ComparisonReporter reporter(kContestants, goals);
  const bool ran = benchmark::RunSpecifiedBenchmarks(&reporter) > 0;
  benchmark::Shutdown();
  return ran ? 0 : 1;
}
