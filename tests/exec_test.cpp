#include "vexo_utils/exec.h"

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "files.h"
#include "in_child.h"
#include "leftovers.h"
#include "log_recorder.h"
#include "process_state.h"
#include "wait.h"

namespace vexo::utils {
namespace {

using namespace test;
using testing::HasSubstr;

const std::string kChild = VEXO_BINARY_DIR "/tests/exec_child";

// `size` bytes of the sequence that begins with `first` and repeats after `letters`.
std::string pattern(std::size_t size, char first, int letters) {
  std::string text(size, first);
  int next = 0;
  for (char& c : text) c = static_cast<char>(first + next++ % letters);
  return text;
}

int run(const std::vector<std::string>& args, std::string* out = nullptr,
        std::string* err = nullptr, const std::string* in = nullptr) {
  return sysExec(in, out, err, 0, 0, 0, kChild, args);
}

// Starts the child and serves it until it ends or a step fails; the code.
int serve(SysExec& runner, const std::vector<std::string>& args) {
  EXPECT_TRUE(runner.setExe(kChild).setArgs(args).start());
  while (runner.getState() == 1 && runner.service()) runner.waitReady(1000);
  return runner.getCode();
}

sigset_t setOf(int signo) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signo);
  return set;
}

// ---- the runner ----

TEST(SysExec, IsConfiguredBeforeItsFirstStartOnly) {
  SysExec runner;
  EXPECT_FALSE(runner.start());
  EXPECT_EQ(runner.getCode(), 20);
  EXPECT_FALSE(runner.service());
  EXPECT_EQ(runner.getCode(), 90);
  EXPECT_TRUE(runner.setExe(kChild).setArgs({"exit"}).pushArg("3").start());
  EXPECT_EQ(runner.getState(), 1);
  EXPECT_GT(runner.getPid(), 0);
  EXPECT_EQ(runner.getCmd(), kChild + " exit 3");
  runner.setName("").setExe("").setArgs({}).pushArg("").setIn("").setOut(-1).setOut(nullptr);
  runner.setErr(nullptr).setOutThreshold(1).setErrThreshold(1).setOutOverflowStop(false);
  runner.setErrOverflowStop(false).setMaskSignals(nullptr).setDaemon(true);
  for (int i = 0; i < 14; ++i) {
    EXPECT_TRUE(logged(kError, "Setter applicable only to never serviced instance"));
  }
  EXPECT_FALSE(runner.start());
  EXPECT_EQ(runner.getCode(), 10);
  while (runner.getState() == 1) EXPECT_TRUE(runner.service());
  EXPECT_EQ(runner.getState(), 34);
  EXPECT_EQ(runner.getStatus(), 3 * 256);
  EXPECT_EQ(runner.getPid(), -1);
  runner.stop();
  EXPECT_EQ(runner.getState(), 0);
  EXPECT_EQ(runner.getCmd(), "");
  EXPECT_FALSE(runner.start());
  EXPECT_EQ(runner.getCode(), 20);
}

TEST(SysExec, ChildGetsItsStreamsItsMaskAndNothingElse) {
  const SignalMask restore;
  const sigset_t callers = setOf(SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &callers, nullptr);
  const int inherited = open("/dev/zero", O_RDONLY);  // not close-on-exec
  std::string out;
  EXPECT_EQ(run({"report", "a b", "", "line\nfeed", "'\""}, &out), 0);
  EXPECT_EQ(out,
            "descriptors 0=/dev/null 1=pipe 2=/dev/null\nblocked 10\nleader no\n"
            "arguments <a b> <> <line\nfeed> <'\">\n");
  close(inherited);

  const sigset_t own = setOf(SIGRTMIN + 6);
  std::vector<char> text;
  SysExec runner;
  runner.setIn("").setOut(&text).setErr(nullptr).setMaskSignals(&own);
  EXPECT_EQ(serve(runner, {"report"}), 0);
  runner.stop();
  EXPECT_THAT(std::string(text.begin(), text.end()),
              HasSubstr("descriptors 0=pipe 1=pipe 2=pipe\nblocked 40\n"));
}

TEST(SysExec, StandardStreamsOfTheCallerMayBeClosed) {
  for (int closed = 1; closed < 8; ++closed) {
    const auto works = [&] {
      for (int fd = 0; fd <= 2; ++fd) {
        if ((closed & 1 << fd) != 0) close(fd);
      }
      const std::string in = "input";
      std::string out;
      std::string err;
      if (run({"flood-copy", "5"}, &out, &err, &in) != 0) return 1;
      if (out != "inputabcde" || err != "01234") return 2;
      if (run({"report"}, &out) != 0) return 3;
      return out.find("0=/dev/null 1=pipe 2=/dev/null\n") == std::string::npos ? 4 : 0;
    };
    EXPECT_EQ(inChild(works), 0) << closed;
  }
}

TEST(SysExec, EverythingWrittenArrives) {
  const std::string in = pattern(1 << 20, 'A', 26);
  for (const std::size_t size : {0U, 1U, 16384U, 16385U, 64U << 20}) {
    std::string out = "replaced";
    std::string err = "replaced";
    EXPECT_EQ(run({"flood-copy", std::to_string(size)}, &out, &err, &in), 0);
    EXPECT_TRUE(out == in + pattern(size, 'a', 26)) << size;
    EXPECT_TRUE(err == pattern(size, '0', 10)) << size;
  }
}

TEST(SysExec, ThresholdsStopOrCut) {
  struct {
    unsigned out, err;
    bool stop;
    int state;
    std::size_t outSize;
  } const rows[] = {{10, 0, true, 6, 10},
                    {0, 10, true, 10, 100'000},
                    {10, 10, false, 34, 10},
                    {~0U, ~0U, true, 34, 100'000}};
  for (const auto& row : rows) {
    std::vector<char> out;
    std::vector<char> err;
    SysExec runner;
    runner.setOut(&out).setOutThreshold(row.out).setOutOverflowStop(row.stop);
    runner.setErr(&err).setErrThreshold(row.err).setErrOverflowStop(row.stop);
    EXPECT_EQ(serve(runner, {"flood", "100000"}), row.state == 34 ? 0 : 120);
    EXPECT_EQ(runner.getState(), row.state);
    runner.stop();
    EXPECT_TRUE(out.size() == row.outSize || (row.out == 0 && out.size() < row.outSize));
    EXPECT_LE(err.size(), row.err != 0 ? row.err : 100'000);
  }
}

TEST(SysExec, ClosedPipesRaiseNoSignal) {
  SysExec runner;
  runner.setIn(std::string(1 << 20, 'x'));
  EXPECT_EQ(serve(runner, {"close-input"}), 110);
  runner.stop();

  int pipe[2];
  ASSERT_EQ(pipe2(pipe, O_CLOEXEC | O_NONBLOCK), 0);
  std::string copied;
  std::thread reader([&] {  // slowly enough that the pipe is full at times
    char block[1000];
    while (copied.size() < 200'000) {
      const ssize_t got = read(pipe[0], block, sizeof block);
      if (got > 0) copied.append(block, static_cast<std::size_t>(got));
    }
  });
  EXPECT_EQ(serve(runner.setOut(pipe[1]), {"flood", "200000"}), 0);
  runner.stop();  // copies what was written last
  reader.join();
  EXPECT_TRUE(copied == pattern(200'000, 'a', 26));
  close(pipe[0]);
  EXPECT_EQ(serve(runner.setOut(pipe[1]), {"flood", "200000"}), 140);
  close(pipe[1]);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST(SysExec, StopKillsWhatIgnoresEverything) {
  const auto before = openDescriptors();
  std::vector<char> out;
  SysExec runner;
  ASSERT_TRUE(runner.setExe(kChild).pushArg("ignore-all").setOut(&out).start());
  while (out.size() < 5 && runner.service()) runner.waitReady(1000);
  for (const auto& [fd, target] : openDescriptors()) {
    EXPECT_TRUE(before.count(fd) != 0 || fcntl(fd, F_GETFD) == FD_CLOEXEC) << target;
  }
  bool timedOut = false;
  bool exited = true;
  EXPECT_TRUE(runner.waitPid(1, &timedOut, &exited, nullptr, nullptr));
  EXPECT_TRUE(timedOut && !exited);
  const int pid = runner.getPid();
  runner.stop();
  EXPECT_EQ(kill(pid, 0), -1);
  EXPECT_FALSE(runner.waitPid(1, &timedOut, nullptr, nullptr, nullptr));
}

TEST(SysExec, CallerThatIgnoresSigchldLearnsNothing) {
  signal(SIGCHLD, SIG_IGN);
  SysExec runner;
  EXPECT_EQ(serve(runner, {"exit", "0"}), 100);
  const std::string pid = std::to_string(runner.getPid());
  runner.stop();
  EXPECT_TRUE(logged(kWarning, "Failed to wait for pid=" + pid, ECHILD));
  EXPECT_TRUE(refused(runDaemon(nullptr, nullptr, nullptr, "/bin/true", {}),
                      "Failed to start SysExec with code=50, cmd='/bin/true'"));
  signal(SIGCHLD, SIG_DFL);
}

TEST(SysExec, WaitsOnlyBrieflyForOthersThatHoldItsStreams) {
  std::vector<char> out;
  SysExec runner;
  runner.setName("label").setExe("/bin/sh").setArgs({"-c", "echo early; sleep 1000 &"});
  ASSERT_TRUE(runner.setOut(&out).start());
  while (runner.getState() == 1 && runner.service()) runner.waitReady(1000);
  EXPECT_EQ(runner.getState(), 34);
  runner.stop();
  EXPECT_EQ(std::string(out.begin(), out.end()), "early\n");
  EXPECT_TRUE(logged(kWarning, "Timeout reading from stopped process pipes, name 'label'"));
}

TEST(SysExec, StartsWhileOtherThreadsAllocateAndStart) {
  std::atomic<int> wrong{0};
  const auto startMany = [&] {
    for (int i = 0; i < 20; ++i) {
      std::string out;
      wrong += run({"flood", "100000"}, &out) != 0 || out != pattern(100'000, 'a', 26);
      wrong += run({"exit", "7"}) != 7 * 256;
    }
  };
  std::thread threads[] = {std::thread(startMany), std::thread(startMany), std::thread(startMany)};
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

// ---- helpers ----

TEST(Exec, ResultsOfEveryForm) {
  writeFile("/tmp/script", "no interpreter named");
  std::filesystem::permissions("/tmp/script", std::filesystem::perms::all);
  for (const char* missing : {"/missing", "/tmp", "/tmp/script", "relative"}) {
    EXPECT_EQ(sysExecSimple(missing), 121 * 256) << missing;
  }
  EXPECT_EQ(sysExecSimple("/bin/true"), 0);
  EXPECT_EQ(sysExecSimple("/bin/test", "1"), 0);
  EXPECT_EQ(sysExecSimple("/bin/test", "-n", "a"), 0);
  EXPECT_EQ(sysExecSimple("/bin/test", "a", "=", "b"), 256);
  EXPECT_EQ(sysExecSimple("/bin/test", "!", "a", "=", "b"), 0);
  EXPECT_EQ(sysExecSimple("/bin/test", "-n", nullptr, "ignored"), 0);
  EXPECT_EQ(run({"exit", "255"}), 255 * 256);

  std::string out;
  EXPECT_EQ(sysExec(nullptr, &out, nullptr, 0, 4, 0, "/bin/echo", 3, "hello", "world", nullptr), 0);
  EXPECT_EQ(out, "hell");
  EXPECT_EQ(sysExec(nullptr, &out, nullptr, 0, 0, 0, "/bin/echo", -1, "no"), 0);
  EXPECT_EQ(out, "\n");
  std::string err;
  const std::string in = "to copy";
  EXPECT_EQ(shellExec("cat; echo \"$0 $$\" >&2; exit 5", &in, &out, &err, 0, 0, 2), 5 * 256);
  EXPECT_EQ(out + err, "to copy/b");

  EXPECT_EQ(sysExecSimple(nullptr), -1);
  EXPECT_TRUE(logged(kError, "Failed to start SysExec with code=20, cmd=''"));
  EXPECT_EQ(run({"raise", "9"}, &out), -1);
  EXPECT_TRUE(logged(kError, "Failed to service SysExec code=100, cmd='" + kChild + " raise 9'"));
  EXPECT_EQ(sysExec(nullptr, &out, nullptr, 300, 0, 0, kChild, 1, "ignore-all"), -1);
  EXPECT_TRUE(logged(kWarning, "Timeout executing, cmd='" + kChild + " ignore-all'"));
  EXPECT_EQ(out, "ready");
}

TEST(Exec, DaemonSurvivesDetachedWithItsMask) {
  const SignalMask restore;
  const sigset_t callers = setOf(SIGTERM);
  const sigset_t own = setOf(SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &callers, nullptr);
  const auto check = [](int pid, const std::string& file, const std::string& mask) {
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(file); }));
    EXPECT_THAT(readFile(file), HasSubstr("blocked" + mask + "\nleader yes\n"));
    EXPECT_THAT(readFile("/proc/" + std::to_string(pid) + "/status"), HasSubstr("PPid:\t1\n"));
    EXPECT_THAT(readFile("/proc/" + std::to_string(pid) + "/cmdline"), HasSubstr(file));
    kill(pid, SIGKILL);
  };
  int pid = 0;
  ASSERT_TRUE(sysExecAsyncSimplePid(kChild.c_str(), &pid, {"daemon", "/tmp/async"}));
  check(pid, "/tmp/async", "");
  ASSERT_TRUE(runDaemon(nullptr, &own, &pid, kChild, 2, "daemon", "/tmp/masked"));
  check(pid, "/tmp/masked", " 12");
  ASSERT_TRUE(runDaemon(nullptr, nullptr, &pid, kChild, {"daemon", "/tmp/inherited"}));
  check(pid, "/tmp/inherited", " 15");
  EXPECT_TRUE(sysExecAsyncSimple("/missing", {}));  // not known at its start
}

// Makes a system call fail in this process for good, if its first argument has one of `bits`.
bool deny(unsigned number, unsigned bits, unsigned error) {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, bits, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program{std::size(filter), filter};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST(Exec, OnKernelsThatLackOrRefuse) {
  struct {
    const char* name;
    unsigned number, bits, error;
    int status;
  } const rows[] = {{"vfork-like clone", SYS_clone, CLONE_VFORK, ENOSYS, 3},
                    {"pidfd_open", SYS_pidfd_open, ~0U, ENOSYS, 3},
                    {"close_range", SYS_close_range, ~0U, ENOSYS, 3},
                    {"dup", SYS_dup3, ~0U, EPERM, 124},
                    {"execve", SYS_execve, ~0U, EPERM, 121}};
  if (inChild([] { return deny(SYS_getppid, 0, 0) ? 0 : 1; }) != 0) {
    GTEST_SKIP() << "no seccomp here: an emulator has none";
  }
  for (const auto& row : rows) {
    const auto statusOfAll = [&] {
      if (!deny(row.number, row.bits, row.error)) return 77;
      std::string out;
      const int status = run({"exit", "3"}) / 256;
      if (status != 3) return status;
      if (run({"report"}, &out) != 0) return 78;
      if (out.find("0=/dev/null 1=pipe 2=/dev/null\n") == std::string::npos) return 79;
      if (!sysExecAsyncSimple("/bin/touch", {"/tmp/slow"})) return 80;
      return eventually([] { return std::filesystem::remove("/tmp/slow"); }) ? status : 81;
    };
    EXPECT_EQ(inChild(statusOfAll), row.status) << row.name;
  }
  const auto statusWithoutNull = [] {
    const bool gone = unshare(CLONE_NEWNS) == 0 && umount("/dev/null") == 0 &&
                      rename("/dev/null", "/dev/none") == 0;
    return gone ? sysExecSimple("/bin/true") / 256 : 77;
  };
  EXPECT_EQ(inChild(statusWithoutNull), 125);
}

}  // namespace
}  // namespace vexo::utils
