#include "vexo_utils/crashdumps.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "files.h"
#include "log_recorder.h"
#include "vexo_utils/fileutils.h"
#include "wait.h"

namespace vexo::utils {
namespace {

namespace fs = std::filesystem;
using test::kError;
using test::kWarning;
using test::logged;
using test::readFile;
using test::writeFile;
using testing::HasSubstr;

using Strings = std::vector<std::string>;

const std::string kBase = "/tmp/crashdumps/";

// crash_child, as the application `name`.
class Crash {
 public:
  Crash(std::string app, const std::string& words) : name(std::move(app)), pid(fork()) {
    if (pid != 0) return;
    const std::string command = "exec " VEXO_BINARY_DIR "/tests/crash_child " + name + " " + words +
                                " >/tmp/" + name + ".out 2>/tmp/" + name + ".err";
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(99);
  }

  // The exit status, 128 + N if signal N ended it, -1 if it does not end.
  int status() const {
    int ended = 0;
    if (!test::eventually([&] { return waitpid(pid, &ended, WNOHANG) == pid; })) return -1;
    return WIFEXITED(ended) ? WEXITSTATUS(ended) : 128 + WTERMSIG(ended);
  }
  std::string id() const { return std::to_string(pid); }
  std::string folder() const { return kBase + name + "/0000000001"; }
  std::string dump() const { return readFile(folder() + "/stack"); }
  std::string collected() const { return readFile(folder() + "/collected"); }
  std::string out() const { return readFile("/tmp/" + name + ".out"); }
  std::string err() const { return readFile("/tmp/" + name + ".err"); }

 private:
  std::string name;
  pid_t pid;
};

const std::string kTraceAndMap =
    "--- STACK TRACE ---\n([^ ]*\\([^ ]*\\) ?\\[0x[0-9a-f]+\\]\n)+"
    "--- MEMORY MAP ---\n([0-9a-f]+-[0-9a-f]+ [r-][w-][x-][ps] [0-9a-f]+ [0-9a-f:]+ [0-9]+ "
    "[^\n]*\n)+"
    "\n\n";

auto isDump(int signo) {
  char number[9];
  std::snprintf(number, sizeof number, "%08X", static_cast<unsigned>(signo));
  return testing::MatchesRegex(std::string("SIGNAL: 0x") + number + "\n\n" + kTraceAndMap);
}

void setCollector(const std::string& script) {
  writeFile("/usr/bin/crash-collect", "#!/bin/sh\n" + script + "\n");
  chmod("/usr/bin/crash-collect", 0755);
}

class CrashDump : public testing::Test {
 protected:
  // Whoever is left behind by a crash becomes a child of this process, and so fails the test.
  CrashDump() {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    setCollector("echo $* >$3/collected");
  }
};

TEST_F(CrashDump, IsLeftByEveryCause) {
  const std::map<std::string, int> causes = {
      {"null", SIGSEGV},     {"abort", SIGABRT},  {"divide", SIGFPE},
      {"illegal", SIGILL},   {"bus", SIGBUS},     {"heap", SIGABRT},
      {"overflow", SIGSEGV}, {"thread", SIGSEGV}, {"thread-overflow", SIGSEGV}};
  for (int repeat = 0; repeat < 12; ++repeat) {
    std::vector<std::pair<Crash, int>> crashes;  // each sleeps a second for its collector
    for (const auto& [cause, signo] : causes) {
      for (const std::string threads : {"", "threads"}) {
        const std::string name = cause + threads + std::to_string(repeat);
        crashes.emplace_back(Crash(name, cause + " " + threads), signo);
      }
    }
    for (const auto& [crash, signo] : crashes) {
      SCOPED_TRACE(crash.folder());
      const std::string number = std::to_string(signo);
      EXPECT_EQ(crash.status(), 1);
      EXPECT_THAT(crash.dump(), isDump(signo));
      EXPECT_EQ(crash.collected(),
                "app " + crash.id() + " " + crash.folder() + " " + number + "\n");
      EXPECT_THAT(crash.err(), HasSubstr(": Signal " + number + " Crashdump " + crash.folder()));
      EXPECT_THAT(crash.err(), HasSubstr(": Sender pid: "));
    }
  }
}

TEST_F(CrashDump, MeetsWhatTheProgramDid) {
  const struct {
    const char* word;
    int status;
    const char* out;
    bool dumped;
    bool collected;
    const char* log;
  } cases[] = {{"three", 1, "three", true, true, ""},
               {"one", 1, "one", true, true, ""},
               {"exit", 7, "", true, true, ""},
               {"ignored", 1, "", true, true, ""},
               {"no-children", 1, "", true, true, ""},
               {"close", 1, "", false, true, "Fail to close stack file. errno: 9"},
               {"reuse", 1, "", false, true, "Fail to write fd: -1, errno: 9"},
               {"no-files", 1, "", false, false, "Unable to read the memory map."},
               {"log-faults", 1, "", false, false, ""}};
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.word);
    const Crash crash(expected.word, std::string("null threads ") + expected.word);
    EXPECT_EQ(crash.status(), expected.status);
    EXPECT_EQ(crash.out(), expected.out);
    EXPECT_EQ(!crash.dump().empty(), expected.dumped);
    EXPECT_EQ(!crash.collected().empty(), expected.collected);
    EXPECT_THAT(crash.err(), HasSubstr(expected.log));
  }
  EXPECT_EQ(readFile("/tmp/other"), "");  // it has the number of the closed descriptor

  const Crash again("first", "null three again");
  EXPECT_EQ(again.status(), 1);
  EXPECT_EQ(again.out(), "three");
  EXPECT_EQ(again.dump(), "");
  EXPECT_THAT(readFile(kBase + "again/0000000001/stack"), isDump(SIGSEGV));

  EXPECT_EQ(Crash("none", "threads").status(), 0);
}

TEST_F(CrashDump, IsCutWhenTwoThreadsCrashAtOnceOrTheDiskIsFull) {
  for (int repeat = 0; repeat < 20; ++repeat) {
    const Crash two("two" + std::to_string(repeat), "two");
    EXPECT_EQ(two.status(), 1);
    const std::string beginning = two.dump().substr(0, 19);
    EXPECT_EQ(beginning, std::string("SIGNAL: 0x0000000B\n").substr(0, beginning.size()));
  }
  while (wait(nullptr) > 0) {  // collectors whose parent was ended by its second thread
  }
  ASSERT_EQ(mount("tmpfs", kBase.c_str(), "tmpfs", 0, "size=8k"), 0);
  writeFile(kBase + "full", std::string(8192, 'x'));
  const Crash crash("app", "null");
  EXPECT_EQ(crash.status(), 1);
  EXPECT_THAT(crash.err(), HasSubstr(", errno: 28"));
  umount(kBase.c_str());
}

TEST_F(CrashDump, EndsWhateverTheCollectorAndTheLogDo) {
  fs::remove("/usr/bin/crash-collect");
  EXPECT_EQ(Crash("missing", "null").status(), 1);
  setCollector("kill -SEGV $$");
  EXPECT_EQ(Crash("crashes", "null").status(), 1);
  setCollector("exec sleep 1000");
  const Crash collector("collector", "null three");
  const Crash log("log", "null three log-hangs");
  EXPECT_EQ(collector.status(), 1);
  EXPECT_EQ(collector.out(), "three");
  EXPECT_EQ(log.status(), 1);
  EXPECT_EQ(log.out(), "");
}

TEST_F(CrashDump, FitsOnTheAlternateStack) {
  for (const std::string cause : {"null", "overflow", "heap"}) {
    const Crash crash(cause, cause + " threads paint");
    EXPECT_EQ(crash.status(), 1);
    int left = 0;
    int size = 0;
    ASSERT_EQ(std::sscanf(crash.out().c_str(), "%d of %d", &left, &size), 2) << crash.err();
    std::printf("%s: %d of %d bytes left\n", cause.c_str(), left, size);
    EXPECT_GE(size, 8192);
    EXPECT_GE(left, sysconf(_SC_MINSIGSTKSZ));  // for a fault in the handler
  }
}

TEST_F(CrashDump, IsReadByTheTool) {
  const Crash crash("app", "null");
  EXPECT_EQ(crash.status(), 1);
  const std::string script =
      "set -e; cd " VEXO_SOURCE_DIR
      "; ! tools/read-crash-dump /dev/null 2>/dev/null\n"
      "tools/read-crash-dump -d " VEXO_BINARY_DIR " " +
      crash.folder() +
      "/stack >/tmp/read\n"
      "source=tests/children/crash_child.cpp\n"
      "line=$(sed -n 's/^=> .* [^ ]*writeNull() at .*crash_child.cpp://p' /tmp/read)\n"
      "sed -n \"${line}p\" $source | grep -q 'guilty line'";
  EXPECT_EQ(std::system(script.c_str()), 0) << readFile("/tmp/read");
}

std::string nextFolder(const std::string& app) {
  std::string folder = "none";
  const bool made = CrashDumpHandler::GetCrashDumpFolder(app.c_str(), folder);
  EXPECT_EQ(made, fs::is_directory(folder)) << folder;
  return folder.substr(folder.rfind('/') + 1);
}

Strings foldersOf(const std::string& app) {
  Strings names;
  EXPECT_TRUE(listFolder(kBase + app, names, AT_FDCWD));
  return names;
}

class CrashDumpFolder : public testing::Test {
 protected:
  CrashDumpFolder() { fs::remove_all("/tmp/crashdumps"); }
};

TEST_F(CrashDumpFolder, CountsUpAndEvictsTheOldest) {
  const std::string bad =
      "CRASH_DUMPS_COUNT env variable is not a number or less or equal to 0. Using the default "
      "value of 1";
  const std::string big =
      "CRASH_DUMPS_COUNT env variable is bigger than allowed max (100). Capping to 100";
  const std::map<std::string, std::pair<std::size_t, std::string>> cases = {
      {"500", {100, big}}, {"99999999999999999999", {100, big}},
      {"100", {100, ""}},  {" 3", {3, ""}},
      {"2", {2, ""}},      {"", {1, bad}},
      {"abc", {1, bad}},   {"2x", {1, bad}},
      {"0", {1, bad}},     {"-5", {1, bad}}};
  for (const auto& [variable, expected] : cases) {
    SCOPED_TRACE(variable);
    setenv("CRASH_DUMPS_COUNT", variable.c_str(), 1);
    for (int i = 0; i < 102; ++i) {
      nextFolder("app");
      EXPECT_TRUE(expected.second.empty() || logged(kWarning, expected.second));
    }
    EXPECT_EQ(foldersOf("app").size(), expected.first);
  }
  unsetenv("CRASH_DUMPS_COUNT");
  EXPECT_EQ(nextFolder("app"), "0000001021");
  EXPECT_EQ(foldersOf("app"), Strings{"0000001021"});
}

TEST_F(CrashDumpFolder, IsTheOnlyThingThatIsEvicted) {
  Strings odd = {"-000000001", "00000000002", "12", "9999999999", "abc"};
  for (const std::string& name : odd) fs::create_directories(kBase + "app/" + name);
  fs::create_directories("/tmp/victim/inside");
  fs::create_directory_symlink("/tmp/victim", kBase + "app/0000000001");
  EXPECT_EQ(nextFolder("app"), "0000000002");
  fs::create_directory_symlink("/tmp/victim", kBase + "app/0000000002/link");
  writeFile(kBase + "app/0000000003", "");
  EXPECT_EQ(nextFolder("app"), "0000000004");
  EXPECT_TRUE(fs::exists("/tmp/victim/inside"));
  odd.insert(odd.end(), {"0000000001", "0000000003", "0000000004"});
  EXPECT_THAT(foldersOf("app"), testing::UnorderedElementsAreArray(odd));
  fs::create_directory(kBase + "app/2147483647");
  EXPECT_EQ(nextFolder("app"), "none");
}

TEST_F(CrashDumpFolder, IsRefusedWhereADumpCouldLandOutside) {
  const auto refused = [](const char* app) {
    return !InstallCrashDumpHandler(app) && logged(kError, "Unable to compute the dump folder");
  };
  for (const char* app : {"", ".", "..", "a/b", "/"}) EXPECT_TRUE(refused(app)) << app;
  EXPECT_TRUE(refused(nullptr));
  fs::create_directories("/tmp/elsewhere/app");
  fs::create_directory_symlink("/tmp/elsewhere", "/tmp/crashdumps");
  EXPECT_TRUE(refused("app"));
  fs::remove("/tmp/crashdumps");
  EXPECT_TRUE(refused(std::string(256, 'a').c_str()));
  fs::create_directory_symlink("/tmp/elsewhere/app", kBase + "app");
  EXPECT_TRUE(refused("app"));
  EXPECT_TRUE(fs::is_empty("/tmp/elsewhere/app"));
  fs::create_directory(kBase + "other");
  if (chown((kBase + "other").c_str(), 12345, 12345) != 0) GTEST_SKIP() << "needs root";
  EXPECT_TRUE(refused("other"));
}

TEST(PrintBacktrace, WritesTraceAndMap) {
  FILE* file = std::fopen("/tmp/trace", "w");
  const int standardError = dup(STDERR_FILENO);
  dup2(fileno(file), STDERR_FILENO);
  PrintBacktrace();
  dup2(standardError, STDERR_FILENO);
  close(standardError);
  PrintBacktrace(file);
  PrintBacktrace(fileno(file));
  EXPECT_THAT(readFile("/tmp/trace"), testing::MatchesRegex("(" + kTraceAndMap + "){3}"));
  std::fclose(file);
  PrintBacktrace(nullptr);
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(logged(kError, "Fail to write fd: -1, errno: 9"));
}

}  // namespace
}  // namespace vexo::utils
