#include "vexo_utils/exec.h"

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
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

using test::inChild;
using test::kError;
using test::kWarning;
using test::logged;
using testing::HasSubstr;

const std::string kChild = VEXO_BINARY_DIR "/tests/exec_child";

// `size` bytes of the sequence that begins with `first` and repeats after `letters`.
std::string pattern(std::size_t size, char first, int letters) {
  std::string text;
  for (int i = 0; i < letters; ++i) text += static_cast<char>(first + i);
  while (text.size() < size) text += text;
  text.resize(size);
  return text;
}

int run(const std::vector<std::string>& args, std::string* out = nullptr,
        std::string* err = nullptr, const std::string* in = nullptr) {
  return sysExec(in, out, err, 0, 0, 0, kChild, args);
}

// Serves until it ends; the result of the last step.
bool serve(SysExec& runner) {
  bool good = true;
  while (good && runner.getState() == 1) {
    good = runner.service();
    runner.waitReady(1000);
  }
  return good;
}

// ---- the runner ----

TEST(SysExec, IsConfiguredBeforeItsFirstStartOnly) {
  SysExec runner;
  EXPECT_FALSE(runner.start());
  EXPECT_EQ(runner.getCode(), 20);
  EXPECT_FALSE(runner.service());
  EXPECT_EQ(runner.getCode(), 90);

  std::vector<char> out;
  runner.setName("reporter").setExe(kChild).pushArg("report").setOut(&out);
  ASSERT_TRUE(runner.start());
  EXPECT_EQ(runner.getState(), 1);
  EXPECT_GT(runner.getPid(), 0);
  EXPECT_EQ(runner.getCmd(), kChild + " report");
  runner.setName("").setExe("").setArgs({}).pushArg("").setIn("").setOut(-1).setOut(nullptr);
  runner.setErr(nullptr).setOutThreshold(1).setErrThreshold(1).setOutOverflowStop(false);
  runner.setErrOverflowStop(false).setMaskSignals(nullptr).setDaemon(true);
  for (int i = 0; i < 14; ++i) {
    EXPECT_TRUE(logged(kError, "Setter applicable only to never serviced instance"));
  }
  EXPECT_FALSE(runner.start());
  EXPECT_EQ(runner.getCode(), 10);
  EXPECT_TRUE(serve(runner));
  EXPECT_EQ(runner.getState(), 34);
  EXPECT_EQ(runner.getStatus(), 0);
  EXPECT_EQ(runner.getPid(), -1);
  runner.stop();
  EXPECT_FALSE(out.empty());

  EXPECT_EQ(runner.getState(), 0);
  EXPECT_EQ(runner.getCmd(), "");
  runner.setExe(kChild).setArgs({"exit", "3"});
  ASSERT_TRUE(runner.start());
  EXPECT_TRUE(serve(runner));
  EXPECT_EQ(runner.getStatus(), 3 * 256);
}

TEST(SysExec, ChildGetsItsStreamsItsMaskAndNothingElse) {
  const test::SignalMask restore;
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  const int inherited = open("/dev/zero", O_RDONLY);  // not close-on-exec
  const int high = fcntl(inherited, F_DUPFD_CLOEXEC, 300);
  std::string out;
  EXPECT_EQ(run({"report", "a b", "", "line\nfeed", "'\""}, &out), 0);
  EXPECT_EQ(out,
            "descriptors 0=/dev/null 1=pipe 2=/dev/null\nblocked 10\nleader no\n"
            "arguments <a b> <> <line\nfeed> <'\">\n");
  close(inherited);
  close(high);

  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, SIGHUP);
  sigaddset(&own, SIGRTMAX);
  std::vector<char> text;
  SysExec runner;
  runner.setExe(kChild).pushArg("report").setIn("").setOut(&text).setErr(nullptr);
  ASSERT_TRUE(runner.setMaskSignals(&own).start());
  EXPECT_TRUE(serve(runner));
  runner.stop();
  EXPECT_THAT(std::string(text.begin(), text.end()),
              HasSubstr("descriptors 0=pipe 1=pipe 2=pipe\nblocked 1 64\n"));
}

TEST(SysExec, StandardStreamsOfTheCallerMayBeClosed) {
  for (int closed = 1; closed < 8; ++closed) {
    EXPECT_EQ(inChild([&] {
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
              }),
              0)
        << closed;
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
    int state, code;
    std::size_t outSize;
  } const rows[] = {
      {10, 0, true, 6, 120, 10},  {0, 10, true, 10, 120, 100'000},  {10, 0, false, 34, 0, 10},
      {10, 10, false, 34, 0, 10}, {~0U, ~0U, true, 34, 0, 100'000}, {1, 0, false, 34, 0, 1},
  };
  for (const auto& row : rows) {
    std::vector<char> out;
    std::vector<char> err;
    SysExec runner;
    runner.setExe(kChild).setArgs({"flood", "100000"}).setOut(&out).setErr(&err);
    runner.setOutThreshold(row.out).setOutOverflowStop(row.stop);
    runner.setErrThreshold(row.err).setErrOverflowStop(row.stop);
    ASSERT_TRUE(runner.start());
    EXPECT_EQ(serve(runner), row.code == 0);
    EXPECT_EQ(runner.getState(), row.state);
    EXPECT_EQ(runner.getCode(), row.code);
    runner.stop();
    if (row.state == 34 || row.out != 0) {
      EXPECT_EQ(out.size(), row.outSize);
    }
    EXPECT_LE(err.size(), row.err != 0 ? row.err : 100'000);
  }
}

TEST(SysExec, ChildThatClosesItsInputRaisesNoSignal) {
  SysExec runner;
  runner.setExe(kChild).pushArg("close-input").setIn(std::string(1 << 20, 'x'));
  ASSERT_TRUE(runner.start());
  EXPECT_FALSE(serve(runner));
  EXPECT_EQ(runner.getCode(), 110);
  EXPECT_EQ(runner.getState(), 18);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST(SysExec, CopiesOutputToADescriptor) {
  const int file = open("/tmp/copy", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  int pipe[2];
  ASSERT_EQ(pipe2(pipe, O_CLOEXEC | O_NONBLOCK), 0);
  struct {
    int target;
    bool reads;
    int code;
  } const rows[] = {{file, false, 0}, {pipe[1], true, 0}, {pipe[1], false, 140}};
  for (const auto& row : rows) {
    std::thread reader;
    std::string copied;
    if (row.reads) {  // slowly enough that the target is full at times
      reader = std::thread([&] {
        char block[1000];
        while (copied.size() < 200'000) {
          const ssize_t got = read(pipe[0], block, sizeof block);
          if (got > 0) copied.append(block, static_cast<std::size_t>(got));
        }
        close(pipe[0]);  // the third row writes to a closed pipe
      });
    }
    SysExec runner;
    runner.setExe(kChild).setArgs({"flood", "200000"}).setOut(row.target);
    ASSERT_TRUE(runner.start());
    EXPECT_EQ(serve(runner), row.code == 0);
    EXPECT_EQ(runner.getCode(), row.code);
    runner.stop();  // copies what was written last
    if (row.reads) reader.join();
    if (row.code != 0) continue;
    EXPECT_TRUE((row.reads ? copied : test::readFile("/tmp/copy")) == pattern(200'000, 'a', 26));
  }
  close(pipe[1]);
  close(file);
}

TEST(SysExec, StopKillsWhatIgnoresEverything) {
  std::vector<char> out;
  SysExec runner;
  runner.setExe(kChild).pushArg("ignore-all").setOut(&out);
  ASSERT_TRUE(runner.start());
  while (out.size() < 5) {
    runner.waitReady(1000);
    ASSERT_TRUE(runner.service());
  }
  bool timedOut = false;
  bool exited = true;
  EXPECT_TRUE(runner.waitPid(1, &timedOut, &exited, nullptr, nullptr));
  EXPECT_TRUE(timedOut);
  EXPECT_FALSE(exited);
  const int pid = runner.getPid();
  runner.stop();
  EXPECT_EQ(kill(pid, 0), -1);
  EXPECT_FALSE(runner.waitPid(1, &timedOut, nullptr, nullptr, nullptr));
}

TEST(SysExec, ChildThatASignalEndedIsAFailure) {
  SysExec runner;
  runner.setExe(kChild).setArgs({"raise", "15"});
  ASSERT_TRUE(runner.start());
  EXPECT_FALSE(serve(runner));
  EXPECT_EQ(runner.getCode(), 100);
  EXPECT_EQ(runner.getState(), 18);
  EXPECT_EQ(WTERMSIG(runner.getStatus()), SIGTERM);
}

TEST(SysExec, CallerThatIgnoresSigchldLearnsNothing) {
  signal(SIGCHLD, SIG_IGN);
  SysExec runner;
  runner.setExe(kChild).setArgs({"exit", "0"});
  ASSERT_TRUE(runner.start());
  EXPECT_FALSE(serve(runner));
  EXPECT_EQ(runner.getCode(), 100);
  const std::string pid = std::to_string(runner.getPid());
  runner.stop();
  EXPECT_TRUE(logged(kWarning, "Failed to wait for pid=" + pid, ECHILD));
  EXPECT_FALSE(runDaemon(nullptr, nullptr, nullptr, "/bin/true", {}));
  EXPECT_TRUE(logged(kError, "Failed to start SysExec with code=50, cmd='/bin/true'"));
  signal(SIGCHLD, SIG_DFL);
}

TEST(SysExec, FailedStartChangesNothing) {
  int refused = 0;
  for (int room = 0;; ++room) {
    const auto before = test::openDescriptors();
    SysExec runner;
    runner.setExe("/bin/true").setIn("").setOut(nullptr).setErr(nullptr).setDaemon(true);
    bool started = false;
    {
      const test::DescriptorLimit limit(room);
      started = runner.start();
    }
    if (started) break;
    ++refused;
    EXPECT_EQ(runner.getCode(), 40);
    EXPECT_EQ(runner.getState(), 82);
    EXPECT_EQ(runner.getPid(), -1);
    EXPECT_EQ(test::openDescriptors(), before);
    runner.stop();
    EXPECT_EQ(runner.getState(), 0);
  }
  EXPECT_GE(refused, 8);  // four pipes
}

TEST(SysExec, WaitsOnlyBrieflyForOthersThatHoldItsStreams) {
  std::vector<char> out;
  SysExec runner;
  runner.setName("label")
      .setExe("/bin/sh")
      .setArgs({"-c", "echo early; sleep 1000 &"})
      .setOut(&out);
  ASSERT_TRUE(runner.start());
  EXPECT_TRUE(serve(runner));
  EXPECT_EQ(runner.getState(), 34);
  runner.stop();
  EXPECT_EQ(std::string(out.begin(), out.end()), "early\n");
  EXPECT_TRUE(logged(kWarning, "Timeout reading from stopped process pipes, name 'label'"));
}

TEST(SysExec, StartsWhileOtherThreadsAllocateAndStart) {
  std::atomic<bool> done{false};
  std::atomic<int> wrong{0};
  std::thread allocating([&] {
    while (!done) std::vector<char>(100'000, 'x').swap(*std::make_unique<std::vector<char>>());
  });
  std::vector<std::thread> starting(3);
  for (std::thread& thread : starting) {
    thread = std::thread([&] {
      for (int i = 0; i < 20; ++i) {
        std::string out;
        wrong += run({"flood", "100"}, &out) != 0 || out != pattern(100, 'a', 26);
        wrong += run({"exit", "7"}) != 7 * 256;
      }
    });
  }
  for (std::thread& thread : starting) thread.join();
  done = true;
  allocating.join();
  EXPECT_EQ(wrong, 0);
}

// ---- helpers ----

TEST(Exec, ResultsOfEveryForm) {
  test::writeFile("/tmp/script", "no interpreter named");
  std::filesystem::permissions("/tmp/script", std::filesystem::perms::all);
  for (const std::string missing : {"/missing", "/tmp", "/tmp/script", "relative"}) {
    EXPECT_EQ(sysExecSimple(missing.c_str()), 121 * 256) << missing;
  }
  EXPECT_EQ(sysExecSimple("/bin/true"), 0);
  EXPECT_EQ(sysExecSimple("/bin/test", "1"), 0);
  EXPECT_EQ(sysExecSimple("/bin/test", "-n", "a"), 0);
  EXPECT_EQ(sysExecSimple("/bin/test", "a", "=", "b"), 256);
  EXPECT_EQ(sysExecSimple("/bin/test", "!", "a", "=", "b"), 0);
  EXPECT_EQ(sysExecSimple("/bin/test", "-n", nullptr, "ignored"), 0);
  EXPECT_EQ(sysExecSimple(kChild.c_str(), {"exit", "255"}), 255 * 256);

  std::string out;
  EXPECT_EQ(sysExec(nullptr, &out, nullptr, 0, 4, 0, "/bin/echo", 3, "hello", "world", nullptr), 0);
  EXPECT_EQ(out, "hell");
  for (const int count : {0, -1}) {
    EXPECT_EQ(sysExec(nullptr, &out, nullptr, 0, 0, 0, "/bin/echo", count, "no"), 0);
    EXPECT_EQ(out, "\n");
  }
  std::string err;
  const std::string in = "to copy";
  EXPECT_EQ(shellExec("cat; echo \"$0 $$\" >&2; exit 5", &in, &out, &err, 0, 0, 2), 5 * 256);
  EXPECT_EQ(out, "to copy");
  EXPECT_EQ(err, "/b");

  for (const char* none : {"", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(sysExecSimple(none), -1);
    EXPECT_TRUE(logged(kError, "Failed to start SysExec with code=20, cmd=''"));
  }
  EXPECT_EQ(run({"raise", "9"}, &out), -1);
  EXPECT_TRUE(logged(kError, "Failed to service SysExec code=100, cmd='" + kChild + " raise 9'"));
}

TEST(Exec, TimeOutKillsAndHandsOverWhatCame) {
  std::string out;
  EXPECT_EQ(sysExec(nullptr, &out, nullptr, 300, 0, 0, kChild, 1, "ignore-all"), -1);
  EXPECT_TRUE(logged(kWarning, "Timeout executing, cmd='" + kChild + " ignore-all'"));
  EXPECT_EQ(out, "ready");
}

TEST(Exec, DaemonSurvivesDetachedWithItsMask) {
  const test::SignalMask restore;
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
  sigset_t own;
  sigemptyset(&own);
  sigaddset(&own, SIGUSR2);

  const auto check = [](int pid, const std::string& file, const std::string& mask) {
    ASSERT_TRUE(test::eventually([&] { return std::filesystem::exists(file); }));
    EXPECT_THAT(test::readFile(file), HasSubstr("blocked" + mask + "\nleader yes\n"));
    EXPECT_THAT(test::readFile("/proc/" + std::to_string(pid) + "/status"),
                HasSubstr("PPid:\t1\n"));
    EXPECT_THAT(test::readFile("/proc/" + std::to_string(pid) + "/cmdline"), HasSubstr(file));
    kill(pid, SIGKILL);
    EXPECT_TRUE(test::eventually([&] { return kill(pid, 0) != 0; }));
  };
  int pid = 0;
  ASSERT_TRUE(sysExecAsyncSimplePid(kChild.c_str(), &pid, {"daemon", "/tmp/async"}));
  check(pid, "/tmp/async", "");
  ASSERT_TRUE(runDaemon(nullptr, &own, &pid, kChild, 2, "daemon", "/tmp/masked"));
  check(pid, "/tmp/masked", " 12");
  ASSERT_TRUE(runDaemon(nullptr, nullptr, &pid, kChild, {"daemon", "/tmp/inherited"}));
  check(pid, "/tmp/inherited", " 15");
  EXPECT_TRUE(sysExecAsyncSimple("/missing", {}));  // not known at its start
  EXPECT_FALSE(sysExecAsyncSimple("", {}));
  EXPECT_TRUE(logged(kError, "Failed to start SysExec with code=20, cmd=''"));
}

// Makes system calls fail in this process for good: `number`, if its first argument has `bits`.
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

TEST(Exec, WorksWhereTheKernelLacksTheQuickWays) {
  const auto works = [] {
    std::string out;
    int pid = 0;
    if (run({"exit", "3"}) != 3 * 256) return 1;
    if (run({"report"}, &out) != 0 ||
        out.rfind("descriptors 0=/dev/null 1=pipe 2=/dev/null\n", 0) != 0) {
      return 2;
    }
    if (!sysExecAsyncSimplePid(kChild.c_str(), &pid, {"daemon", "/tmp/slow"})) return 3;
    return test::eventually([] { return std::filesystem::exists("/tmp/slow"); }) ? 0 : 4;
  };
  struct {
    const char* name;
    unsigned number, bits;
  } const rows[] = {{"vfork-like clone", SYS_clone, CLONE_VFORK},
                    {"pidfd_open", SYS_pidfd_open, ~0U},
                    {"close_range", SYS_close_range, ~0U}};
  for (const auto& row : rows) {
    std::filesystem::remove("/tmp/slow");
    EXPECT_EQ(inChild([&] { return deny(row.number, row.bits, ENOSYS) ? works() : 77; }), 0)
        << row.name;
  }
}

TEST(Exec, ChildStepsThatFailHaveTheirOwnExitCodes) {
  struct {
    const char* name;
    unsigned number, bits;
    int status;
  } const rows[] = {{"no dup", SYS_dup3, ~0U, 124}, {"no execve", SYS_execve, ~0U, 121}};
  for (const auto& row : rows) {
    EXPECT_EQ(inChild([&] {
                if (!deny(row.number, row.bits, EPERM)) return 77;
                return run({"exit", "0"}) / 256;
              }),
              row.status)
        << row.name;
  }
  EXPECT_EQ(inChild([] {
              const bool gone = unshare(CLONE_NEWNS) == 0 && umount("/dev/null") == 0 &&
                                rename("/dev/null", "/dev/none") == 0;
              return gone ? sysExecSimple("/bin/true") / 256 : 77;
            }),
            125);
}

}  // namespace
}  // namespace vexo::utils
