#include "internal/spawn.h"

#include <cerrno>

#include <fcntl.h>
#include <linux/close_range.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

// clone(2) by the C library's own name for it: what wraps the public one (the thread sanitizer
// does) keeps books of forks in the child, which here are the parent's.
extern "C" int plainClone(int (*run)(void*), void* stack, int flags, void* argument,
                          ...) __asm__("__clone");

namespace vexo::utils::internal {

namespace {

// Code that runs in the child while it shares the parent's memory. Sanitizers would keep books
// there of what the child does, in the name of a parent that never returns from it.
#define IN_CHILD __attribute__((no_sanitize("address", "thread", "undefined")))

constexpr std::size_t kStackSize = 65536;
constexpr int kLastSwept = 255;
constexpr std::size_t kSignalSetSize = 8;  // the kernel's, not sigset_t's
constexpr int kSignals = 64;

// What the child reads; lives on the parent's stack.
struct Child {
  const SpawnPlan& plan;
  const sigset_t& callersMask;
  char* daemonStack;  // its top; null: the daemon is made by fork
};

// The kernel itself: the C library's wrappers may be interposed by something that allocates or
// locks.
template <typename... Arguments>
IN_CHILD inline long call(long number, Arguments... arguments) {
  return syscall(number, arguments...);
}

[[noreturn]] IN_CHILD void leave(int status) {
  for (;;) call(SYS_exit_group, status);
}

// A handler of the parent must not run here. Ignored signals stay ignored, as execve keeps them.
IN_CHILD void dropHandlers() {
  for (int signo = 1; signo <= kSignals; ++signo) {
    struct KernelAction {
      void (*handler)(int);
      unsigned long flags;
      void (*restorer)();
      char mask[kSignalSetSize];
    } action = {};
    if (call(SYS_rt_sigaction, signo, nullptr, &action, kSignalSetSize) != 0) continue;
    if (action.handler == SIG_DFL || action.handler == SIG_IGN) continue;
    action = {};
    call(SYS_rt_sigaction, signo, &action, nullptr, kSignalSetSize);
  }
}

IN_CHILD void closeAbove2() {
  if (call(SYS_close_range, 3U, static_cast<unsigned>(kLastSwept), 0U) == 0) return;
  for (int fd = 3; fd <= kLastSwept; ++fd) call(SYS_close, fd);
}

[[noreturn]] IN_CHILD void becomeProgram(const Child& child) {
  const SpawnPlan& plan = child.plan;
  long null = call(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR);
  if (null < 0) leave(kNullFailed);
  // Where the parent has closed its own standard streams, it must not sit in their place.
  if (null <= 2) null = call(SYS_fcntl, null, F_DUPFD, 3);
  if (null < 0) leave(kNullFailed);

  constexpr int kFailures[] = {kInFailed, kOutFailed, kErrFailed};
  for (int stream = 0; stream <= 2; ++stream) {
    const long end = plan.streams[stream] >= 0 ? plan.streams[stream] : null;
    if (call(SYS_dup3, end, stream, 0) < 0) leave(kFailures[stream]);
  }
  closeAbove2();
  dropHandlers();
  const sigset_t* mask = plan.mask != nullptr ? plan.mask : &child.callersMask;
  call(SYS_rt_sigprocmask, SIG_SETMASK, mask, nullptr, kSignalSetSize);
  call(SYS_execve, plan.exe, plan.argv, plan.envp);
  leave(kExecFailed);
}

IN_CHILD int runProgram(void* argument) {
  becomeProgram(*static_cast<const Child*>(argument));
}

IN_CHILD int runDaemon(void* argument) {
  call(SYS_setsid);
  return runProgram(argument);
}

// The child on a stack that ends at `top`; without one, by fork.
IN_CHILD pid_t cloneChild(int (*run)(void*), char* top, const Child& child) {
  void* argument = const_cast<Child*>(&child);
  if (top != nullptr) return plainClone(run, top, CLONE_VM | CLONE_VFORK | SIGCHLD, argument);
  const pid_t pid = _Fork();
  if (pid == 0) leave(run(argument));
  return pid;
}

IN_CHILD int runIntermediate(void* argument) {
  const Child& child = *static_cast<const Child*>(argument);
  const int pid = cloneChild(runDaemon, child.daemonStack, child);
  if (pid < 0) leave(kForkFailed);
  const long written = call(SYS_write, child.plan.handOver, &pid, sizeof pid);
  if (written != static_cast<long>(sizeof pid)) leave(kHandOverFailed);
  leave(0);
}

// Two stacks, each with a guard page below.
class Stacks {
 public:
  Stacks()
      : memory(mmap(nullptr, 2 * kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1,
                    0)) {
    for (std::size_t i = 0; valid() && i < 2; ++i) {
      if (mprotect(top(i) + kAboveTop - kStackSize, kStackSize, PROT_READ | PROT_WRITE) != 0)
        release();
    }
  }
  ~Stacks() { release(); }
  Stacks(const Stacks&) = delete;
  Stacks& operator=(const Stacks&) = delete;

  bool valid() const { return memory != MAP_FAILED; }
  char* top(std::size_t index) const {
    return static_cast<char*>(memory) + (index + 1) * kSize - kAboveTop;
  }

 private:
  static constexpr std::size_t kSize = 2 * kStackSize;
  // syscall(2) of ARM's C library loads its seventh argument's word from the stack, given or not,
  // which for a function without a frame lies above the top.
  static constexpr std::size_t kAboveTop = 64;

  void release() {
    const int savedErrno = errno;
    if (valid()) munmap(memory, 2 * kSize);
    memory = MAP_FAILED;
    errno = savedErrno;
  }

  void* memory;
};

}  // namespace

pid_t spawn(const SpawnPlan& plan) {
  const Stacks stacks;
  if (!stacks.valid()) return -1;

  // All of them, also the two of the C library's own that sigfillset leaves out: no handler may run
  // in the child, which shares this memory.
  sigset_t callersMask;
  sigset_t all;
  for (unsigned long& word : all.__val) word = ~0UL;
  syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, &callersMask, kSignalSetSize);

  const auto run = plan.handOver >= 0 ? runIntermediate : runProgram;
  const Child child{plan, callersMask, stacks.top(1)};
  pid_t pid = cloneChild(run, stacks.top(0), child);
  if (pid < 0 && (errno == ENOSYS || errno == EINVAL || errno == EPERM)) {
    const Child forked{plan, callersMask, nullptr};  // a system that has no such clone
    pid = cloneChild(run, nullptr, forked);
  }

  const int savedErrno = errno;
  syscall(SYS_rt_sigprocmask, SIG_SETMASK, &callersMask, nullptr, kSignalSetSize);
  errno = savedErrno;
  return pid;
}

}  // namespace vexo::utils::internal
