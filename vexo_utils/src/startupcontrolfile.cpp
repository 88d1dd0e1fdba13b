#include "vexo_utils/startupcontrolfile.h"

#include <cerrno>
#include <cstdio>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "internal/files.h"
#include "internal/log.h"
#include "internal/retry.h"
#include "internal/unique_fd.h"
#include "vexo_utils/InterProcessMutex.h"
#include "vexo_utils/process.h"

using vexo::utils::internal::openAt;
using vexo::utils::internal::retryOnEintr;
using vexo::utils::internal::UniqueFd;

namespace vexo::utils {

namespace {

constexpr long kPollUs = 100'000;

// Whole, whatever signals arrive: a forced shutdown is timed by the number of looks.
void waitForNextLook() {
  timespec left{0, kPollUs * 1000};
  retryOnEintr([&] { return nanosleep(&left, &left); });
}

bool isCancelled(bool (*cancelled)()) {
  return cancelled != nullptr && cancelled();
}

// 1; 0 when the file is empty; -1 with errno.
ssize_t readState(int fd, startup_control_file_state_t& state) {
  unsigned char byte = 0;
  const ssize_t got = retryOnEintr([&] { return pread(fd, &byte, 1, 0); });
  if (got == 1) state = static_cast<startup_control_file_state_t>(byte);
  return got;
}

// 0 when there is none; -1 with errno, ERANGE when there are several.
int findSingle(const std::string& processName) {
  std::vector<int> pids;
  if (!pidof(processName, pids)) return -1;
  if (pids.empty()) return 0;
  if (pids.size() == 1) return pids.front();
  errno = ERANGE;
  return -1;
}

void shutDown(const char* how, const std::string& processName, int pid, int signal) {
  VEXO_LOG_INFO("%s shutdown `%s` with PID %d", how, processName.c_str(), pid);
  if (kill(pid, signal) == 0) return;
  VEXO_LOG_WARNING_ERRNO("%s shutdown `%s` with PID %d might have failed.", how,
                         processName.c_str(), pid);
}

}  // namespace

StartupControlFile::StartupControlFile(const std::string& file, bool isOwner)
    : path(file), owner(isOwner) {}

StartupControlFile::~StartupControlFile() {
  Close();
}

int StartupControlFile::Init() {
  if (descriptor >= 0) return 0;
  return owner ? InitOwner() : InitTenant();
}

int StartupControlFile::InitOwner() {
  Close();
  constexpr int kFlags = O_RDWR | O_CREAT | O_TRUNC | O_SYNC;
  descriptor = openAt(AT_FDCWD, path.c_str(), kFlags, 0666).release();
  return descriptor < 0 ? -1 : 0;
}

int StartupControlFile::InitTenant() {
  Close();
  UniqueFd file;
  for (;;) {
    file = openAt(AT_FDCWD, path.c_str(), O_RDWR | O_SYNC);
    if (file.valid()) break;
    if (errno != ENOENT) return -1;
    waitForNextLook();
  }
  for (;;) {
    struct stat status {};
    if (fstat(file.get(), &status) != 0) return -1;
    if (status.st_size >= 1) break;
    waitForNextLook();
  }
  descriptor = file.release();
  return 0;
}

int StartupControlFile::Set(startup_control_file_state_t state) {
  if (descriptor < 0) {
    errno = EBADF;
    return -1;
  }
  const unsigned char byte = state;
  if (retryOnEintr([&] { return pwrite(descriptor, &byte, 1, 0); }) != 1) return -1;
  return retryOnEintr([&] { return fsync(descriptor); });
}

int StartupControlFile::Get(startup_control_file_state_t& state) {
  if (descriptor < 0) {
    errno = EBADF;
    return -1;
  }
  for (;;) {
    const ssize_t got = readState(descriptor, state);
    if (got != 0) return got < 0 ? -1 : 0;
    waitForNextLook();
  }
}

int StartupControlFile::AwaitState(startup_control_file_state_t target, bool (*cancelled)()) {
  VEXO_LOG_INFO("Wait for target state 0x%02x (%c)... ", target, target);
  for (;;) {
    if (isCancelled(cancelled)) {
      errno = EINTR;
      return -1;
    }
    // Not Get, which does not ask `cancelled` while the file is empty.
    startup_control_file_state_t state{};
    const ssize_t got = readState(descriptor, state);
    if (got < 0) return -1;
    if (got == 1 && state == target) {
      VEXO_LOG_INFO("Target state 0x%02x (%c) entered", target, target);
      return 0;
    }
    waitForNextLook();
  }
}

int StartupControlFile::AwaitProcRestart(const std::string& processName, bool (*cancelled)(),
                                         unsigned int forceAfterSeconds) {
  const int pid = findSingle(processName);
  if (pid < 0) return -1;
  if (pid != 0) shutDown("Gracefully", processName, pid, SIGTERM);
  const unsigned long long forceAfterUs = forceAfterSeconds * 1'000'000ULL;
  for (unsigned long long elapsedUs = kPollUs;; elapsedUs += kPollUs) {
    if (isCancelled(cancelled)) {
      errno = EINTR;
      return -1;
    }
    const int found = findSingle(processName);
    if (found < 0) return -1;
    if (found != 0 && found != pid) return 0;
    waitForNextLook();
    // Met once at most, as 0 is never met: time only grows.
    if (elapsedUs == forceAfterUs) shutDown("Force", processName, pid, SIGKILL);
  }
}

void StartupControlFile::Close() {
  UniqueFd(std::exchange(descriptor, -1)).reset();
}

}  // namespace vexo::utils

// ---- the mutex ----

InterProcessMutex::InterProcessMutex(const char* name, bool waits) : blocking(waits), path{} {
  lock.l_whence = SEEK_SET;
  lock.l_start = 0;
  lock.l_len = 0;  // the whole file
  lock.l_pid = getpid();
  if (name == nullptr) return;  // open(2) refuses the empty path
  // A name that is too long is cut, which is what the return value would tell.
  (void)std::snprintf(path, sizeof path, "/var/lock/%s.lock", name);
}

InterProcessMutex::~InterProcessMutex() {
  release();
  UniqueFd(std::exchange(descriptor, -1)).reset();
}

int InterProcessMutex::acquire() {
  if (acquired) return -1;
  if (descriptor < 0) descriptor = openAt(AT_FDCWD, path, O_WRONLY | O_CREAT, 0666).release();
  if (descriptor < 0) return -2;
  lock.l_type = F_WRLCK;
  if (fcntl(descriptor, blocking ? F_SETLKW64 : F_SETLK64, &lock) != 0) return -3;
  acquired = true;
  return 0;
}

int InterProcessMutex::release() {
  if (!acquired) return 0;
  lock.l_type = F_UNLCK;
  if (fcntl(descriptor, F_SETLK64, &lock) != 0) return -1;
  acquired = false;
  // Linux has freed the descriptor even when this fails.
  return close(std::exchange(descriptor, -1)) == 0 ? 0 : -2;
}

bool InterProcessMutex::isAcquired() const {
  return acquired;
}
