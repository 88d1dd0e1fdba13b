#include "vexo_utils/process.h"

#include <algorithm>
#include <array>
#include <climits>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include "files.h"
#include "in_child.h"
#include "log_recorder.h"
#include "process_state.h"
#include "vexo_utils/procfs.h"
#include "wait.h"

namespace vexo::utils {
namespace {

namespace fs = std::filesystem;
using test::kError;
using test::kInfo;
using test::logged;
using test::readFile;
using test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

using Strings = std::vector<std::string>;

// A program under a name of its own choice, in a process group of its own.
class Child {
 public:
  Child(const char* file, Strings arguments) {
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    EXPECT_EQ(posix_spawn(&pid, file, nullptr, &attributes, pointers.data(), environ), 0) << file;
    posix_spawnattr_destroy(&attributes);
    // Its command line is empty until execve(2) is through with it.
    const std::string commandLine = "/proc/" + std::to_string(pid) + "/cmdline";
    EXPECT_TRUE(test::eventually([&] { return !readFile(commandLine).empty(); }));
  }
  ~Child() {
    if (pid < 0) return;
    kill(-pid, SIGKILL);
    endedBy();
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  int id() const { return pid; }
  bool runs() const { return waitpid(pid, nullptr, WNOHANG) == 0; }
  int endedBy() {
    int status = 0;
    waitpid(std::exchange(pid, -1), &status, 0);
    return WTERMSIG(status);
  }

 private:
  pid_t pid = -1;
};

class Sleeper : public Child {
 public:
  explicit Sleeper(const std::string& program, const char* seconds = "1000",
                   const char* file = "/bin/sleep")
      : Child(file, {program, seconds}) {}
};

class Mounted {
 public:
  Mounted(const char* what, std::string where, const char* type) : at(std::move(where)) {
    EXPECT_EQ(mount(what, at.c_str(), type, type == nullptr ? MS_BIND : 0, nullptr), 0) << at;
  }
  ~Mounted() { umount2(at.c_str(), MNT_DETACH); }
  Mounted(const Mounted&) = delete;
  Mounted& operator=(const Mounted&) = delete;

 private:
  std::string at;
};

// For a /proc of plain files.
void putCommandLine(const std::string& process, const std::string& text) {
  fs::create_directories("/proc/" + process);
  writeFile("/proc/" + process + "/cmdline", text);
}

std::string elements(const Strings& all) {
  std::string text;
  for (const std::string& one : all) text += one + '\0';
  return text;
}

std::vector<int> pidsOf(const std::string& name) {
  std::vector<int> pids{77};
  EXPECT_TRUE(pidof(name, pids)) << name;
  return pids;
}

// ---- names ----

TEST(ProcessNames, AreThoseOfProgramsWithoutTheirFolders) {
  const Sleeper plain("sleeper");
  const Sleeper deep("/usr/bin/sleeper");
  const Sleeper here("./sleeper", "1001");
  const Sleeper other("/sleeper/asleeper2");
  const Sleeper longest("/a\nb/" + std::string(256, 'l'));
  const std::vector<int> sleepers{plain.id(), deep.id(), here.id()};
  struct {
    std::string name;
    std::vector<int> expected;
  } const rows[] = {
      {"sleeper", sleepers},
      {"s.e+per", sleepers},
      {"bin/sleeper", {deep.id()}},
      {"nothing|leeper[0-9]", {other.id()}},
      {std::string(256, 'l'), {longest.id()}},
      {std::string("sleeper\0more", 12), sleepers},
      {"sleepe", {}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(pidsOf(row.name), row.expected) << row.name;
    EXPECT_EQ(is_process_alive(row.name), !row.expected.empty()) << row.name;
  }

  std::vector<int> pids = sleepers;
  EXPECT_TRUE(pidof("sleeper", pids, std::vector<int>{deep.id()}));
  EXPECT_THAT(pids, ElementsAre(plain.id(), here.id()));
  EXPECT_TRUE(pidof("sleeper", pids, pids));
  EXPECT_THAT(pids, ElementsAre(deep.id()));
  EXPECT_FALSE(is_process_alive("sleeper", sleepers));
  const auto for1001 = [](const Strings& line) { return line.size() == 2 && line[1] == "1001"; };
  EXPECT_TRUE(pidof("sleeper", pids, for1001));
  EXPECT_THAT(pids, ElementsAre(here.id()));
  EXPECT_FALSE(is_process_alive("asleeper2", for1001));
  EXPECT_TRUE(is_process_alive("asleeper2", CommandLineFilter()));

  std::array<int, 3> array{7, 7, 7};
  for (const int max : {0, -1}) EXPECT_EQ(getPidsByName("sleeper", array.data(), max), 0);
  EXPECT_EQ(getPidsByName("sleeper", nullptr, 2), 0);
  EXPECT_THAT(array, ElementsAre(7, 7, 7));
  EXPECT_EQ(getPidsByName("sleeper", array.data(), 2), 2);
  EXPECT_THAT(array, ElementsAre(plain.id(), deep.id(), 7));
}

TEST(ProcessNames, TheOneProcess) {
  const Sleeper one("loner");
  EXPECT_EQ(single_pidof("loner"), one.id());
  {
    const Sleeper two("/bin/loner");
    EXPECT_EQ(single_pidof("loner"), -1);
    EXPECT_EQ(errno, ERANGE);
  }
  kill(one.id(), SIGKILL);
  siginfo_t info{};
  waitid(P_PID, static_cast<id_t>(one.id()), &info, WEXITED | WNOWAIT);
  EXPECT_TRUE(is_process_alive(one.id()));  // a zombie, which has no command line
  EXPECT_EQ(single_pidof("loner"), -1);
  EXPECT_EQ(errno, ESRCH);
  EXPECT_THAT(pidsOf(""), ElementsAre(one.id()));
}

TEST(ProcessNames, ScanOfAnyFolder) {
  const Mounted proc("tmpfs", "/proc", "tmpfs");
  const std::string largest = std::to_string(INT_MAX);
  for (const std::string& entry : Strings{"1x", "-5", "+7", " 8", "0", "2147483648", "4294967297",
                                          "99999999999999999999", "12", largest}) {
    putCommandLine(entry, elements({"foo", "1"}));
  }
  fs::create_directory("/proc/13");       // ended after it was listed
  putCommandLine("14", "");               // a kernel thread
  putCommandLine("15", "/bin/foo -x y");  // wrote over its arguments, the last NUL too
  const Strings longLine{"/" + std::string(5000, 'a') + "/foo", "", std::string(5000, 'b'), ""};
  putCommandLine("16", elements(longLine));
  EXPECT_THAT(pidsOf("foo"), UnorderedElementsAre(12, INT_MAX, 16));
  std::vector<int> pids;
  const auto hasNone = [](const Strings& line) { return line == Strings{""}; };
  EXPECT_TRUE(pidof("(foo|)", pids, hasNone));
  EXPECT_THAT(pids, ElementsAre(14));
  EXPECT_TRUE(pidof("foo.*y", pids, [](const Strings& line) { return line.size() == 1; }));
  EXPECT_THAT(pids, ElementsAre(15));
  EXPECT_TRUE(pidof("foo", pids, [&](const Strings& line) { return line == longLine; }));
  EXPECT_THAT(pids, ElementsAre(16));
}

int latestPid() {
  const std::string load = readFile("/proc/loadavg");
  return std::stoi(load.substr(load.rfind(' ')));
}

TEST(ProcessNames, ScanWhileHundredsComeAndGo) {
  const Sleeper first("/opt/steady");
  const Child crowd("/bin/sh", {"crowd", "-c", "while :; do (:) & (:); done"});
  const Sleeper second("steady");
  for (const int enough = latestPid() + 800; latestPid() < enough && !HasFailure();) {
    std::array<int, 4> array{};
    EXPECT_EQ(getPidsByName("steady", array.data(), 4), 2);
    EXPECT_THAT(pidsOf("steady"), UnorderedElementsAre(first.id(), second.id()));
    EXPECT_FALSE(is_process_alive("nobody"));
  }
}

TEST(ProcessNames, FailedSearches) {
  const auto expectFailure = [](const std::string& name, const std::string& text, int error) {
    SCOPED_TRACE(text);
    std::vector<int> pids{1};
    EXPECT_FALSE(pidof(name, pids));
    EXPECT_EQ(errno, error);
    EXPECT_THAT(pids, IsEmpty());
    EXPECT_EQ(single_pidof(name), -1);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(getPidsByName(name, nullptr, 0), -1);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(logged(kError, text, error));
  };
  for (const char* name : {"(", "[", "a{2,1}"}) {
    expectFailure(name, "Failed to compile regex", EINVAL);
  }
  const Mounted proc("tmpfs", "/proc", "tmpfs");
  putCommandLine("12", "");
  {
    const test::DescriptorLimit none(0);
    expectFailure("foo", "Unable to open `/proc/`", EMFILE);
  }
  const test::DescriptorLimit one(1);
  expectFailure("foo", "Unable to read `/proc/12/cmdline`", EMFILE);
}

// ---- by number ----

TEST(Process, Alive) {
  const int ended = Sleeper("brief").id();
  for (const int pid : {0, -1, -5, INT_MIN, INT_MAX, ended}) EXPECT_FALSE(is_process_alive(pid));
  EXPECT_TRUE(is_process_alive(getpid()));
  const auto asNobody = [] {
    if (setuid(65534) != 0) return 0;  // this user has no other to be
    return is_process_alive(1) && kill(1, 0) != 0 ? 0 : 1;
  };
  EXPECT_EQ(test::inChild(asNobody), 0);
}

TEST(Process, PidFile) {
  writeFile("/var/run/camera.pid", "a longer text of before");
  EXPECT_TRUE(store_pid("camera"));
  EXPECT_EQ(readFile("/var/run/camera.pid"), std::to_string(getpid()) + "\n");
  fs::create_symlink("/dev/full", "/var/run/full.pid");
  struct {
    std::string name;
    int error;
  } const rows[] = {{"no/camera", ENOENT}, {std::string(256, 'n'), ENAMETOOLONG}, {"full", ENOSPC}};
  for (const auto& row : rows) {
    EXPECT_FALSE(store_pid(row.name));
    const std::string path = "/var/run/" + row.name + ".pid";
    EXPECT_TRUE(logged(kError, "Unable to write pid file `" + path + "`", row.error));
  }
}

// ---- signals ----

class SignalsTest : public testing::Test {
 protected:
  void SetUp() override {
    provide("/bin/kill", "kill \"$@\"");
    provide("/bin/pkill",
            "status=1\n"
            "for comm in /proc/[0-9]*/comm; do\n"
            "  process=${comm%/comm}\n"
            "  case $(cat $comm) in *$2*) kill $1 ${process#/proc/} && status=0 ;; esac\n"
            "done\n"
            "exit $status");
  }

  // For machines that lack it.
  static void provide(const char* program, const std::string& script) {
    if (fs::exists(program)) return;
    writeFile(program, "#!/bin/bash\n" + script + "\n");
    fs::permissions(program, fs::perms::owner_all);
  }
};

TEST_F(SignalsTest, ByNumberAndByName) {
  Sleeper one("one");
  Sleeper two("two");
  const std::string both = std::to_string(one.id()) + " " + std::to_string(two.id());
  EXPECT_TRUE(kill_process_by_pids({}, SIGKILL));
  EXPECT_TRUE(kill_process_by_pids({one.id(), two.id()}, 0));
  EXPECT_TRUE(logged(kInfo, "signals 0 to " + both));
  EXPECT_TRUE(kill_process_by_pids({one.id(), two.id()}, SIGUSR1));
  EXPECT_TRUE(logged(kInfo, "signals 10 to " + both));
  EXPECT_EQ(one.endedBy(), SIGUSR1);
  EXPECT_EQ(two.endedBy(), SIGUSR1);

  fs::copy_file("/bin/sleep", "/tmp/quarry");
  Sleeper quarry("any", "1000", "/tmp/quarry");
  const Sleeper bystander("quarry");  // to the kernel it is "sleep"
  EXPECT_TRUE(kill_process_by_name("quarry", SIGUSR2));
  EXPECT_TRUE(logged(kInfo, "signals 12 to quarry"));
  EXPECT_EQ(quarry.endedBy(), SIGUSR2);
  EXPECT_FALSE(kill_process_by_name("quarry", SIGUSR2));
  EXPECT_FALSE(kill_process_by_name("-v", SIGKILL));  // no option
  EXPECT_TRUE(bystander.runs());

  // The process group, not what else a program may take "-N" for.
  Sleeper group("group");
  EXPECT_TRUE(kill_process_by_pids({-group.id()}, SIGTERM));
  EXPECT_EQ(group.endedBy(), SIGTERM);
  EXPECT_TRUE(bystander.runs());
}

TEST_F(SignalsTest, ThatCannotBeSent) {
  const Sleeper bystander("bystander");
  EXPECT_FALSE(kill_process_by_pids({INT_MAX}, SIGTERM));
  for (const int signal : {-1, 65, 100, INT_MAX, INT_MIN}) {
    EXPECT_FALSE(kill_process_by_pids({bystander.id()}, signal));
    EXPECT_FALSE(kill_process_by_name("sleep", signal));
    EXPECT_TRUE(logged(kInfo, "signals " + std::to_string(signal) + " to sleep"));
    for (int i = 0; i < 2; ++i) {
      EXPECT_TRUE(logged(kError, "Invalid signal " + std::to_string(signal)));
    }
  }
  EXPECT_TRUE(bystander.runs());
}

// ---- /proc ----

TEST(Procfs, Files) {
  std::string whole;
  for (int i = 0; i < 2500; ++i) whole += static_cast<char>(i % 251);
  std::string out = "before";
  for (const std::size_t size : {0U, 1024U, 2500U}) {
    writeFile("/tmp/file", whole.substr(0, size));
    for (const unsigned limit : {1U, 1023U, 1024U, 1025U, ~0U}) {
      EXPECT_TRUE(ReadProcFile("/tmp/file", out, limit));
      EXPECT_EQ(out, whole.substr(0, std::min<std::size_t>(size, limit)));
    }
  }

  EXPECT_FALSE(ReadProcFile("/proc/cmdline", out, 0));
  EXPECT_TRUE(logged(kError, "Invalid maxSize parameter", 0));
  EXPECT_EQ(out, whole);
  EXPECT_FALSE(ReadProcFile("/proc/missing", out, 10));
  EXPECT_TRUE(logged(kError, "Unable to open file `/proc/missing`", ENOENT));
  EXPECT_EQ(out, "");
  EXPECT_FALSE(ReadProcFile("/proc", out, ~0U));
  EXPECT_TRUE(logged(kError, "Unable to read 1024 bytes from `/proc`", EISDIR));
  EXPECT_FALSE(ReadProcFile("/proc", out, 10));
  EXPECT_TRUE(logged(kError, "Unable to read 10 bytes from `/proc`", EISDIR));
}

TEST(Procfs, KernelCommandLine) {
  writeFile("/tmp/cmdline", "");
  const Mounted over("/tmp/cmdline", "/proc/cmdline", nullptr);
  using Params = std::map<std::string, std::string>;
  const std::string filler(1019, 'k');
  struct {
    std::string text;
    Params params;
    bool console;
    int mode;
  } const rows[] = {
      {"", {}, false, 77},
      {"console=ttyS0\n", {{"console", "ttyS0"}}, true, 77},
      {"console=ttyS0,115200\n", {{"console", "ttyS0,115200"}}, false, 77},
      {" a=b=c  =d\te  console=tty0 console=ttyS0 ",
       {{"a", "b=c"}, {"", "d\te"}, {"console", "ttyS0"}},
       true,
       77},
      {"VEXO_runmode=12 quiet\n", {{"VEXO_runmode", "12"}, {"quiet", ""}}, false, 12},
      {"VEXO_runmode", {{"VEXO_runmode", ""}}, false, 0},
      {"VEXO_runmode=3x console", {{"VEXO_runmode", "3x"}, {"console", ""}}, false, 3},
      {filler + " a=bc\n", {{filler, ""}, {"a", "bc"}}, false, 77},
      {filler + "k a=bc\n", {{filler + "k", ""}, {"a", "b"}}, false, 77},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    writeFile("/tmp/cmdline", row.text);
    Params params{{"of", "before"}};
    EXPECT_TRUE(ReadKernelCommandLine(params));
    EXPECT_EQ(params, row.params);
    EXPECT_EQ(ConsoleEnabled(), row.console);
    int mode = 77;
    EXPECT_EQ(GetRunMode(mode), row.mode != 77);
    EXPECT_EQ(mode, row.mode);
  }
  const test::DescriptorLimit none(0);
  EXPECT_FALSE(ConsoleEnabled());
  EXPECT_TRUE(logged(kError, "Unable to open file `/proc/cmdline`", EMFILE));
}

TEST(Procfs, OwnProgram) {
  std::string exe;
  Strings args{"before"};
  std::string path;
  EXPECT_TRUE(ReadCommandLine(exe, args));
  EXPECT_EQ(fs::path(exe).filename(), "process_test");
  EXPECT_TRUE(getModulePath(path));
  EXPECT_EQ(path, VEXO_BINARY_DIR "/tests/process_test");
  EXPECT_TRUE(getModuleDir(path));
  EXPECT_EQ(path, VEXO_BINARY_DIR "/tests");
}

TEST(Procfs, AnyProgram) {
  const Mounted proc("tmpfs", "/proc", "tmpfs");
  putCommandLine("self", "prog");
  if (readFile("/proc/self/cmdline") != "prog") GTEST_SKIP() << "an emulator stands for /proc/self";
  for (const Strings& line : {Strings{"prog"}, {"prog", "", "a b\n", ""}, {"", "-x"}}) {
    putCommandLine("self", elements(line));
    std::string exe = "before";
    Strings all{"before"};
    EXPECT_TRUE(ReadCommandLine(exe, all));
    all.insert(all.begin(), exe);
    EXPECT_EQ(all, line);
  }

  std::string path = "before";
  EXPECT_FALSE(getModuleDir(path));
  EXPECT_TRUE(logged(kError, "Unable to read link `/proc/self/exe`", ENOENT));
  EXPECT_EQ(path, "before");
  for (const std::string& folder : {std::string(), "/" + std::string(4000, 'd')}) {
    fs::remove("/proc/self/exe");
    fs::create_symlink(folder + "/prog (deleted)", "/proc/self/exe");
    EXPECT_TRUE(getModulePath(path));
    EXPECT_EQ(path, folder + "/prog (deleted)");
    EXPECT_TRUE(getModuleDir(path));
    EXPECT_EQ(path, folder.empty() ? "/" : folder);
  }
}

// ---- random ----

TEST(Random, BytesAndTexts) {
  std::array<unsigned char, 64> bytes{};
  EXPECT_FALSE(randomBytes(nullptr, 1));
  EXPECT_FALSE(randomBytes(bytes.data(), 0));
  EXPECT_TRUE(randomBytes(bytes.data(), 63));
  EXPECT_EQ(bytes[63], 0);
  EXPECT_LT(std::count(bytes.begin(), bytes.end(), 0), 20);
  std::string one = "before";
  std::string two;
  EXPECT_TRUE(randomAlphaNumericString(one, 0));
  EXPECT_EQ(one, "");
  EXPECT_TRUE(randomAlphaNumericString(one, 10'000));
  EXPECT_TRUE(randomAlphaNumericString(two, 10'000));
  EXPECT_EQ(one.size(), 10'000U);
  EXPECT_NE(one, two);
}

TEST(Random, NoCharacterIsFavoured) {
  // Every byte value twice, the 8 that are not used first. Each character has 4 of the others.
  std::string all;
  for (int i = 0; i < 512; ++i) all += static_cast<char>((248 + i) % 256);
  writeFile("/tmp/urandom", all);
  const Mounted device("/tmp/urandom", "/dev/urandom", nullptr);
  std::string text;
  EXPECT_TRUE(randomAlphaNumericString(text, 248));
  std::string expected;
  for (const auto& [first, last] : {std::pair{'0', '9'}, {'A', 'Z'}, {'a', 'z'}}) {
    for (char c = first; c <= last; ++c) expected.append(4, c);
  }
  std::sort(text.begin(), text.end());
  EXPECT_EQ(text, expected);

  writeFile("/tmp/urandom", "");  // no device: it ends
  EXPECT_FALSE(randomAlphaNumericString(text, 1));
  EXPECT_EQ(text, expected);
}

}  // namespace
}  // namespace vexo::utils
