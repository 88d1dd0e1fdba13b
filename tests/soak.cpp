// soak SECONDS: a daemon's work, all of it at once and as fast as it goes, in a private world:
// timers, watched files, programs, the log ring, buffers, shared memory, errors logged. Fails when
// descriptors or children are left over, or memory grows after the first minute (a quarter of the
// time, when that is shorter).

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include "leftovers.h"
#include "log_ring.h"
#include "private_world.h"
#include "vexo/host/log_sink.h"
#include "vexo_utils/FSWatcher.h"
#include "vexo_utils/exec.h"
#include "vexo_utils/fileutils.h"
#include "vexo_utils/iobuffer.h"
#include "vexo_utils/logread.h"
#include "vexo_utils/process.h"
#include "vexo_utils/scheduler.h"
#include "vexo_utils/shm_posix_utils.h"
#include "vexo_utils/string_utils.h"
#include "vexo_utils/timer.h"
#include "vexo_utils/validation.h"

namespace {

using namespace vexo::utils;

constexpr long kMaxGrowthKiB = 64;
constexpr int kMaxWarmUpSeconds = 60;
constexpr unsigned kPiece = 100'000;  // bytes through the socket pair a turn

struct Counts {
  unsigned turns, timers, changes, programs, messages, errors;
  unsigned long long bytes;
};

void countErrors(void* lines, const vexo::host::LogRecord& /*record*/) {
  ++*static_cast<unsigned*>(lines);
}

class Work {
 public:
  Work() = default;
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;
  ~Work() {
    vexo::host::setLogSink(nullptr, nullptr);
    for (const int end : ends) close(end);
  }

  bool start() {
    vexo::host::setLogSink(countErrors, &counts.errors);
    logger.write("start");
    return scheduler.Init() && watcher.start() && log.Initialize() &&
           socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0 &&
           scheduler.AddIOTask(
               ends[1], EPOLLIN, [this](int fd, void*) { return receive(fd); }, nullptr) != 0 &&
           scheduler.AddTimerTask(
               1, [this](void*) { return turn(); }, nullptr) != 0;
  }

  bool service() { return scheduler.Service(100); }

  // In the middle of what takes several turns, and descriptors.
  bool isBusy() const { return child.getState() != 0; }

  Counts counts{};

 private:
  bool turn() {
    ++counts.turns;
    const bool done = timers() && files() && ring() && send() && sharedMemory() && program();
    if (!done) std::printf("turn %u failed\n", counts.turns);
    return done;
  }

  bool timers() {
    const auto fired = [this](unsigned long long id, void*) {
      ++counts.timers;
      return scheduler.RemoveIOTask(id);
    };
    return scheduler.AddTimerTask(2, 0, fired, nullptr) != 0;
  }

  // A watch that ends with the first event for it, and a file that comes and goes.
  bool files() {
    const auto changed = [this](unsigned id, const std::string&, unsigned, const char*) {
      ++counts.changes;
      watcher.remove(id);
    };
    const std::string folder = "/tmp/soak/" + std::to_string(counts.turns % 8);
    unsigned id = 0;
    return mkdirP(folder, false, 0755, AT_FDCWD) &&
           watcher.add(folder, IN_CREATE | IN_DELETE_SELF, changed, &id) &&
           writeSetting(folder + "/setting") && rmRf(folder, AT_FDCWD);
  }

  bool writeSetting(const std::string& path) {
    std::ofstream(path) << "address = 10.0.0." << counts.turns % 300 << '\n';
    const auto check = [this](const std::string& line) {
      if (!ipv4_address_valid(line.substr(10), false, false)) ++counts.errors;
      return true;
    };
    return copyFile(path.c_str(), (path + ".copy").c_str(), AT_FDCWD, AT_FDCWD) &&
           forEachLine(path + ".copy", check, AT_FDCWD);
  }

  bool ring() {
    logger.write(format("turn %u", counts.turns));
    const auto take = [](const char*, unsigned, void* context) {
      ++*static_cast<unsigned*>(context);
    };
    log.ForEach(take, &counts.messages);
    return true;
  }

  bool send() {
    int sent = 0;
    return outgoing.ReadFromRepeat('x', kPiece) &&
           outgoing.WriteToFd(ends[0], outgoing.UnreadSize(), sent);
  }

  bool receive(int fd) {
    int got = 0;
    if (!incoming.ReadFromFd(fd, kPiece, got)) return false;
    counts.bytes += incoming.UnreadSize();
    return incoming.IgnoreAll();
  }

  static bool sharedMemory() {
    constexpr int kWriter = 2;
    constexpr char kName[] = "/soak";
    char data[5000] = "first";
    ShmpBuf_t* const block = shmpInit(kName, sizeof data, kWriter);
    if (block == nullptr) return false;
    shmpWrite(block, data, 0, sizeof data);
    data[0] = 'F';
    shmpRead(block, data, 0, 1);
    shmpDestroy(block, kName, kWriter);
    return data[0] == 'f';
  }

  // One that runs beside, one to its end, and one that is not there.
  bool program() {
    if (child.getState() != 0 && child.service()) return true;
    child.stop();
    if (counts.turns % 20 != 0) return true;
    output.clear();
    counts.programs += 3;
    std::vector<int> pids;
    return sysExecSimple("/bin/true") == 0 && sysExecSimple("/no/such/program") != 0 &&
           pidof("nobody", pids) &&
           child.setExe("/bin/echo").setArgs({"a line"}).setOut(&output).start();
  }

  Scheduler scheduler;
  FSWatcher watcher{&scheduler};
  vexo::test::LogRing logger{4096, 4096, 0, std::string(4096, '\0')};
  Logread log;
  IOBuffer outgoing{"outgoing"};
  IOBuffer incoming{"incoming"};
  int ends[2] = {-1, -1};
  std::vector<char> output;  // which the child's end writes into
  SysExec child;
};

// What must not grow, at its highest.
struct Peak {
  long anonymousKiB = 0;
  std::size_t descriptors = 0;

  void look() {
    descriptors = std::max(descriptors, vexo::test::openDescriptors().size());
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("RssAnon:", 0) == 0) {
        anonymousKiB = std::max(anonymousKiB, std::atol(line.c_str() + 8));
      }
    }
  }
};

bool work(int seconds) {
  Work daemon;
  if (!daemon.start()) return false;

  const int warmUp = std::min(seconds / 4, kMaxWarmUpSeconds);
  Peak first;
  Peak later;
  const long long begin = nowMs();
  for (int second = 1; second <= seconds; ++second) {
    while (nowMs() < begin + second * 1000LL || daemon.isBusy()) {
      if (!daemon.service()) return false;
    }
    (second <= warmUp ? first : later).look();
  }
  const Counts& all = daemon.counts;
  std::printf(
      "%u turns: %u timers, %u changes, %u programs, %u messages, %u errors logged, %llu MiB\n"
      "memory: %ld KiB in the first %d s, %ld KiB later; descriptors: %zu, later %zu\n",
      all.turns, all.timers, all.changes, all.programs, all.messages, all.errors, all.bytes >> 20,
      first.anonymousKiB, warmUp, later.anonymousKiB, first.descriptors, later.descriptors);
  const bool served = all.timers > 0 && all.changes > 0 && all.programs > 0 && all.messages > 0 &&
                      all.errors > 0 && all.bytes > 0;
  return served && later.descriptors <= first.descriptors &&
         later.anonymousKiB - first.anonymousKiB < kMaxGrowthKiB;
}

int soak(int seconds) {
  vexo::host::setLogLevel(-1);
  const std::string before = vexo::test::processState();
  const bool worked = work(seconds);
  const std::string after = vexo::test::processState();
  if (after != before)
    std::printf("left behind:\n%s\ninstead of\n%s\n", after.c_str(), before.c_str());
  const bool passed = worked && after == before;
  std::puts(passed ? "passed" : "failed");
  return passed ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc == 2 ? std::atoi(argv[1]) : 0;
  if (seconds < 4) {
    std::fprintf(stderr, "usage: %s SECONDS (at least 4)\n", argv[0]);
    return 2;
  }
  const auto unavailable = [](const std::string& reason) {
    std::fprintf(stderr, "this machine allows no private world: %s\n", reason.c_str());
    return 1;
  };
  return vexo::test::runInPrivateWorld(
      {VEXO_BINARY_DIR}, [&] { return soak(seconds); }, unavailable);
}
