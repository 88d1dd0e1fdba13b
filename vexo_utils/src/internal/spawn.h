// Starts a program in a child of this process: the steps between fork(2) and execve(2).
//
// The child is a vfork(2)-like clone that shares the memory of the parent until it executes the
// program, and so costs the same whatever the parent's size (fork copies the page tables: 40 ms for
// 512 MiB on a slow core). It runs on a stack of its own with all signals blocked, calls the kernel
// only, and changes nothing of the parent's memory. The calling thread waits meanwhile; others run
// on, and may hold any lock.
#pragma once

#include <signal.h>
#include <sys/types.h>

namespace vexo::utils::internal {

// How the child ends when it does not come to execute the program.
enum ChildExit : int {
  kExecFailed = 121,
  kErrFailed = 122,
  kOutFailed = 123,
  kInFailed = 124,
  kNullFailed = 125,
  kHandOverFailed = 126,
  kForkFailed = 127,
};

struct SpawnPlan {
  const char* exe;
  char* const* argv;
  char* const* envp;
  const sigset_t* mask;  // of the program; null: the caller's
  int streams[3];        // what becomes descriptor 0, 1 and 2, each above 2; -1: /dev/null
  int handOver;          // daemon: where its pid is written (4 bytes, native order); else -1
};

// The child's pid, or -1 with errno. The program gets descriptors 0 to 2 and whatever is open above
// 255 and not close-on-exec.
// With a hand-over descriptor the child is an intermediate one, which starts the program as its own
// child in a session of its own, writes that one's pid and exits: 0, or with one of the codes
// above.
pid_t spawn(const SpawnPlan& plan);

}  // namespace vexo::utils::internal
