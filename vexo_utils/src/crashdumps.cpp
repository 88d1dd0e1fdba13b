#include "vexo_utils/crashdumps.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "internal/alternate_stack.h"
#include "internal/crashdump_folder.h"
#include "internal/files.h"
#include "internal/log.h"
#include "internal/retry.h"
#include "internal/unique_fd.h"

using vexo::utils::MemoryMap;
using vexo::utils::internal::isRegistered;
using vexo::utils::internal::makeCrashDumpFolder;
using vexo::utils::internal::openAt;
using vexo::utils::internal::registerAlternateStack;
using vexo::utils::internal::releaseAlternateStack;
using vexo::utils::internal::retryOnEintr;
using vexo::utils::internal::UniqueFd;

// Constructed by its initial value: it is there before any constructor of a program runs.
CrashDumpHandler gCrashDumper;

// ---- trace and map, for a crash and on demand: nothing is allocated or locked ----

namespace {

constexpr int kFrames = 128;

void writeText(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = retryOnEintr([&] { return write(fd, text.data(), text.size()); });
    if (written <= 0) {
      VEXO_LOG_ERROR_ERRNO("Fail to write fd: %d, errno: %d", fd, errno);
      return;
    }
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

// `frames` has room for kFrames.
void writeTraceAndMap(int fd, void** frames, const MemoryMap& map) {
  writeText(fd, "--- STACK TRACE ---\n");
  backtrace_symbols_fd(frames, backtrace(frames, kFrames), fd);
  writeText(fd, "--- MEMORY MAP ---\n");
  writeText(fd, map.text());
  writeText(fd, "\n\n");
}

}  // namespace

void PrintBacktrace() {
  PrintBacktrace(STDERR_FILENO);
}

void PrintBacktrace(FILE* stream) {
  PrintBacktrace(stream != nullptr ? fileno(stream) : -1);
}

void PrintBacktrace(int fd) {
  MemoryMap map;
  if (!map.GetMemoryMap(0)) VEXO_LOG_ERROR_ERRNO("Unable to read the memory map.");
  void* frames[kFrames];
  writeTraceAndMap(fd, frames, map);
}

// ---- installation ----

namespace {

constexpr int kSignals[] = {SIGSEGV, SIGABRT, SIGFPE, SIGILL, SIGBUS};

}  // namespace

bool InstallCrashDumpHandler(const char* app) {
  return gCrashDumper.prepare(app) && gCrashDumper.installActions();
}

bool PrepareThreadForCrashDump() {
  struct ThreadStack {
    ~ThreadStack() { releaseAlternateStack(stack); }
    void* stack = nullptr;
  };
  thread_local ThreadStack own;
  if (isRegistered(own.stack)) return true;
  own.stack = registerAlternateStack();
  if (own.stack == nullptr) VEXO_LOG_ERROR_ERRNO("Unable to allocate alternate signaling stack");
  return own.stack != nullptr;
}

// All that the handler will need. What was prepared before stays until the new is complete.
bool CrashDumpHandler::prepare(const char* app) {
  std::string path;
  const UniqueFd dumpFolder = makeCrashDumpFolder(app, path);
  if (!dumpFolder.valid() || path.size() >= sizeof folder) {
    VEXO_LOG_ERROR_ERRNO("Unable to compute the dump folder");
    return false;
  }
  UniqueFd stack =
      openAt(dumpFolder.get(), "stack", O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0666);
  // Where the standard streams are closed, the file must not sit in their place.
  if (stack.valid() && stack.get() <= STDERR_FILENO) {
    stack.reset(fcntl(stack.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  }
  struct stat st {};
  if (!stack.valid() || fstat(stack.get(), &st) != 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to create stack file to `%s`", (path + "/stack").c_str());
    return false;
  }
  if (!memoryMap.Reserve() || !useAlternateStack()) {
    VEXO_LOG_ERROR_ERRNO("Unable to allocate alternate signaling stack");
    return false;
  }
  // The first call in a process loads a library, which takes locks and a large stack.
  backtrace(frames, 1);

  std::snprintf(pid, sizeof pid, "%llu", static_cast<unsigned long long>(getpid()));
  path.copy(folder, path.size());
  folder[path.size()] = '\0';
  const UniqueFd before(ownsStackFile() ? stackFd : -1);
  stackFd = stack.release();
  stackDevice = st.st_dev;
  stackInode = st.st_ino;
  return true;
}

// A stack of another thread, which installed before, stays with that one.
bool CrashDumpHandler::useAlternateStack() {
  if (isRegistered(alternateStack)) return true;
  void* registered = registerAlternateStack();
  if (registered != nullptr) alternateStack = registered;
  return registered != nullptr;
}

bool CrashDumpHandler::installActions() {
  struct sigaction action {};
  action.sa_sigaction = DumpStackWrapper;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  for (int i = 0; i < kSignalCount; ++i) {
    struct sigaction before {};
    if (sigaction(kSignals[i], &action, &before) != 0) {
      VEXO_LOG_ERROR_ERRNO("sigaction failed");
      return false;
    }
    // Installed once more: what was there before the first time is still what is to be called.
    if (before.sa_sigaction != DumpStackWrapper) previous[i] = {kSignals[i], before};
  }
  return true;
}

CrashDumpHandler::~CrashDumpHandler() {
  // Set from now on, so that a handler that can still be called uses nothing of this.
  if (handling.exchange(true)) return;  // a crash: it ends the process, and needs all of this
  for (const PreviousAction& saved : previous) {
    struct sigaction current {};
    if (saved.signo == 0 || sigaction(saved.signo, nullptr, &current) != 0) continue;
    if (current.sa_sigaction == DumpStackWrapper) sigaction(saved.signo, &saved.action, nullptr);
  }
  releaseAlternateStack(alternateStack);
  if (ownsStackFile()) close(stackFd);
}

// ---- the handler ----

namespace {

constexpr char kCollector[] = "/usr/bin/crash-collect";
constexpr int kMaxPolls = 10;
constexpr timespec kPollInterval = {1, 0};
constexpr timespec kAfterKill = {0, 100'000'000};
constexpr unsigned kWatchdogSeconds = 13;  // longer than all polls

// sleep(3) in the form that says how much is left when a signal interrupts it.
void pauseFor(timespec left) {
  while (nanosleep(&left, &left) == -1 && errno == EINTR) {
  }
}

}  // namespace

void DumpStackWrapper(int signo, siginfo_t* info, void* context) {
  CrashDumpHandler& dumper = gCrashDumper;
  if (dumper.handling.exchange(true)) _exit(1);
  dumper.ensureEnd();
  VEXO_LOG_ERROR("Signal %d Crashdump %s", signo, dumper.folder);
  VEXO_LOG_ERROR("Sender pid: %u, uid: %u", static_cast<unsigned>(info->si_pid),
                 static_cast<unsigned>(info->si_uid));
  if (dumper.memoryMap.GetMemoryMap(0)) {
    dumper.writeStackFile(signo);
  } else {
    VEXO_LOG_ERROR_ERRNO("Unable to read the memory map.");
  }
  dumper.runCollector(signo);
  dumper.callPrevious(signo, info, context);
  _exit(1);
}

// Whatever happens from here on, the process ends, and by _exit.
void CrashDumpHandler::ensureEnd() {
  // The kernel has blocked the signal that is handled: another one like it, from a fault in here,
  // would end the process by that signal. All signals of the program wait: their handlers are not
  // made for this stack, and a log whose reader is gone must not raise SIGPIPE.
  sigset_t mask;
  sigfillset(&mask);
  for (const int handled : kSignals) sigdelset(&mask, handled);
  sigdelset(&mask, SIGALRM);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  // Of a thread that is being cancelled, the first write would end the thread, and only it.
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);

  struct sigaction end {};
  end.sa_handler = [](int) { _exit(1); };
  end.sa_flags = SA_ONSTACK;
  sigaction(SIGALRM, &end, nullptr);
  alarm(kWatchdogSeconds);
}

// False when somebody has closed the descriptor, and it is perhaps another file's now.
bool CrashDumpHandler::ownsStackFile() const {
  struct stat st {};
  return fstat(stackFd, &st) == 0 && st.st_dev == stackDevice && st.st_ino == stackInode;
}

void CrashDumpHandler::writeStackFile(int signo) {
  if (!ownsStackFile()) stackFd = -1;
  constexpr char kDigits[] = "0123456789ABCDEF";
  char* digit = signalText + sizeof signalText;
  for (auto rest = static_cast<unsigned>(signo); digit > signalText + 2; rest /= 16) {
    *--digit = kDigits[rest % 16];
  }
  std::memcpy(signalText, "0x", 2);

  writeText(stackFd, "SIGNAL: ");
  writeText(stackFd, {signalText, sizeof signalText});
  writeText(stackFd, "\n\n");
  writeTraceAndMap(stackFd, frames, memoryMap);
  if (close(stackFd) != 0) VEXO_LOG_ERROR_ERRNO("Fail to close stack file. errno: %d", errno);
}

void CrashDumpHandler::runCollector(int signo) {
  char* digit = furtherArgument + sizeof furtherArgument - 1;
  for (auto rest = static_cast<unsigned>(signo); rest > 0; rest /= 10) {
    *--digit = static_cast<char>('0' + rest % 10);
  }

  // fork(2) of the C library takes locks, of malloc among others, and may never come back.
  collector = _Fork();
  if (collector == 0) {
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    execl(kCollector, kCollector, "app", pid, folder, digit, static_cast<char*>(nullptr));
    _exit(1);
  }
  if (collector < 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to fork");
    return;
  }
  for (polls = 0; polls < kMaxPolls; ++polls) {
    if (collectorEnded()) return;
    pauseFor(kPollInterval);
  }
  kill(collector, SIGKILL);
  pauseFor(kAfterKill);
  collectorEnded();
}

// Also when somebody else has waited for it, or nobody may.
bool CrashDumpHandler::collectorEnded() const {
  return waitpid(collector, nullptr, WNOHANG) != 0;
}

// In the form that it was installed in; a default or ignored action is no function.
void CrashDumpHandler::callPrevious(int signo, siginfo_t* info, void* context) const {
  for (const PreviousAction& saved : previous) {
    if (saved.signo != signo) continue;
    const struct sigaction& action = saved.action;
    if (action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN) return;
    if ((action.sa_flags & SA_SIGINFO) != 0) {
      action.sa_sigaction(signo, info, context);
    } else {
      action.sa_handler(signo);
    }
  }
}
