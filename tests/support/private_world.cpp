#include "private_world.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include <fcntl.h>
#include <linux/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vexo::test {

namespace {

namespace fs = std::filesystem;

// Any folder that every system has; what is mounted here while the world is made is gone after it.
constexpr char kScratch[] = "/mnt";

void must(bool done, const std::string& what) {
  if (!done) throw std::system_error(errno, std::generic_category(), what);
}

void write(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  file << text << std::flush;
  must(file.good(), path);
}

void mountTmpfs(const std::string& at, const std::string& options) {
  must(mount("tmpfs", at.c_str(), "tmpfs", 0, options.c_str()) == 0, at);
}

void bindMount(const std::string& from, const std::string& at, unsigned long flags = 0) {
  must(mount(from.c_str(), at.c_str(), nullptr, MS_BIND | flags, nullptr) == 0, at);
}

void makeReadOnly(const std::string& folder) {
  bindMount(folder, folder, MS_REC);
  // A user namespace must keep the flags that the outer mount had; a reader does not mind them.
  constexpr unsigned long kFlags = MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC;
  bindMount(folder, folder, kFlags);
}

void copyOnWrite(const std::string& folder) {
  std::string name = folder;
  std::replace(name.begin(), name.end(), '/', '.');
  const std::string upper = kScratch + ("/" + name) + ".upper";
  const std::string work = kScratch + ("/" + name) + ".work";
  fs::create_directory(upper);
  fs::create_directory(work);
  const std::string options = "lowerdir=" + folder + ",upperdir=" + upper + ",workdir=" + work;
  must(mount("overlay", folder.c_str(), "overlay", 0, options.c_str()) == 0, "overlay " + folder);
}

// A folder that is to be kept and lies in /tmp is put into the new one at the same place.
void makeTmp(const std::vector<std::string>& keep) {
  const auto parkedAt = [](std::size_t index) {
    return std::string(kScratch) + "/keep" + std::to_string(index);
  };
  const auto isHidden = [](const std::string& folder) { return folder.rfind("/tmp/", 0) == 0; };
  for (std::size_t i = 0; i < keep.size(); ++i) {
    if (!isHidden(keep[i])) continue;
    fs::create_directory(parkedAt(i));
    bindMount(keep[i], parkedAt(i), MS_REC);
  }
  mountTmpfs("/tmp", "mode=1777,size=256m");
  for (std::size_t i = 0; i < keep.size(); ++i) {
    if (!isHidden(keep[i])) continue;
    fs::create_directories(keep[i]);
    must(mount(parkedAt(i).c_str(), keep[i].c_str(), nullptr, MS_MOVE, nullptr) == 0, keep[i]);
  }
}

// The machine's /dev is one for all namespaces: a new one, with the few devices that programs need.
void makeDev() {
  const fs::path dev = fs::path(kScratch) / "dev";
  fs::create_directory(dev);
  mountTmpfs(dev, "size=64m,mode=755");
  for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
    write(dev / name, "");
    bindMount(fs::path("/dev") / name, dev / name);
  }
  for (const char* name : {"shm", "pts", "input"}) {
    fs::create_directory(dev / name);
    fs::permissions(dev / name, fs::perms::all | fs::perms::sticky_bit);
  }
  fs::create_symlink("/proc/self/fd", dev / "fd");
  must(mount(dev.c_str(), "/dev", nullptr, MS_MOVE, nullptr) == 0, "/dev");
}

void raiseLoopback() {
  const int any = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP;
  const bool up = any >= 0 && ioctl(any, SIOCSIFFLAGS, &request) == 0;
  close(any);
  must(up, "lo");
}

void furnish(const std::vector<std::string>& keep) {
  const std::string cwd = fs::current_path();
  must(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
  mountTmpfs(kScratch, "size=64m");
  // In a user namespace only the top folder of an overlay can be written to.
  for (const std::string folder : {"/etc", "/usr", "/usr/bin", "/var"}) copyOnWrite(folder);
  mountTmpfs("/run", "size=8m,mode=755");
  fs::create_directory("/run/lock");
  fs::permissions("/run/lock", fs::perms::all | fs::perms::sticky_bit);
  makeDev();
  makeTmp(keep);
  must(umount2(kScratch, MNT_DETACH) == 0, kScratch);
  must(mount("proc", "/proc", "proc", 0, nullptr) == 0, "/proc");
  makeReadOnly("/proc/sys");
  makeReadOnly("/sys");
  must(sethostname("camera", 6) == 0, "host name");
  raiseLoopback();
  if (chdir(cwd.c_str()) != 0) must(chdir("/") == 0, "/");
}

void enterNamespaces() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  const int own = CLONE_NEWNS | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWNET | CLONE_NEWPID;
  must(unshare(uid == 0 ? own : own | CLONE_NEWUSER) == 0, "unshare");
  if (uid == 0) return;
  write("/proc/self/setgroups", "deny");
  write("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
  write("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

int statusOf(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The first process of the world: makes it, then collects its orphans until `body` has ended.
[[noreturn]] void beInit(const std::vector<std::string>& keep, const std::function<int()>& body,
                         int ready) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    furnish(keep);
  } catch (const std::exception& failure) {
    const std::string reason = failure.what();
    const bool told = ::write(ready, reason.data(), reason.size()) > 0;
    _exit(told ? 0 : 1);
  }
  close(ready);
  const pid_t child = fork();
  if (child == 0) std::exit(body());  // not _exit: leak and coverage reports are written
  for (;;) {
    int status = 0;
    if (wait(&status) != child) continue;
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
  }
}

// What is written to the pipe before its last writer closes it.
std::string readAll(int pipe) {
  std::string text;
  std::array<char, 256> block{};
  for (;;) {
    const ssize_t got = read(pipe, block.data(), block.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return text;
    text.append(block.data(), static_cast<std::size_t>(got));
  }
}

}  // namespace

int runInPrivateWorld(const std::vector<std::string>& keep, const std::function<int()>& body,
                      const std::function<int(const std::string& reason)>& unavailable) {
  std::array<int, 2> trouble{};  // why the world could not be made, empty when it was
  if (pipe2(trouble.data(), O_CLOEXEC) != 0) return unavailable("pipe");
  // One process more than needed, so that the caller itself stays in its own namespaces.
  const pid_t outer = fork();
  if (outer < 0) return unavailable("fork");
  if (outer == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(trouble[0]);
    std::string reason = "fork";
    try {
      enterNamespaces();
      const pid_t init = fork();
      if (init == 0) beInit(keep, body, trouble[1]);
      if (init > 0) {
        close(trouble[1]);
        _exit(statusOf(init));
      }
    } catch (const std::exception& failure) {
      reason = failure.what();
    }
    const bool told = ::write(trouble[1], reason.data(), reason.size()) > 0;
    _exit(told ? 0 : 1);
  }
  close(trouble[1]);
  const std::string reason = readAll(trouble[0]);
  close(trouble[0]);
  const int status = statusOf(outer);
  return reason.empty() ? status : unavailable(reason);
}

}  // namespace vexo::test
