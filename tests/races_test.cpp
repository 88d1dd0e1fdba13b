// What others do between two calls of the library, where the second relies on the first: each test
// changes the world exactly then.

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/wait.h>

#include "fault_shim.h"
#include "files.h"
#include "in_child.h"
#include "internal/unique_fd.h"
#include "leftovers.h"
#include "log_recorder.h"
#include "log_ring.h"
#include "mounted.h"
#include "vexo_utils/FSWatcher.h"
#include "vexo_utils/crashdumps.h"
#include "vexo_utils/exec.h"
#include "vexo_utils/file.h"
#include "vexo_utils/fileutils.h"
#include "vexo_utils/inode_listener.h"
#include "vexo_utils/logread.h"
#include "vexo_utils/process.h"
#include "vexo_utils/scheduler.h"
#include "vexo_utils/sound.h"
#include "vexo_utils/startupcontrolfile.h"
#include "vexo_utils/timezone.h"
#include "wait.h"

namespace vexo::utils {
namespace {

namespace fs = std::filesystem;
using namespace test;
using internal::UniqueFd;
using Change = std::function<void()>;

// Every test starts with an empty folder as its working directory.
class Races : public testing::Test {
 protected:
  Races() {
    fs::create_directory("/tmp/desk");
    fs::current_path("/tmp/desk");
    startAnew();
  }
  ~Races() override {
    EXPECT_FALSE(isExpected);
    beforeCall("", 0, nullptr);
    fs::current_path(origin);
  }

  static void startAnew() {
    for (const auto& entry : fs::directory_iterator(".")) fs::remove_all(entry);
    fs::remove_all("/tmp/crashdumps");
  }

  // Just before the `nth` call of that name from now on, which has to come.
  void before(const char* call, long nth, const Change& change) {
    EXPECT_FALSE(isExpected);
    isExpected = true;
    beforeCall(call, nth, [this, change] {
      isExpected = false;
      change();
    });
  }

 private:
  const fs::path origin = fs::current_path();
  bool isExpected = false;
};

void replaceByLink(const std::string& path, const std::string& target) {
  if (fs::exists(path)) fs::rename(path, path + ".moved");
  fs::create_symlink(target, path);
}

// ---- files ----

TEST_F(Races, RemovalIsNotLedOutside) {
  const std::tuple<const char*, long, const char*> rows[] = {
      {"openat", 1, "tree"}, {"openat", 2, "tree/sub"}, {"unlinkat", 1, "tree/sub"}};
  for (const auto& [call, nth, folder] : rows) {
    startAnew();
    for (const std::string parent : {"tree/", "outside/"}) {
      fs::create_directories(parent + "sub");
      for (const char* file : {"file", "sub/file"}) writeFile(parent + file, "");
    }
    fs::remove("tree/file");
    before(call, nth, [path = folder] { replaceByLink(path, "/tmp/desk/outside"); });
    EXPECT_FALSE(rmRf("tree", AT_FDCWD)) << folder;
    EXPECT_TRUE(fs::exists("outside/file") && fs::exists("outside/sub/file")) << folder;
  }
  forgetLog();  // folders that were links when they were opened
}

TEST_F(Races, DumpsAreNotLedOutside) {
  const std::tuple<long, std::string, const char*> rows[] = {
      {2, "/tmp/crashdumps", "/tmp/desk"},
      {3, "/tmp/crashdumps/app", "/tmp/desk"},
      {4, "/tmp/crashdumps/app/0000000001", "/tmp/desk"},
      {5, "/tmp/crashdumps/app/0000000001/stack", "/tmp/desk/file"}};
  for (const auto& [nth, path, target] : rows) {
    startAnew();
    writeFile("file", "kept");
    before("openat", nth, [from = path, to = target] { replaceByLink(from, to); });
    EXPECT_FALSE(InstallCrashDumpHandler("app")) << path;
    EXPECT_EQ(readFile("file"), "kept");
    EXPECT_EQ(std::distance(fs::directory_iterator("."), {}), 1) << path;
  }
  forgetLog();
}

TEST_F(Races, TwoDumpsNeverShareAFolder) {
  fs::create_directories("/tmp/crashdumps/app");
  before("mkdirat", 1, [] { fs::create_directory("/tmp/crashdumps/app/0000000001"); });
  std::string folder;
  EXPECT_TRUE(CrashDumpHandler::GetCrashDumpFolder("app", folder));
  EXPECT_EQ(folder, "/tmp/crashdumps/app/0000000002");
}

TEST_F(Races, AFolderOfAnotherIsAsGood) {
  const std::pair<Change, bool> rows[] = {{[] { fs::create_directory("a"); }, true},
                                          {[] { writeFile("a", ""); }, false},
                                          {[] { fs::create_symlink("nowhere", "a"); }, false}};
  for (const auto& [change, expected] : rows) {
    startAnew();
    before("mkdirat", 1, change);
    EXPECT_EQ(mkdirP("a", false, 0755, AT_FDCWD), expected);
  }
}

TEST_F(Races, TouchingKeepsWhatAnotherWrote) {
  before("openat", 1, [] { writeFile("a", "text"); });
  EXPECT_TRUE(touchFile("a", true, AT_FDCWD));
  EXPECT_EQ(readFile("a"), "text");
}

TEST_F(Races, CopyLosesNothing) {
  const std::tuple<const char*, Change, const char*, int> rows[] = {
      {"from", [] { fs::create_hard_link("to", "from"); }, "to", EINVAL},
      {"from", [] { mkfifo("from", 0600); }, "from", EINVAL},
      {"from", [] { fs::create_directory("from"); }, "from", EISDIR},
      {"to", [] { fs::create_symlink("from", "to"); }, "to", EINVAL}};
  for (const auto& [name, change, culprit, error] : rows) {
    startAnew();
    for (const char* file : {"from", "to"}) writeFile(file, file);
    const std::string replaced = name;
    before("openat", replaced == "from" ? 1 : 2, [&, replace = change] {
      fs::remove(replaced);
      replace();
    });
    EXPECT_TRUE(refused(copyFile("from", "to", AT_FDCWD, AT_FDCWD),
                        std::string("Unable to open '") + culprit + "'", error));
    EXPECT_EQ(readFile("to"), replaced == "from" ? "to" : "from");
  }
}

TEST_F(Races, CopyOfAFileThatChanges) {
  writeFile("from", "text");
  before("splice", 1, [] { writeFile("from", "text that goes on"); });
  EXPECT_TRUE(copyFile("from", "to", AT_FDCWD, AT_FDCWD));
  EXPECT_EQ(readFile("to"), "text");
  before("splice", 1, [] { fs::resize_file("from", 0); });
  EXPECT_TRUE(refused(copyFile("from", "to", AT_FDCWD, AT_FDCWD),
                      "Failed to splice() from src to pipe", 0));
}

TEST_F(Races, AMoveTakesOnlyWhatItCopied) {
  const Mounted other("/tmp/other");
  writeFile("from", "text");
  before("fchmod", 1, [] {
    fs::remove("from");
    writeFile("from", "newer");
  });
  EXPECT_TRUE(refused(renameFile("from", "/tmp/other/to", AT_FDCWD, AT_FDCWD),
                      "Could not delete src file (fallback to rename) 'from'", EBUSY));
  EXPECT_EQ(readFile("/tmp/other/to") + readFile("from"), "textnewer");
}

TEST_F(Races, TheSizeOfAFileIsAskedOnce) {
  writeFile("a", "text");
  File file;
  ASSERT_TRUE(file.Initialize("a", FILE_OPEN_READ, 0));
  beforeCall("fstat", 2, [] { writeFile("a", "text that goes on"); });  // not to be reached
  std::string text;
  EXPECT_TRUE(file.ReadStringAll(text));
  EXPECT_EQ(text, "text");
}

TEST_F(Races, SamplesThatVanishChangeNothing) {
  File file;
  ASSERT_TRUE(file.Initialize("a", FILE_OPEN_TRUNCATE, 0) && writeWavHeader(file, 1, 8000));
  ASSERT_TRUE(file.WriteI32(7, false) && finalizeWavHeader(file));
  std::vector<uint8_t> samples = {1, 2};
  before("read", 14, [] { fs::resize_file("a", 46); });  // of 48 bytes
  EXPECT_TRUE(refused(readWav("a", samples, 1, 8000, 0), "Failed to read WAV contents"));
  EXPECT_TRUE(logged(kWarning, "Unable to read 4 bytes. EOF"));
  EXPECT_EQ(samples, (std::vector<uint8_t>{1, 2}));
}

// ---- changes of the file system ----

TEST_F(Races, WhatAppearsBeforeTheWatchIsFound) {
  before("inotify_add_watch", 1, [] { writeFile("a", ""); });
  EXPECT_TRUE(waitForFiles({"a"}, 0));
}

TEST_F(Races, AFolderThatAppearsBetweenTwoWatchesIsWatched) {
  before("inotify_add_watch", 2, [this] {
    fs::create_directory("sub");
    before("poll", 1, [this] {
      writeFile("sub/a", "");
      before("read", 1, [] {});  // there is an event: it is not the slow poll that finds it
    });
  });
  EXPECT_TRUE(waitForFiles({"sub/a"}, ~0U));
}

TEST_F(Races, EventsThatAnotherTookAreNotWaitedFor) {
  const auto take = [] {
    char events[1000];
    for (const auto& [fd, is] : openDescriptors()) {
      if (is == "anon_inode:inotify") {
        EXPECT_GT(read(fd, events, sizeof events), 0);
      }
    }
  };
  {
    FSWatcher watcher(nullptr);
    ASSERT_TRUE(watcher.start() && watcher.add(".", IN_CREATE, nullptr, nullptr));
    writeFile("a", "");
    before("read", 1, take);
    EXPECT_TRUE(watcher.service(~0U));
  }
  InodeListener listener;
  BareInodeNotifier notifier(nullptr);
  ASSERT_TRUE(listener.start(".", "b", IN_CREATE, &notifier));
  writeFile("b", "");
  before("read", 1, take);
  EXPECT_TRUE(listener.service(1000));
  EXPECT_TRUE(logged(kWarning, "`read()` has nothing to return. Try again"));
}

// ---- descriptors and processes ----

TEST_F(Races, ATimerThatIsRemovedKeepsItsNumberWhileItIsSet) {
  Scheduler scheduler;
  ASSERT_TRUE(scheduler.Init());
  const auto call = [](void*) { return true; };
  const auto id = scheduler.AddTimerTask(1, Scheduler::TimerShortCallback(call), nullptr);
  UniqueFd other;
  before("timerfd_settime", 1, [&] {
    scheduler.RemoveIOTask(id);
    other.reset(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
  });
  EXPECT_TRUE(scheduler.UpdateTimerTask(id, 1'000'000, 0));
  itimerspec set{};
  timerfd_gettime(other.get(), &set);
  EXPECT_EQ(set.it_value.tv_sec, 0);
}

TEST_F(Races, AWakeUpIsNeverWrittenElsewhere) {
  Scheduler scheduler;
  ASSERT_TRUE(scheduler.Init());
  std::atomic<pid_t> id{0};
  std::thread stopper;
  UniqueFd others[3];  // as many as a stop closes
  before("write", 1, [&] {
    stopper = std::thread([&] {
      id = gettid();
      scheduler.Stop();
    });
    const auto hasEndedOrWaits = [&] {
      const std::string stat = readFile("/proc/self/task/" + std::to_string(id) + "/stat");
      return id != 0 && (stat.empty() || stat.find(") S ") != std::string::npos);
    };
    EXPECT_TRUE(eventually(hasEndedOrWaits));
    for (UniqueFd& other : others) other.reset(open("other", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  });
  EXPECT_TRUE(scheduler.WakeUp());
  stopper.join();
  EXPECT_EQ(readFile("other"), "");
}

TEST_F(Races, APipeIsNeverForProgramsThatOthersStart) {
  const auto inherited = [] {
    int count = 0;
    for (const auto& [fd, is] : openDescriptors()) {
      if (is.find("pipe:") == 0 && (fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) ++count;
    }
    return count;
  };
  const int ours = inherited();
  const std::string in = "text";
  std::string out;
  before("fcntl", 1, [&] { EXPECT_EQ(inherited(), ours); });
  EXPECT_EQ(sysExec(&in, &out, nullptr, 0, 0, 0, "/bin/cat", 0), 0);
}

TEST_F(Races, AnEndBeforeTheWaitIsNotWaitedFor) {
  SysExec runner;
  ASSERT_TRUE(runner.setExe("/bin/sleep").setArgs({"1000"}).start());
  before("poll", 1, [&] {
    kill(runner.getPid(), SIGKILL);
    siginfo_t end{};
    waitid(P_PID, static_cast<id_t>(runner.getPid()), &end, WEXITED | WNOWAIT);
  });
  runner.waitReady(~0U);
  EXPECT_FALSE(runner.service());
  EXPECT_EQ(runner.getCode(), 100);
}

TEST_F(Races, AProcessThatEndsIsPassedOver) {
  const pid_t child = startChild(pause);  // the last one that /proc lists
  const auto isProcess = [](const auto& entry) {
    return std::isdigit(entry.path().filename().string().front()) != 0;
  };
  before("openat", std::count_if(fs::directory_iterator("/proc"), {}, isProcess), [=] {
    before("read", 1, [=] {
      kill(child, SIGKILL);
      endOfChild(child);
    });
  });
  std::vector<int> pids;
  EXPECT_TRUE(pidof("nobody", pids));
}

// ---- state that processes share ----

TEST_F(Races, AStateThatIsWithdrawnIsWaitedFor) {
  writeFile("state", "a");
  StartupControlFile tenant("state", false);
  ASSERT_EQ(tenant.Init(), 0);
  before("pread", 1, [this] {
    fs::resize_file("state", 0);
    before("nanosleep", 1, [] { writeFile("state", "b"); });
  });
  startup_control_file_state_t state{};
  EXPECT_EQ(tenant.Get(state), 0);
  EXPECT_EQ(state, 'b');
}

TEST_F(Races, TheLogRingIsLookedAtOnceItIsLocked) {
  LogRing ring(100, 100, 0);
  ring.write("text");
  Logread log;
  ASSERT_TRUE(log.Initialize());
  before("semop", 1, [&] { ring.setTail(100); });
  EXPECT_TRUE(refused(log.SeekToTail(), "Invalid size or tail of the log ring"));
}

class TimeZoneRaces : public Races {
 protected:
  TimeZoneRaces() {
    fs::create_directories(fs::path(zones[0]).parent_path());
    for (const std::string& zone : zones) writeFile(zone, "TZif\n" + zone + "\n");
    EXPECT_TRUE(setTimeZone(zones[0]));
  }

  const std::string zones[2] = {"/usr/share/zoneinfo/One", "/usr/share/zoneinfo/Two"};
};

TEST_F(TimeZoneRaces, ReadersAlwaysFindAWholeOne) {
  const std::pair<const char*, long> rows[] = {{"unlink", 1}, {"symlink", 1}, {"write", 1},
                                               {"fchmod", 1}, {"fsync", 1},   {"rename", 1},
                                               {"rename", 2}};
  int turn = 0;
  for (const auto& [call, nth] : rows) {
    const std::string& from = zones[turn];
    const std::string& to = zones[turn = 1 - turn];
    before(call, nth, [&, nth = nth] {
      EXPECT_EQ(readFile("/etc/TZ"), (nth == 1 ? from : to) + "\n");
      std::error_code missing;
      EXPECT_EQ(fs::read_symlink("/etc/localtime", missing), from);
    });
    EXPECT_TRUE(setTimeZone(to)) << call;
  }
}

TEST_F(TimeZoneRaces, ANameThatAnotherTookIsLeftAlone) {
  std::vector<std::string> names;
  before("unlink", 1, [&] {
    ::glob("/etc/localtime-??????", names);
    before("symlink", 1, [&] { writeFile(names.at(0), "another's"); });
  });
  EXPECT_TRUE(refused(setTimeZone(zones[1]), "Failed to create sym link", EEXIST));
  EXPECT_EQ(readFile(names.at(0)), "another's");
  fs::remove(names.at(0));
  EXPECT_EQ(fs::read_symlink("/etc/localtime"), zones[0]);
}

}  // namespace
}  // namespace vexo::utils
