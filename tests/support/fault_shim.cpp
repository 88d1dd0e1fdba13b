#include "fault_shim.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

#include <dlfcn.h>
#include <glob.h>
#include <netdb.h>
#include <regex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "vexo/log.h"

// Built without sanitizers: it runs before they are ready, and in clones of the process, of which
// they must keep no books.

namespace vexo::test {

#ifdef VEXO_SANITIZED
const bool kFailsAllocations = false;
#else
const bool kFailsAllocations = true;
#endif

namespace {

enum How {
  kMinusOne,   // -1 with errno
  kNull,       // null with errno
  kNumber,     // by its result
  kRelease,    // as the first, but only after it was done, as nobody could do it again
  kWrongName,  // as it does for a name that is none
  kNeverDone   // as the first; it is not done in any case
};

constexpr long kManyTimes = 20;

struct Plan {
  std::atomic<bool> open;
  std::atomic<long> calls;
  std::atomic<long> allocations;
  std::atomic<long> repeats;
  long nth;
  int variant;
  long nthAllocation;
  bool noMemory;
  Fault met;
};

// Children of the process count too.
Plan& plan() {
  static void* const shared =
      mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return *static_cast<Plan*>(shared);
}
Plan* active = nullptr;  // the plan, once there is one

struct {
  std::string name;
  long left = 0;
  std::function<void()> run;
  bool running = false;
} hook;

std::atomic<int> mapped{0};

void runHook(std::string_view name) {
  if (hook.running || (name != hook.name && name != hook.name + "64")) return;
  if (--hook.left != 0) return;
  const int savedErrno = errno;
  const std::function<void()> run = std::move(hook.run);  // it may ask for another one
  hook.running = true;
  run();
  hook.running = false;
  errno = savedErrno;
}

// Arguments and results are passed on as words, so that one form fits all calls. A result of 64
// bits takes two of them on ARM; arguments of 64 bits lie there as their caller has put them.
using Word = long;
using Result = long long;
using Function = Result (*)(Word, Word, Word, Word, Word, Word, Word, Word);

struct Call {
  const char* name;
  How how;
  const int* errors;
  int count;  // of errors
};

bool is(const Call& call, std::string_view name) {
  return name == call.name;
}

// The errors that it can give with these arguments.
void dropImpossible(Call& call, Word first, Word third) {
  if (is(call, "syscall") && first != SYS_pidfd_open) call.count = 0;
  if (is(call, "sigaltstack")) {
    // To ask and to switch off is always possible. Sanitizers call it for themselves, too.
    const auto* const stack = reinterpret_cast<const stack_t*>(first);
    if (stack == nullptr || stack->ss_flags != 0 || !kFailsAllocations) call.count = 0;
  }
  if (is(call, "waitpid") && (third & WNOHANG) != 0) {  // does not wait, so for no EINTR
    ++call.errors;
    --call.count;
  }
}

// The error that the call is to fail with; 0: none.
int planned(const Call& call) {
  if (call.count == 0) return 0;
  if (hook.left > 0) runHook(call.name);
  if (active == nullptr || !active->open || hook.running) return 0;
  Plan& now = *active;
  if (now.repeats > 0 && is(call, now.met.call)) {
    --now.repeats;
    return EINTR;
  }
  if (++now.calls != now.nth) return 0;
  const int last = call.errors[0] == EINTR ? call.count : call.count - 1;
  const int variant = std::min(now.variant, last);  // it may be another call than the last time
  const bool again = variant == call.count;
  now.met = {call.name, again ? EINTR : call.errors[variant], call.how != kNumber, again,
             variant == last};
  now.repeats = again ? kManyTimes : 0;
  return now.met.error;
}

// regcomp(3) of glibc 2.36 frees twice what it has when some of its allocations fail.
bool isCompiling = false;

void countMapping(const Call& call, Result result, Word flags) {
  if (static_cast<int>(result) == -1) return;  // no page begins at the other -1s
  if ((is(call, "mmap") || is(call, "mmap64")) && (flags & MAP_FIXED) == 0) ++mapped;
  if (is(call, "munmap")) --mapped;
}

Result standIn(Call call, Function& real, Word a, Word b, Word c, Word d, Word e, Word f, Word g,
               Word h) {
  if (real == nullptr) real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, call.name));
  dropImpossible(call, a, c);
  const int error = planned(call);
  if (error != 0 && call.how == kWrongName) a = reinterpret_cast<Word>("none");
  if (call.how != kNeverDone && (error == 0 || call.how == kRelease || call.how == kWrongName)) {
    isCompiling = is(call, "regcomp");
    const Result result = real(a, b, c, d, e, f, g, h);
    isCompiling = false;
    countMapping(call, result, d);
    if (error == 0 || call.how == kWrongName) return result;
  }
  if (call.how == kNumber) return error;
  errno = error != 0 ? error : ENOSYS;
  return call.how == kNull ? 0 : -1;
}

}  // namespace

// The call, how it tells of a failure, the errors of its manual page, EINTR first.
#define CALLS(X)                                                                       \
  X(__clone, kMinusOne, EAGAIN, ENOMEM, ENOSYS)                                        \
  X(__realpath_chk, kNull, EACCES, EIO, ENAMETOOLONG, ENOENT)                          \
  X(_Fork, kMinusOne, EAGAIN, ENOMEM)                                                  \
  X(access, kMinusOne, EACCES, ENOENT, EIO)                                            \
  X(close, kRelease, EINTR, EIO, ENOSPC)                                               \
  X(connect, kMinusOne, EINTR, ECONNREFUSED, ENETUNREACH, ETIMEDOUT)                   \
  X(dlopen, kWrongName, ENOENT)                                                        \
  X(epoll_create1, kMinusOne, EMFILE, ENFILE, ENOMEM)                                  \
  X(epoll_ctl, kMinusOne, ENOMEM, ENOSPC)                                              \
  X(epoll_wait, kMinusOne, EINTR)                                                      \
  X(execl, kMinusOne, ENOENT, ENOMEM, EACCES)                                          \
  X(faccessat, kMinusOne, EACCES, ENOENT, EIO)                                         \
  X(fchmod, kMinusOne, EPERM, EIO, EROFS)                                              \
  X(fchown, kMinusOne, EPERM, EIO, EROFS)                                              \
  X(fcntl64, kMinusOne, EMFILE, ENOLCK, EPERM)                                         \
  X(fdopendir, kNull, ENOMEM)                                                          \
  X(fopen64, kNull, EACCES, EMFILE, ENOMEM)                                            \
  X(fstat64, kMinusOne, ENOMEM, EIO)                                                   \
  X(fstatat64, kMinusOne, EACCES, ENOENT, ENOMEM)                                      \
  X(fsync, kMinusOne, EINTR, EIO, ENOSPC)                                              \
  X(ftok, kMinusOne, EACCES, ENOENT)                                                   \
  X(ftruncate64, kMinusOne, EINTR, EFBIG, EIO)                                         \
  X(getaddrinfo, kNumber, EAI_AGAIN, EAI_MEMORY, EAI_SYSTEM)                           \
  X(getcwd, kNull, EACCES, ENOENT, ENOMEM)                                             \
  X(gethostbyname_r, kNumber, ENOMEM, EAGAIN)                                          \
  X(gethostname, kMinusOne, ENAMETOOLONG)                                              \
  X(getpwent, kNull, EINTR, EIO, EMFILE, ENOMEM)                                       \
  X(getrandom, kMinusOne, EINTR, EAGAIN, ENOSYS)                                       \
  X(getsockopt, kMinusOne, ENOPROTOOPT)                                                \
  X(glob64, kNumber, GLOB_NOSPACE, GLOB_ABORTED)                                       \
  X(inotify_add_watch, kMinusOne, EACCES, ENOENT, ENOMEM, ENOSPC)                      \
  X(inotify_init1, kMinusOne, EMFILE, ENFILE, ENOMEM)                                  \
  X(inotify_rm_watch, kMinusOne, EBADF, EINVAL)                                        \
  X(ioctl, kMinusOne, ENOTTY)                                                          \
  X(kill, kRelease, EPERM, ESRCH)                                                      \
  X(lseek64, kMinusOne, ESPIPE, EOVERFLOW)                                             \
  X(madvise, kMinusOne, EAGAIN, EINVAL, ENOMEM)                                        \
  X(mkdirat, kMinusOne, EACCES, EEXIST, ENOSPC, EROFS)                                 \
  X(mkostemp64, kMinusOne, EACCES, EEXIST, EMFILE, ENOSPC)                             \
  X(mmap, kMinusOne, EACCES, EAGAIN, ENOMEM)                                           \
  X(mmap64, kMinusOne, EACCES, EAGAIN, ENOMEM)                                         \
  X(mprotect, kMinusOne, ENOMEM)                                                       \
  X(mremap, kMinusOne, EAGAIN, ENOMEM)                                                 \
  X(munmap, kRelease, ENOMEM)                                                          \
  X(nanosleep, kMinusOne, EINTR)                                                       \
  X(newlocale, kNull, ENOENT, ENOMEM)                                                  \
  X(open64, kMinusOne, EINTR, EACCES, EMFILE, ENFILE, ENOENT, ENOMEM, ENOSPC, EROFS)   \
  X(openat64, kMinusOne, EINTR, EACCES, EMFILE, ENFILE, ENOENT, ENOMEM, ENOSPC, EROFS) \
  X(opendir, kNull, EACCES, EMFILE, ENFILE, ENOENT, ENOMEM)                            \
  X(pipe2, kMinusOne, EMFILE, ENFILE)                                                  \
  X(poll, kMinusOne, EINTR, ENOMEM)                                                    \
  X(ppoll, kMinusOne, EINTR, ENOMEM)                                                   \
  X(pread64, kMinusOne, EINTR, EAGAIN, EIO)                                            \
  X(pthread_rwlock_clockrdlock, kNumber, EAGAIN, EDEADLK, ETIMEDOUT)                   \
  X(pthread_rwlock_clockwrlock, kNumber, EDEADLK, ETIMEDOUT)                           \
  X(pthread_rwlock_rdlock, kNumber, EAGAIN, EDEADLK)                                   \
  X(pthread_rwlock_wrlock, kNumber, EDEADLK)                                           \
  X(pthread_setschedparam, kNumber, EPERM, ESRCH)                                      \
  X(pwrite64, kMinusOne, EINTR, EIO, ENOSPC)                                           \
  X(read, kMinusOne, EINTR, EAGAIN, EIO)                                               \
  X(readdir64, kNull, EIO)                                                             \
  X(readlink, kMinusOne, EACCES, EIO, ENOENT)                                          \
  X(realpath, kNull, EACCES, EIO, ENAMETOOLONG, ENOENT)                                \
  X(reboot, kNeverDone, EPERM)                                                         \
  X(recv, kMinusOne, EINTR, EAGAIN, ECONNREFUSED, ENOMEM)                              \
  X(recvfrom, kMinusOne, EINTR, EAGAIN, ECONNREFUSED, ENOMEM)                          \
  X(regcomp, kNumber, REG_ESPACE)                                                      \
  X(rename, kMinusOne, EACCES, EBUSY, EIO, ENOSPC)                                     \
  X(renameat, kMinusOne, EACCES, EBUSY, EIO, ENOSPC, EXDEV)                            \
  X(scandirat64, kMinusOne, ENOMEM, EMFILE)                                            \
  X(sched_get_priority_max, kMinusOne, EINVAL)                                         \
  X(sched_setscheduler, kMinusOne, EPERM, ESRCH)                                       \
  X(select, kMinusOne, EINTR, ENOMEM)                                                  \
  X(semget, kMinusOne, EACCES, ENOENT, ENOSPC)                                         \
  X(semop, kMinusOne, EINTR, EACCES, EIDRM, ENOMEM)                                    \
  X(sendto, kMinusOne, EINTR, EAGAIN, EACCES, ECONNREFUSED, ENOBUFS)                   \
  X(setsockopt, kMinusOne, ENOPROTOOPT, EDOM)                                          \
  X(shm_open, kMinusOne, EACCES, EMFILE, ENAMETOOLONG, ENOENT)                         \
  X(shmat, kMinusOne, EACCES, EIDRM, ENOMEM)                                           \
  X(shmctl, kMinusOne, EACCES, EIDRM)                                                  \
  X(shmdt, kRelease, EINVAL)                                                           \
  X(shmget, kMinusOne, EACCES, ENFILE, ENOENT, ENOMEM)                                 \
  X(sigaction, kMinusOne, EINVAL)                                                      \
  X(sigaltstack, kMinusOne, ENOMEM)                                                    \
  X(signalfd, kMinusOne, EMFILE, ENFILE, ENODEV, ENOMEM)                               \
  X(sigtimedwait, kMinusOne, EINTR, EAGAIN)                                            \
  X(socket, kMinusOne, EACCES, EMFILE, ENFILE, ENOBUFS)                                \
  X(splice, kMinusOne, EINTR, EAGAIN, EINVAL, ENOMEM, ESPIPE)                          \
  X(statvfs64, kMinusOne, EINTR, EACCES, EIO, ENOMEM)                                  \
  X(symlink, kMinusOne, EACCES, EEXIST, ENOSPC, EROFS)                                 \
  X(syscall, kMinusOne, EMFILE, ENFILE, ENODEV, ENOMEM, ENOSYS)                        \
  X(system, kMinusOne, EAGAIN, ENOMEM)                                                 \
  X(timerfd_create, kMinusOne, EMFILE, ENFILE, ENODEV, ENOMEM)                         \
  X(timerfd_settime, kMinusOne, ECANCELED)                                             \
  X(unlink, kMinusOne, EACCES, EBUSY, EIO, EROFS)                                      \
  X(unlinkat, kMinusOne, EACCES, EBUSY, EIO, EROFS)                                    \
  X(usleep, kMinusOne, EINTR)                                                          \
  X(utimensat, kMinusOne, EACCES, ENOENT, EPERM, EROFS)                                \
  X(waitpid, kMinusOne, EINTR, ECHILD)                                                 \
  X(write, kMinusOne, EINTR, EAGAIN, EFBIG, EIO, ENOSPC, EPIPE)

#define SHIM(call, how, ...)                                                                    \
  extern "C" Result shim_##call(Word, Word, Word, Word, Word, Word, Word, Word) __asm__(#call); \
  extern "C" __attribute__((visibility("default")))                                             \
  Result shim_##call(Word a, Word b, Word c, Word d, Word e, Word f, Word g, Word h) {          \
    static Function real = nullptr;                                                             \
    static constexpr int kErrors[] = {__VA_ARGS__};                                             \
    return standIn({#call, how, kErrors, std::size(kErrors)}, real, a, b, c, d, e, f, g, h);    \
  }
CALLS(SHIM)

std::set<std::string> shimmedCalls() {
#define NAME(call, ...) #call,
  return {CALLS(NAME)};
}

// ---- allocations ----

#ifndef VEXO_SANITIZED

namespace {

bool isOutOfMemory() {
  if (active == nullptr || !active->open || isCompiling) return false;
  if (++active->allocations != active->nthAllocation) return false;
  active->noMemory = true;
  errno = ENOMEM;
  return true;
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);

void* malloc(std::size_t size) {
  return isOutOfMemory() ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  return isOutOfMemory() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* memory, std::size_t size) {
  return isOutOfMemory() ? nullptr : __libc_realloc(memory, size);
}

}  // extern "C"
#pragma GCC visibility pop

#endif

// ---- what tests call ----

void planFault(long nth, int variant) {
  planNoMemory(0);
  active->nth = nth;
  active->variant = variant;
}

void planNoMemory(long nth) {
  Plan& fresh = plan();
  fresh.calls = fresh.allocations = fresh.repeats = 0;
  fresh.nth = 0;
  fresh.variant = 0;
  fresh.nthAllocation = nth;
  fresh.noMemory = false;
  fresh.met = {};
  active = &fresh;
}

Fault metFault() {
  return active->met;
}

bool metNoMemory() {
  return active->noMemory;
}

void openWindow() {
  active->open = true;
}

void closeWindow() {
  active->open = false;
}

void beforeCall(const std::string& name, long nth, std::function<void()> fn) {
  hook.name = name;
  hook.run = std::move(fn);
  hook.left = nth;
}

int mappings() {
  return mapped;
}

}  // namespace vexo::test

__attribute__((visibility("default"))) void forceCrash() {
  throw vexo::test::ForcedCrash();
}
