#include "vexo_utils/startupcontrolfile.h"

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "files.h"
#include "in_child.h"
#include "leftovers.h"
#include "log_recorder.h"
#include "process_state.h"
#include "vexo_utils/InterProcessMutex.h"
#include "wait.h"

namespace vexo::utils {
namespace {

namespace fs = std::filesystem;
using namespace test;

constexpr char kPath[] = "/tmp/state";
constexpr startup_control_file_state_t kReady{'R'};

int asked;  // how often a wait asked whether it is cancelled

TEST(StartupControlFile, TenantWaitsForTheOwner) {
  const pid_t tenant = startChild([&] {
    StartupControlFile file(kPath, false);
    writeFile("/tmp/tenant-starts", "");
    if (file.Init() != 0) return 1;
    writeFile("/tmp/tenant-runs", "");
    return file.AwaitState(kReady, nullptr);
  });
  EXPECT_TRUE(eventually([] { return fs::exists("/tmp/tenant-starts"); }));
  StartupControlFile owner(kPath, true);
  EXPECT_EQ(owner.Init(), 0);
  EXPECT_EQ(owner.AwaitState(kReady, [] { return ++asked == 3; }), -1);
  EXPECT_EQ(errno, EINTR);
  EXPECT_TRUE(logged(kInfo, "Wait for target state 0x52 (R)... ", 0));
  EXPECT_FALSE(fs::exists("/tmp/tenant-runs"));  // 200 ms later: there is no state yet
  for (const int state : {0, 255}) {
    EXPECT_EQ(owner.Set(static_cast<startup_control_file_state_t>(state)), 0);
    startup_control_file_state_t seen{};
    EXPECT_EQ(owner.Get(seen), 0);
    EXPECT_EQ(seen, state);
  }
  EXPECT_TRUE(eventually([] { return fs::exists("/tmp/tenant-runs"); }));
  EXPECT_EQ(waitpid(tenant, nullptr, WNOHANG), 0);
  EXPECT_EQ(owner.Set(kReady), 0);
  EXPECT_EQ(endOfChild(tenant), 0);
  EXPECT_EQ(readFile(kPath), "R");
  EXPECT_EQ(StartupControlFile(kPath, true).Init(), 0);
  EXPECT_EQ(readFile(kPath), "");
}

TEST(StartupControlFile, Failures) {
  StartupControlFile file("/none/state", true);
  startup_control_file_state_t state{};
  const auto expect = [](int error, int result) {
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, error);
  };
  expect(EBADF, file.Set(kReady));
  expect(EBADF, file.Get(state));
  expect(EINTR, file.AwaitState(kReady, [] { return true; }));  // before any look at the file
  expect(ENOENT, file.Init());
  expect(EISDIR, StartupControlFile("/tmp", false).Init());
  expect(EINVAL, StartupControlFile::AwaitProcRestart("(", nullptr, 0));
  EXPECT_TRUE(logged(kError, "Failed to compile regex", EINVAL));
}

pid_t startDaemon(bool ignoresSigterm) {
  const pid_t pid = startChild([=] {
    if (ignoresSigterm) signal(SIGTERM, SIG_IGN);
    return execl("/bin/sleep", "vexod", "1000", nullptr);
  });
  const std::string shown = "/proc/" + std::to_string(pid) + "/cmdline";
  EXPECT_TRUE(eventually([&] { return readFile(shown).rfind("vexod", 0) == 0; }));
  return pid;
}

pid_t daemonPid;  // -1: none has been started
int daemonEnd;    // the signal that ended it; -1: none was there

// Starts the daemon again when it has ended.
bool supervise() {
  int status = 0;
  if (daemonEnd == 0 && waitpid(daemonPid, &status, WNOHANG) != 0) {
    daemonEnd = daemonPid > 0 ? WTERMSIG(status) : -1;
    daemonPid = startDaemon(false);
  }
  return ++asked == 25;
}

TEST(AwaitProcRestart, WaitsForTheNextInstance) {
  const struct {
    bool runs, ignoresSigterm;
    unsigned forceAfter;
    int result, end;
  } rows[] = {{true, false, 0, 0, SIGTERM},
              {true, true, 1, 0, SIGKILL},
              {true, true, 0, -1, 0},  // cancelled
              {false, false, 0, 0, -1}};
  for (const auto& row : rows) {
    asked = 0;
    daemonEnd = 0;
    daemonPid = row.runs ? startDaemon(row.ignoresSigterm) : -1;
    EXPECT_EQ(StartupControlFile::AwaitProcRestart("vexod", supervise, row.forceAfter), row.result);
    EXPECT_TRUE(row.result == 0 || errno == EINTR);
    EXPECT_EQ(daemonEnd, row.end);
    EXPECT_TRUE(row.forceAfter == 0 || asked > 10);
    kill(daemonPid, SIGKILL);
    endOfChild(daemonPid);
  }
  const pid_t two[] = {startDaemon(false), startDaemon(false)};
  EXPECT_EQ(StartupControlFile::AwaitProcRestart("vexod", nullptr, 0), -1);
  EXPECT_EQ(errno, ERANGE);
  for (const pid_t pid : two) kill(pid, SIGKILL), endOfChild(pid);
  const auto killOwnGroup = [] {
    setsid();
    return StartupControlFile::AwaitProcRestart("none", nullptr, 1);
  };
  EXPECT_EQ(inChild(killOwnGroup), 128 + SIGKILL);
}

TEST(InterProcessMutex, OutlastsTriesAndItsHolder) {
  EXPECT_EQ(InterProcessMutex("no/such", false).acquire(), -2);
  EXPECT_EQ(InterProcessMutex(nullptr, false).acquire(), -2);
  const std::string name(60, 'n');
  const pid_t holder = startChild([&] {
    InterProcessMutex mutex(name.c_str(), true);
    if (mutex.acquire() != 0 || mutex.acquire() != -1) return 1;
    inChild([&] { return mutex.release(); });  // is not the child's
    writeFile("/tmp/held", "");
    return pause();
  });
  EXPECT_TRUE(eventually([] { return fs::exists("/tmp/held"); }));
  {
    InterProcessMutex tries(name.c_str(), false);
    const DescriptorLimit one(1);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(tries.acquire(), -3);
  }
  InterProcessMutex next(name.c_str(), true);
  kill(holder, SIGKILL);
  EXPECT_EQ(next.acquire(), 0);
  EXPECT_EQ(endOfChild(holder), 128 + SIGKILL);
  for (const auto& [fd, file] : openDescriptors()) {
    if (file == fs::canonical("/var/lock") / name.substr(0, 53)) {
      EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    }
  }
  EXPECT_EQ(next.release(), 0);
}

TEST(InterProcessMutex, NeverTwoInside) {
  std::vector<pid_t> racers;
  for (const bool blocking : {true, false, true, false}) {
    racers.push_back(startChild([=] {
      InterProcessMutex mutex("race", blocking);
      for (int entered = 0; entered < 250; ++entered) {
        while (mutex.acquire() != 0) {
        }
        if (mkdir("/tmp/inside", 0700) != 0 || rmdir("/tmp/inside") != 0) return 1;
        if (mutex.release() != 0) return 2;
      }
      return 0;
    }));
  }
  for (const pid_t racer : racers) EXPECT_EQ(endOfChild(racer), 0);
}

}  // namespace
}  // namespace vexo::utils
