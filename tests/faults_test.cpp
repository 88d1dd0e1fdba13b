// Every call of the C library that the library makes fails once with each of its errors, and every
// allocation once. A scenario is what a user does with a facility.

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include "camera.h"
#include "fake_sensors.h"
#include "fault_shim.h"
#include "fault_sweep.h"
#include "files.h"
#include "in_child.h"
#include "internal/unique_fd.h"
#include "leftovers.h"
#include "log_recorder.h"
#include "log_ring.h"
#include "process_state.h"
#include "vexo_utils/Accelerometer.h"
#include "vexo_utils/CameraAttitude.h"
#include "vexo_utils/FSWatcher.h"
#include "vexo_utils/FdReaderWriter.h"
#include "vexo_utils/InterProcessMutex.h"
#include "vexo_utils/auth.h"
#include "vexo_utils/crashdumps.h"
#include "vexo_utils/exec.h"
#include "vexo_utils/file.h"
#include "vexo_utils/fileutils.h"
#include "vexo_utils/inode_listener.h"
#include "vexo_utils/iobuffer.h"
#include "vexo_utils/logread.h"
#include "vexo_utils/lowlevelsocket.h"
#include "vexo_utils/memorymap.h"
#include "vexo_utils/persistence.h"
#include "vexo_utils/process.h"
#include "vexo_utils/procfs.h"
#include "vexo_utils/scheduler.h"
#include "vexo_utils/shm_posix_utils.h"
#include "vexo_utils/shmem_utils.h"
#include "vexo_utils/sound.h"
#include "vexo_utils/startupcontrolfile.h"
#include "vexo_utils/string_utils.h"
#include "vexo_utils/terminate.h"
#include "vexo_utils/threadpriority.h"
#include "vexo_utils/timer.h"
#include "vexo_utils/timezone.h"
#include "vexo_utils/validation.h"

namespace vexo::utils {
namespace {

namespace fs = std::filesystem;
using namespace test;
using internal::UniqueFd;

const std::string kFolder = std::string(kSweepFolder) + "/";
const std::string kA = kFolder + "a";
const std::string kB = kFolder + "b";
constexpr char kZone[] = "/usr/share/zoneinfo/Zone";

// For what is said to be done: it has to be right as well.
bool holds(bool right) {
  EXPECT_TRUE(right);
  return true;
}

// A scenario that needs no setting up.
std::function<bool(const During&)> plain(const std::function<bool()>& part) {
  return [part](const During& during) { return during(part); };
}

// One whose part ends its process: by exit code 0 or 1 or by abort, whatever fails.
std::function<bool(const During&)> ending(const std::function<int()>& body) {
  return [body](const During& during) {
    siginfo_t end{};
    during([&] {
      const pid_t child = startChild(body);
      while (waitid(P_PID, static_cast<id_t>(child), &end, WEXITED) != 0 && errno == EINTR) {
      }
      return true;
    });
    EXPECT_TRUE(end.si_code == CLD_EXITED ? end.si_status <= 1 : end.si_status == SIGABRT);
    fs::remove_all("/tmp/crashdumps");
    return true;
  };
}

bool watchAndRun(const During& during) {
  const SignalMask restore;
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGUSR1, SIG_IGN);  // dropped when it is unblocked
  raise(SIGUSR1);
  const UniqueFd event(eventfd(1, EFD_CLOEXEC));
  return during([&] {
    Scheduler scheduler;
    if (!scheduler.Init()) return false;
    const Scheduler::IoShortCallback io = [](int, void*) { return true; };
    const auto call = [](void*) { return true; };
    const auto task = scheduler.AddIOTask(event.get(), EPOLLIN, io, nullptr);
    const auto timer = scheduler.AddTimerTask(0, Scheduler::TimerShortCallback(call), nullptr);
    const auto signal =
        scheduler.AddSignalHandler(SIGUSR1, Scheduler::SignalShortCallback(call), nullptr);
    return task != 0 && timer != 0 && signal != 0 && scheduler.WakeUp() &&
           scheduler.Service(1000) && scheduler.UpdateTimerTask(timer, 1, 1) &&
           scheduler.ChangeIOTaskMode(task, EPOLLPRI) && scheduler.RemoveIOTask(task) &&
           scheduler.RemoveIOTask(signal) && scheduler.Stop();
  });
}

bool seeChange(const During& during) {
  Scheduler scheduler;
  EXPECT_TRUE(scheduler.Init());
  FSWatcher watcher(&scheduler);
  FSWatcher alone(nullptr);
  const FSWatcher::Callback ignore = [](auto&&...) {};
  unsigned int id = 0;
  const bool started = during([&] {
    return watcher.start() && watcher.add(kFolder, IN_CREATE, ignore, &id) && alone.start() &&
           alone.add(kFolder, IN_CREATE, ignore, nullptr);
  });
  writeFile(kB, "");
  return started && during([&] {
           return scheduler.Service(100) && alone.service(1000) && watcher.remove(id) &&
                  watcher.stop() && alone.stop();
         });
}

bool hearOfChange(const During& during) {
  InodeListener listener;
  BareInodeNotifier notifier(nullptr);
  const bool started = during([&] { return listener.start(kFolder, "b", IN_CREATE, &notifier); });
  writeFile(kB, "");
  return started && during([&] {
           const bool served = listener.service(1000);
           listener.stop();
           return served;
         });
}

bool runToEnd(SysExec& runner) {
  if (!runner.start()) return false;
  while (runner.getState() == 1 && runner.service()) runner.waitReady(1000);
  const bool ended = runner.getState() == 34;
  runner.stop();
  return ended;
}

bool restart(const During& during) {
  SysExec sleeper;
  EXPECT_TRUE(sleeper.setExe("/bin/sleep").setArgs({"1000"}).start());
  const bool done = during([] {
    StartupControlFile file(kA, true);
    return file.AwaitProcRestart(
               "sleep", [] { return true; }, 1) == -1 &&
           errno == EINTR;
  });
  sleeper.stop();
  return done;
}

bool move(const During& during) {
  const bool done = during([] { return renameFile(kA.c_str(), kB.c_str(), AT_FDCWD, AT_FDCWD); });
  EXPECT_TRUE(readFile(kA) == "text" || readFile(kB) == "text");
  EXPECT_TRUE(!done || readFile(kB) == "text");
  return done;
}

bool transfer(const During& during) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
  const UniqueFd near(ends[0]);
  const UniqueFd far(ends[1]);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(write(far.get(), "text", 4), 4);
  return during([&] {
    IOBuffer buffer("test");
    buffer.SetFreeSpaceLimit(4096);
    int count = 0;
    sockaddr_in from{};
    return buffer.ReadFromFd(near.get(), 4, count) &&
           buffer.ReadFromTCPFd(near.get(), 100'000, count) &&
           buffer.ReadFromUDPFd(near.get(), count, from) && buffer.WriteToFd(far.get(), 4, count) &&
           buffer.EnsureSize(5 << 20) && buffer.IgnoreAll();
  });
}

bool reach(const During& during) {
  const UniqueFd server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  socklen_t size = sizeof address;
  EXPECT_EQ(listen(server.get(), 1), 0);
  getsockname(server.get(), reinterpret_cast<sockaddr*>(&address), &size);
  int error = 77;
  const bool done =
      during([&] { return hostReachable("127.0.0.1", ntohs(address.sin_port), error); });
  EXPECT_EQ(done, error == 0);
  return done;
}

bool setOptions(const During& during) {
  const UniqueFd tcp(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return during([&] {
    return SetFdOptions(tcp.get(), 0xFF000000) && SetSendTimeout(tcp.get(), 1, 0) &&
           SetRecvTimeout(tcp.get(), 1, 0);
  });
}

bool shareByPosix(const During& during) {
  return during([] {
    ShmpBuf_t* const writer = shmpInit("/faults", 4, 2);
    if (writer == nullptr) return false;
    ShmpBuf_t* const reader = shmpInit("/faults", 4, 1);
    char data[] = "text";
    shmpWrite(writer, data, 0, 4);
    bool done = reader != nullptr && shmpWriteTimed(writer, data, 0, 4, 1000);
    if (reader != nullptr) {
      shmpRead(reader, data, 0, 4);
      done = shmpReadTimed(reader, data, 0, 4, 1000) && done;
      shmpDestroy(reader, "/faults", 1);
    }
    shmpDestroy(writer, "/faults", 2);
    return done;
  });
}

bool readLog(const During& during) {
  LogRing ring(100, 100, 0);
  ring.write("text");
  const bool done = during([] {
    Logread log;
    if (!log.Initialize()) return false;
    log.ForEach([](const char*, unsigned int, void*) {}, nullptr);
    return log.SeekToTail();
  });
  const Fault fault = metFault();
  const bool mayBeLocked =
      fault.call != nullptr && std::string(fault.call) == "semop" && fault.error != EINTR;
  EXPECT_TRUE(ring.readers() == 0 || mayBeLocked);
  return done;
}

bool changeZone(const During& during) {
  writeFile("/etc/TZ", "old");
  fs::remove("/etc/localtime");
  fs::create_symlink("old", "/etc/localtime");
  const bool done = during([] { return setTimeZone(kZone); });
  const std::string rule = readFile("/etc/TZ");
  EXPECT_TRUE(rule == "UTC0\n" || (rule == "old" && !done)) << rule;
  EXPECT_EQ(fs::read_symlink("/etc/localtime"), done ? kZone : "old");
  std::vector<std::string> left;
  ::glob("/etc/[Tl][Zo]*-??????", left);
  for (const std::string& file : left) EXPECT_FALSE(fs::remove(file)) << file;
  return done;
}

// A verdict of yes is never a mistake.
std::function<bool(const During&)> verdict(const std::function<int(bool& ok)>& ask) {
  return [ask](const During& during) {
    bool ok = true;
    const bool done = during([&] { return ask(ok) == 0; });
    EXPECT_TRUE(done || !ok);
    return done && ok;
  };
}

const std::vector<Scenario> kScenarios = {
    {"scheduler", "tasks of all kinds", 0, watchAndRun},
    {"FSWatcher", "a change", 0, seeChange},
    {"inode_listener", "a change", kEndsOnEintr, hearOfChange},
    {"timer", "synchronization", kSilent, plain([] { return isTimeSyncedLately(1000); })},
    {"string_utils", "a host's address", kSilent,
     plain([] { return getHostByName("127.0.0.1") == "127.0.0.1"; })},
    {"string_utils", "names", 0,
     plain([] { return getValidHostname() == "camera" && !generateOsdTimeString("%H").empty(); })},
    {"string_utils", "a long text", kMayCrash,
     plain([] { return holds(format("%1000d", 7).size() == 1000); })},
    {"exec", "a filter", 0, plain([] {
       const std::string in = "text";
       std::string out;
       std::string err;
       return sysExec(&in, &out, &err, 0, 0, 0, "/bin/cat", 0) == 0 && holds(out == in);
     })},
    {"exec", "output to a descriptor", kSilent,
     [](const During& during) {
       const UniqueFd file(open(kB.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
       return during([&] {
         SysExec runner;
         runner.setExe("/bin/echo").setArgs({"text"}).setOut(file.get());
         return runToEnd(runner);
       });
     }},
    {"exec", "ended early", kSilent, plain([] {
       SysExec runner;
       return runner.setExe("/bin/sleep").setArgs({"1"}).start();
     })},
    {"exec", "a daemon", kSilent,
     [](const During& during) {
       SysExec runner;
       runner.setExe("/bin/true").setIn("").setOut(nullptr).setErr(nullptr).setDaemon(true);
       const auto before = openDescriptors();
       const bool started = during([&] { return runner.start(); });
       EXPECT_TRUE(started || openDescriptors() == before);  // without a stop, too
       return started;
     }},
    {"process", "ids", 0, plain([] {
       std::vector<int> pids;
       return pidof("faults_test", pids) && store_pid("faults");
     })},
    {"process", "random text", kSilent, plain([] {
       std::string text;
       return randomAlphaNumericString(text, 20);
     })},
    {"process", "signals", 0, plain([] {
       is_process_alive(1);
       return kill_process_by_pids({getpid()}, 0);
     })},
    {"procfs", "all", 0, plain([] {
       int pids[10];
       std::string text;
       std::vector<std::string> args;
       std::map<std::string, std::string> params;
       return getPidsByName("faults_test", pids, 10) >= 0 && ReadCommandLine(text, args) &&
              ReadKernelCommandLine(params) && getModuleDir(text);
     })},
    {"threadpriority", "process and thread", 0, plain([] {
       return SetRealTimePriority(0, -1, SCHED_OTHER) &&
              SetThreadRealTimePriority(static_cast<unsigned long>(pthread_self()), 0, SCHED_OTHER);
     })},
    {"FdReaderWriter", "a record", kSilent | kEndsOnEintr,
     [](const During& during) {
       FdReaderWriter writer(open(kA.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
       FdReaderWriter reader(open(kA.c_str(), O_RDONLY | O_CLOEXEC));
       int32_t value = 0;
       const bool done = during([&] {
         return writer.WriteI32(7, true) && reader.ReadI32(&value, true) && writer.Flush();
       });
       close(writer.GetFD());
       close(reader.GetFD());
       return done;
     }},
    {"file", "write, seek and read", 0, plain([] {
       File file;
       std::string text;
       int8_t first = 0;
       return file.Initialize(kB, FILE_OPEN_TRUNCATE, 0) && file.WriteString("text") &&
              file.Size() == 4 && file.SeekBegin() && file.PeekI8(&first) && holds(first == 't') &&
              file.SeekAhead(2) && file.SeekBehind(1) && file.SeekEnd() && file.SeekTo(1) &&
              !file.IsEOF() && file.ModificationMs() != 0 && file.ReadStringAll(text) &&
              text == "text";  // empty when the size cannot be told
     })},
    {"fileutils", "copy", 0,
     [](const During& during) {
       const bool done =
           during([] { return copyFile(kA.c_str(), kB.c_str(), AT_FDCWD, AT_FDCWD); });
       EXPECT_EQ(readFile(kA), "text");
       EXPECT_TRUE(!done || readFile(kB) == "text");
       return done;
     }},
    {"fileutils", "move", 0, move},
    {"fileutils", "create, look, sync, remove", kSilent, plain([] {
       const std::string folder = kFolder + "c/d";
       uint64_t number = 0;
       return mkdirP(folder, true, 0755, AT_FDCWD) && touchFile(folder + "/e", true, AT_FDCWD) &&
              syncFile(kA.c_str(), true, AT_FDCWD) && fileExists(kA.c_str(), true, AT_FDCWD) &&
              isFile(kA, AT_FDCWD) && isDirRW("/tmp") && fileSize(kA, number, AT_FDCWD) &&
              lastModTime(kA, number, AT_FDCWD) && rmRf(dirName(folder), AT_FDCWD) &&
              !isDir(folder, AT_FDCWD);
     })},
    {"fileutils", "read", 0, plain([] {
       std::vector<std::string> names;
       const auto isText = [](const std::string& line) { return line == "text"; };
       return readFromFile(kA, AT_FDCWD) == "text" && forEachLine(kA, isText, AT_FDCWD) &&
              listFolder(kFolder, names, AT_FDCWD) && holds(names.size() == 1) &&
              !normalizePath("x").empty() && !resolvePath("/tmp").empty();
     })},
    {"fileutils", "find, copy by program", kSilent, plain([] {
       std::vector<std::string> found;
       ::glob((kFolder + "*").c_str(), found);
       NamedFStream stream;
       return !found.empty() && !waitForFiles({kA, kB}, 5) && cpR(kA, kB) &&
              openTmpFStream(kFolder + "XXXXXX", stream) && (stream << "text" << std::flush);
     })},
    {"sound", "write and read", 0, plain([] {
       std::vector<uint8_t> samples;
       File file;
       uint16_t channels = 0;
       uint32_t rate = 0;
       uint32_t size = 0;
       return file.Initialize(kA, FILE_OPEN_TRUNCATE, 0) && writeWavHeader(file, 1, 8000) &&
              file.WriteI16(7, false) && finalizeWavHeader(file) &&
              readWavHeader(kA, channels, rate, size) && readWav(kA, samples, 1, 8000, 0) &&
              holds(samples == std::vector<uint8_t>{7, 0});
     })},
    {"crashdumps", "folder", kSilent,
     [](const During& during) {
       fs::create_directories("/tmp/crashdumps/app/0000000001/old");
       std::string folder;
       const bool done =
           during([&] { return CrashDumpHandler::GetCrashDumpFolder("app", folder); });
       EXPECT_EQ(folder.empty(), !done);
       fs::remove_all("/tmp/crashdumps");
       return done;
     }},
    {"crashdumps", "trace", kSilent,
     [](const During& during) {
       const UniqueFd file(open(kB.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
       return during([&] {
         PrintBacktrace(file.get());
         return true;
       });
     }},
    {"crashdumps", "a thread", kCallsOnly, plain([] {
       bool done = false;
       std::thread([&] { done = PrepareThreadForCrashDump(); }).join();
       return done;
     })},
    {"crashdumps", "a crash", kSilent | kCallsOnly, ending([] {
       if (!PrepareThreadForCrashDump() || !InstallCrashDumpHandler("app")) return 1;
       // The handler looks for the collector's end once a second.
       siginfo_t end{};
       beforeCall("waitpid", 1, [&] { waitid(P_ALL, 0, &end, WEXITED | WNOWAIT); });
       return kFailsAllocations ? raise(SIGABRT) : 1;  // sanitizers want more than a small stack
     })},
    {"memorymap", "own", kSilent, plain([] {
       MemoryMap map;
       return map.GetMemoryMap(0) && holds(map.begin() != map.end());
     })},
    {"persistence", "save and reboot", kSilent,
     plain([] { return enqueuePersist(true) && enqueueReboot(0); })},
    {"lowlevelsocket", "options", 0, setOptions},
    {"lowlevelsocket", "reachability", kSilent, reach},
    {"terminate", "announcement", kSilent, plain([] {
       int fd = -1;
       sockaddr_in address{};
       openUdp(fd, address, "127.0.0.1", 701);
       announce(fd, address, true, 7, "test");
       UniqueFd(fd).reset();
       return true;
     })},
    {"terminate", "reboot", kSilent | kCallsOnly,
     ending([]() -> int { announceTerminate("127.0.0.1", 701, 0, 0, 1, "test", true); })},
    {"iobuffer", "sockets and growth", kMayCrash, transfer},
    {"iobuffer", "a signal", kMayCrash, plain([] {
       InstallAllocStatsPrintSigHdlr(SIGUSR2);
       return true;
     })},
    {"startupcontrolfile", "owner and tenant", kSilent, plain([] {
       StartupControlFile owner(kA, true);
       StartupControlFile tenant(kA, false);
       startup_control_file_state_t state{};
       return owner.Init() == 0 && owner.Set(state) == 0 && tenant.Init() == 0 &&
              tenant.Get(state) == 0 && tenant.AwaitState(state, nullptr) == 0;
     })},
    {"startupcontrolfile", "restart", kSilent, restart},
    {"InterProcessMutex", "lock", kSilent, plain([] {
       InterProcessMutex mutex("faults", true);
       return mutex.acquire() == 0 && mutex.release() == 0;
     })},
    {"shm_posix_utils", "write and read", 0, shareByPosix},
    {"shmem_utils", "attach", 0,
     [](const During& during) {
       const int id = shmget(ftok("/etc", 0), 100, IPC_CREAT | 0600);
       const bool done = during([] { return attachShmem("/etc", 0) != nullptr; });
       shmctl(id, IPC_RMID, nullptr);
       return done;
     }},
    {"logread", "all messages", 0, readLog},
    {"auth", "password", kSilent,
     verdict([](bool& ok) { return authenticatePassword("alice", "secret", ok); })},
    {"auth", "token", kEndsOnEintr,
     verdict([](bool& ok) { return authenticateToken("good", ok); })},
    {"auth", "salt and lock", kSilent,
     plain([] { return !generateSecureSalt().empty() && lockPassword("alice"); })},
    {"timezone", "change", 0, changeZone},
    {"validation", "an address", kSilent,
     plain([] { return ipv4_address_valid("10.0.0.1", true, false); })},
    {"Accelerometer", "look-up", kOthersCalls,  // libudev
     [](const During& during) {
       Accelerometer chip("lis2dw12@18");
       std::string path;
       return during([&] { return chip.setSysfsPath("lis2dw12@18", path); });
     }},
    {"Accelerometer", "readings", 0,
     [](const During& during) {
       Accelerometer chip("lis2dw12@18");
       axis_t axes{};
       return during([&] { return chip.init() && chip.getXYZ(axes) && axes.x == 100; });
     }},
    {"CameraAttitude", "attitude", kOthersCalls, plain([] {
       CameraAttitude camera;
       camera.init([](auto&&...) { return true; });
       return camera.service() && camera.attitude() == Attitude::wall3;
     })},
};

// The undefined symbols come before those that the hash table is about.
std::set<std::string> importsOf(const char* library) {
  void* const handle = dlopen(library, RTLD_LAZY | RTLD_NOLOAD);
  const link_map* map = nullptr;
  EXPECT_EQ(dlinfo(handle, RTLD_DI_LINKMAP, &map), 0) << dlerror();
  dlclose(handle);
  std::map<long, const void*> table;
  for (const ElfW(Dyn)* entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
    table[static_cast<long>(entry->d_tag)] = reinterpret_cast<const void*>(entry->d_un.d_ptr);
  }
  const auto* const symbols = static_cast<const ElfW(Sym)*>(table[DT_SYMTAB]);
  const auto* const names = static_cast<const char*>(table[DT_STRTAB]);
  const uint32_t count = static_cast<const uint32_t*>(table[DT_GNU_HASH])[1];
  std::set<std::string> imports;
  for (uint32_t i = 1; i < count; ++i) imports.insert(names + symbols[i].st_name);
  return imports;
}

TEST(FaultShim, StandsInForAllThatCanFail) {
  std::set<std::string> known = shimmedCalls();
  std::istringstream list(readFile(VEXO_SOURCE_DIR "/tests/unshimmed_calls.txt"));
  for (std::string word; list >> word;) known.insert(word);
  const std::set<std::string> imports = importsOf("libvexo_utils.so.1");
  if (imports.count("__gcov_dump") == 1) GTEST_SKIP() << "what counts coverage imports more";
  for (const std::string& name : imports) {
    EXPECT_TRUE(regex_match("^$|^_Z|^__(asan|ubsan|tsan|aeabi)_", name, true) ||
                known.count(name) == 1)
        << name;
  }
}

TEST(FaultShim, ActsBeforeACall) {
  fs::create_directories(dirName(kZone));
  writeFile(kZone, "TZif\nUTC0\n");
  beforeCall("__clone", 1, [] { fs::remove(kZone); });  // known, and gone before tail(1) reads it
  EXPECT_TRUE(refused(setTimeZone(kZone), std::string(kZone) + " doesn't exists"));
}

// What the scenarios find in their world.
class Faults : public testing::TestWithParam<std::string> {
 protected:
  Faults() {
    describeCamera(R"({"name":"camera","hwaddr":"00:00:00:12","sysid":15140,"hwrev":1,
                       "features":{},"feature_ubifscfg":false})");
    for (const char* program : {"/bin/vexo_ipc_cli", "/usr/bin/reboot", "/usr/bin/passwd"}) {
      fs::remove(program);  // a link, maybe
      writeFile(program, "#!/bin/sh\n");
      fs::permissions(program, fs::perms::all);
    }
    setenv("PATH", kSweepFolder, 1);
    writeFile("/etc/last_timesync_monotonic_ts", std::to_string(nowMs()));
    writeFile("/etc/passwd", "alice:" + generateHash("secret", "$1$salt$") + ":1:1::/:/bin/sh\n");
    fs::create_directories(dirName(kZone));
    writeFile(kZone, "TZif\nUTC0\n");
    setenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0", 1);
    if (GetParam() == "auth") startDaemon();
    if (GetParam() == "Accelerometer" || GetParam() == "CameraAttitude") addSensor();
  }

 private:
  void startDaemon() {
    daemon.setExe(VEXO_BINARY_DIR "/platform/host/access_daemon");
    EXPECT_TRUE(daemon.setArgs({"--accept", "good"}).setOut(&output).start());
    while (output.empty() && daemon.service()) daemon.waitReady(1000);
    bool ok = false;  // glibc aborts when there is no memory to load what it needs for accounts
    EXPECT_EQ(authenticatePassword("alice", "secret", ok), 0);
  }

  static void addSensor() {
    host::coverSysfs();
    const host::Sensor sensor{"lis2dw12@18", "/sys/devices/iio:device0", {}};
    host::addSensors({sensor});
    host::show(sensor, {100, 0, -1000});
  }

  std::vector<char> output;
  SysExec daemon;
};

TEST_P(Faults, OfCalls) {
  sweepCalls(kScenarios, GetParam());
}

TEST_P(Faults, OfAllocations) {
  if (!kFailsAllocations) GTEST_SKIP() << "the sanitizers' own malloc cannot be made to fail";
  sweepAllocations(kScenarios, GetParam());
}

std::vector<std::string> facilities() {
  std::vector<std::string> names;
  for (const Scenario& scenario : kScenarios) names.emplace_back(scenario.facility);
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

INSTANTIATE_TEST_SUITE_P(All, Faults, testing::ValuesIn(facilities()),
                         [](const auto& facility) { return facility.param; });

}  // namespace
}  // namespace vexo::utils
