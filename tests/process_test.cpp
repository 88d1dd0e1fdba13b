#include "vexo_utils/process.h"

#include <climits>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "files.h"
#include "in_child.h"
#include "log_recorder.h"
#include "mounted.h"
#include "vexo_utils/exec.h"
#include "vexo_utils/procfs.h"
#include "wait.h"

namespace vexo::utils {
namespace {

namespace fs = std::filesystem;
using namespace test;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using Strings = std::vector<std::string>;

// Starts a program under a name of its own choice, in a process group of its own.
pid_t start(std::vector<const char*> arguments, const char* file = "/bin/sleep") {
  arguments.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    setpgid(0, 0);
    execv(file, const_cast<char**>(arguments.data()));
    _exit(1);
  }
  const std::string shown = "/proc/" + std::to_string(pid) + "/cmdline";
  EXPECT_TRUE(eventually([&] { return readFile(shown).rfind(arguments[0], 0) == 0; }));
  return pid;
}

// The signal that ends it.
int endOf(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WTERMSIG(status);
}

// For a /proc of plain files.
void putCommandLine(const std::string& process, const Strings& line) {
  std::string text;
  for (const std::string& element : line) text += element + '\0';
  fs::create_directories("/proc/" + process);
  writeFile("/proc/" + process + "/cmdline", text);
}

TEST(ProcessNames, AreThoseOfProgramsWithoutTheirFolders) {
  const Mounted proc("/proc");
  const Strings longest{"/a\nb/" + std::string(5000, 'a') + "/foo", "", std::string(5000, 'b'), ""};
  putCommandLine("1", {"foo", "1001"});  // the only one that lives
  putCommandLine("20", {"/usr/bin/foo", ""});
  putCommandLine("30", {"./foo", "1001"});
  putCommandLine("40", {});  // a kernel thread
  putCommandLine("50", {"/" + std::string(256, 'l')});
  putCommandLine("60", {});
  writeFile("/proc/60/cmdline", "/foo/afoo2 -x y");  // wrote over its arguments
  fs::create_directory("/proc/70");                  // ended after it was listed
  putCommandLine("2147483647", longest);
  for (const char* no : {"1x", "-5", "+7", " 8", "0", "2147483648", "99999999999999999999"}) {
    putCommandLine(no, {"foo"});
  }
  const std::vector<int> foos{1, 20, 30, INT_MAX};
  std::vector<int> pids{77};
  for (const auto& [name, expected] :
       std::map<std::string, std::vector<int>>{{"foo", foos},
                                               {"f.o+", foos},
                                               {{"foo\0more", 8}, foos},
                                               {"bin/foo", {20}},
                                               {"no|oo[0-9] -x y", {60}},
                                               {std::string(256, 'l'), {50}},
                                               {"(fo|)", {40}}}) {
    EXPECT_TRUE(pidof(name, pids));
    EXPECT_THAT(pids, testing::UnorderedElementsAreArray(expected)) << name;
    EXPECT_EQ(is_process_alive(name), expected == foos) << name;
  }

  pids = {20, 30};
  EXPECT_TRUE(pidof("foo", pids, pids));
  EXPECT_THAT(pids, UnorderedElementsAre(1, INT_MAX));
  EXPECT_FALSE(is_process_alive("foo", pids));
  std::vector<Strings> seen;
  const auto for1001 = [&](const Strings& line) {
    seen.push_back(line);
    return line.back() == "1001";
  };
  EXPECT_TRUE(is_process_alive("(foo|.*y|)", for1001));
  EXPECT_THAT(seen, UnorderedElementsAre(Strings{"foo", "1001"}, Strings{"/usr/bin/foo", ""},
                                         Strings{"./foo", "1001"}, Strings{"/foo/afoo2 -x y"},
                                         Strings{""}, longest));
  EXPECT_TRUE(pidof("foo", pids, for1001));
  EXPECT_THAT(pids, UnorderedElementsAre(1, 30));
  EXPECT_TRUE(pidof("foo", pids, CommandLineFilter()));

  int array[] = {7, 7, 7};
  for (const int max : {0, -1}) EXPECT_EQ(getPidsByName("foo", array, max), 0);
  EXPECT_EQ(getPidsByName("foo", nullptr, 2), 0);
  EXPECT_EQ(getPidsByName("foo", array, 2), 2);
  EXPECT_THAT(array, ElementsAre(testing::Ne(7), testing::Ne(7), 7));
}

TEST(ProcessNames, FailedSearches) {
  std::vector<int> pids{1};
  EXPECT_FALSE(pidof("(", pids));
  EXPECT_TRUE(pids.empty());
  EXPECT_EQ(single_pidof("("), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(getPidsByName("(", nullptr, 0), -1);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(logged(kError, "Failed to compile regex", EINVAL));
}

TEST(ProcessNames, OneOrSeveral) {
  const pid_t one = start({"steady", "1000"});
  EXPECT_EQ(single_pidof("steady"), one);
  const pid_t two = start({"/opt/steady", "1000"});
  EXPECT_EQ(single_pidof("steady"), -1);
  EXPECT_EQ(errno, ERANGE);
  for (const pid_t pid : {one, two}) kill(pid, SIGKILL);
  EXPECT_EQ(endOf(one) + endOf(two), 2 * SIGKILL);
}

TEST(Process, AliveIsAlsoAZombie) {
  const pid_t pid = start({"brief", "1000"});
  kill(pid, SIGKILL);
  siginfo_t info{};
  waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
  EXPECT_TRUE(is_process_alive(pid));
  EXPECT_EQ(single_pidof(""), pid);
  EXPECT_EQ(single_pidof("brief"), -1);
  EXPECT_EQ(errno, ESRCH);
  endOf(pid);
  for (const int gone : {0, -1, -5, INT_MIN, INT_MAX, pid}) EXPECT_FALSE(is_process_alive(gone));
  EXPECT_EQ(inChild([] { return setuid(65534) == 0 && !is_process_alive(1) ? 1 : 0; }), 0);
}

TEST(Process, PidFile) {
  writeFile("/var/run/camera.pid", "a longer text of before");
  EXPECT_TRUE(store_pid("camera"));
  EXPECT_EQ(readFile("/var/run/camera.pid"), std::to_string(getpid()) + "\n");
}

TEST(Process, Signals) {
  EXPECT_TRUE(kill_process_by_pids({}, SIGKILL));
  EXPECT_TRUE(refused(kill_process_by_pids({1}, -1), "Invalid signal -1"));
  EXPECT_FALSE(kill_process_by_name("sleep", 65));
  EXPECT_TRUE(logged(kInfo, "signals 65 to sleep"));
  EXPECT_TRUE(logged(kError, "Invalid signal 65"));
  if (!fs::exists("/bin/kill") || !fs::exists("/bin/pkill")) GTEST_SKIP() << "no procps here";

  const pid_t one = start({"quarry", "1000"});  // to the kernel it is "sleep"
  const pid_t two = start({"two", "1000"});
  fs::copy_file("/bin/sleep", "/tmp/quarry");
  const pid_t quarry = start({"any", "1000"}, "/tmp/quarry");
  EXPECT_TRUE(kill_process_by_name("quarry", SIGUSR2));
  EXPECT_EQ(endOf(quarry), SIGUSR2);
  EXPECT_FALSE(kill_process_by_name("-v", SIGKILL));  // no option
  EXPECT_TRUE(kill_process_by_pids({one, two}, 0));
  EXPECT_TRUE(kill_process_by_pids({-two}, SIGTERM));  // its group, no option
  EXPECT_EQ(endOf(two), SIGTERM);
  EXPECT_FALSE(kill_process_by_pids({one, two}, SIGUSR1));
  EXPECT_TRUE(logged(kInfo, "signals 10 to " + std::to_string(one) + " " + std::to_string(two)));
  EXPECT_EQ(endOf(one), SIGUSR1);
}

TEST(Procfs, FilesUpToALimit) {
  std::string whole;
  for (int i = 0; i < 2500; ++i) whole += static_cast<char>(i % 251);
  writeFile("/tmp/file", whole);
  std::string out = "before";
  for (const unsigned limit : {1U, 1023U, 1024U, 1025U, 2500U, ~0U}) {
    EXPECT_TRUE(ReadProcFile("/tmp/file", out, limit));
    EXPECT_EQ(out, whole.substr(0, limit));
  }
  EXPECT_TRUE(refused(ReadProcFile("/proc", out, 0), "Invalid maxSize parameter", 0));
  EXPECT_EQ(out, whole);
  EXPECT_TRUE(
      refused(ReadProcFile("/proc", out, ~0U), "Unable to read 1024 bytes from `/proc`", EISDIR));
}

TEST(Procfs, KernelCommandLine) {
  writeFile("/tmp/cmdline", "");
  const Mounted over = Mounted::over("/proc/cmdline", "/tmp/cmdline");
  using Params = std::map<std::string, std::string>;
  const auto boot = [](const std::string& text) {
    writeFile("/tmp/cmdline", text);
    Params params{{"of", "before"}};
    EXPECT_TRUE(ReadKernelCommandLine(params));
    return params;
  };
  EXPECT_EQ(boot(std::string(1020, 'k') + " a=bc\n"),
            (Params{{std::string(1020, 'k'), ""}, {"a", "b"}}));
  EXPECT_EQ(boot(" a=b=c  =d\te  console=tty0 console=ttyS0\n"),
            (Params{{"a", "b=c"}, {"", "d\te"}, {"console", "ttyS0"}}));
  int mode = 77;
  EXPECT_TRUE(ConsoleEnabled() && !GetRunMode(mode) && mode == 77);
  boot("VEXO_runmode=12 console=ttyS0,115200");
  EXPECT_TRUE(!ConsoleEnabled() && GetRunMode(mode) && mode == 12);
}

TEST(Procfs, OwnProgram) {
  const Mounted proc("/proc");
  putCommandLine("self", {"prog", "", "a b\n", ""});
  std::string text;
  Strings args{"before"};
  EXPECT_TRUE(ReadCommandLine(text, args));
  if (text != "prog") GTEST_SKIP() << "an emulator stands for /proc/self";
  EXPECT_THAT(args, ElementsAre("", "a b\n", ""));
  EXPECT_TRUE(refused(getModuleDir(text), "Unable to read link `/proc/self/exe`", ENOENT));
  for (const std::string& folder : {std::string(), "/" + std::string(4000, 'd')}) {
    fs::remove("/proc/self/exe");
    fs::create_symlink(folder + "/prog", "/proc/self/exe");
    EXPECT_TRUE(getModulePath(text));
    EXPECT_EQ(text, folder + "/prog");
    EXPECT_TRUE(getModuleDir(text));
    EXPECT_EQ(text, folder.empty() ? "/" : folder);
  }
}

TEST(Random, NoCharacterIsFavoured) {
  unsigned char byte = 0;
  EXPECT_FALSE(randomBytes(nullptr, 1) || randomBytes(&byte, 0));
  // Every byte value twice, the 8 that are not used first. Each character has 4 of the others.
  std::string all;
  for (int i = 0; i < 512; ++i) all += static_cast<char>((248 + i) % 256);
  writeFile("/tmp/urandom", all);
  const Mounted device = Mounted::over("/dev/urandom", "/tmp/urandom");
  std::string text;
  EXPECT_TRUE(randomAlphaNumericString(text, 248));
  std::map<char, int> counts;
  for (const char c : text) counts[c] += std::isalnum(c) != 0 ? 1 : 100;
  EXPECT_EQ(counts.size(), 62U);
  for (const auto& [c, count] : counts) EXPECT_EQ(count, 4) << c;
  writeFile("/tmp/urandom", "");  // no device: it ends
  EXPECT_FALSE(randomAlphaNumericString(text, 1));
}

}  // namespace
}  // namespace vexo::utils
