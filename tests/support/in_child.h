// A part of a test that changes its process for good, in a child of the test.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <functional>

#include <sys/wait.h>
#include <unistd.h>

namespace vexo::test {

inline pid_t startChild(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) std::_Exit(body());
  return child;
}

// Waits for its end. Its exit status; 128 + N if signal N ended it.
inline int endOfChild(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

inline int inChild(const std::function<int()>& body) {
  return endOfChild(startChild(body));
}

}  // namespace vexo::test
