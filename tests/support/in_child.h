// A part of a test that changes its process for good, in a child of the test.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <functional>

#include <sys/wait.h>
#include <unistd.h>

namespace vexo::test {

// The exit status of `body` in a forked child; 128 + N if signal N ended it.
inline int inChild(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) std::_Exit(body());
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace vexo::test
