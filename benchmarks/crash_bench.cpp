// Measures a crash of a program with the crash dump handler: the time from the fault until the
// "stack" file is complete, and the resident memory that the installed handler adds before.
//
//   crash_bench
//
// The program that crashes is this one, once for each measurement, with its own libraries mapped.
// The file is complete when the handler closes it; inotify(7) tells.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vexo_utils/crashdumps.h>
#include <vexo_utils/timer.h>

namespace {

constexpr int kRuns = 50;
constexpr double kGoalMs = 20;
constexpr int kPatienceMs = 15000;
constexpr char kApp[] = "crash_bench";

// What a child and this process share.
struct Shared {
  long long faultNs;
  volatile int* nowhere;  // null
};

struct Resident {  // KiB
  long all = 0;
  long own = 0;  // what is not of a file that other processes map as well
};

Resident readResident() {
  Resident resident;
  std::ifstream file("/proc/self/smaps_rollup");
  for (std::string line; std::getline(file, line);) {
    std::sscanf(line.c_str(), "Rss: %ld", &resident.all);
    std::sscanf(line.c_str(), "Anonymous: %ld", &resident.own);
  }
  return resident;
}

std::string dumps() {
  return std::string("/tmp/crashdumps/") + kApp;
}

__attribute__((noinline)) void recurse(Shared& shared, int depth) {
  if (depth > 0) {
    recurse(shared, depth - 1);
  } else {
    shared.faultNs = nowNs();
    *shared.nowhere = 1;
  }
  __asm__ volatile("");  // no tail call: each level is a frame of the trace
}

struct Row {
  const char* name;
  int threads;
  int depth;
};

[[noreturn]] void crash(const Row& row, Shared& shared) {
  if (!InstallCrashDumpHandler(kApp)) _exit(2);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(nowhere, STDERR_FILENO);
  for (int i = 1; i < row.threads; ++i) std::thread([] { pause(); }).detach();
  raise(SIGSTOP);  // until the file is watched
  recurse(shared, row.depth);
  _exit(3);
}

// Waits for the end of the dump that a stopped child is about to write; 0 if there is none.
long long endOfDump(pid_t child, const std::string& folder) {
  const int notify = inotify_init1(IN_CLOEXEC);
  inotify_add_watch(notify, folder.c_str(), IN_CLOSE_WRITE);
  kill(child, SIGCONT);
  pollfd closed{notify, POLLIN, 0};
  const long long end = poll(&closed, 1, kPatienceMs) == 1 ? nowNs() : 0;
  close(notify);
  return end;
}

// Milliseconds; negative if there was no dump.
double measure(const Row& row, Shared& shared) {
  const pid_t child = fork();
  if (child == 0) crash(row, shared);
  int status = 0;
  waitpid(child, &status, WUNTRACED);
  if (!WIFSTOPPED(status)) return -1;
  const long long end = endOfDump(child, dumps() + "/0000000001");
  kill(child, SIGKILL);  // it would wait a second for its collector
  waitpid(child, nullptr, 0);
  std::filesystem::remove_all(dumps());
  return end != 0 ? static_cast<double>(end - shared.faultNs) * 1e-6 : -1;
}

}  // namespace

int main() {
  void* memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return 1;
  Shared& shared = *static_cast<Shared*>(memory);
  bool met = true;
  std::printf("fault to complete stack file, %d runs each   median      p90      max\n", kRuns);
  for (const Row& row :
       {Row{"one thread", 1, 0}, Row{"64 threads", 64, 0}, Row{"one thread, 128 frames", 1, 200}}) {
    std::vector<double> times(kRuns);
    for (double& time : times) time = measure(row, shared);
    std::sort(times.begin(), times.end());
    if (times.front() < 0) return 1;
    const double median = times[kRuns / 2];
    std::printf("%-41s %7.2f ms %5.2f ms %5.2f ms\n", row.name, median, times[kRuns * 9 / 10],
                times.back());
    met = met && median < kGoalMs;
  }
  std::printf("goal: a median under %.0f ms: %s\n", kGoalMs, met ? "met" : "NOT MET");
  readResident();  // takes memory itself, the first time
  const Resident before = readResident();
  if (!InstallCrashDumpHandler(kApp)) return 1;
  const Resident after = readResident();
  std::filesystem::remove_all(dumps());
  std::printf("an installed handler adds %ld KiB of resident memory, %ld KiB of it its own\n",
              after.all - before.all, after.own - before.own);
  return 0;
}
