// write(2) to a pipe or socket that may be closed at its other end.
#pragma once

#include <cerrno>

#include <signal.h>
#include <time.h>
#include <unistd.h>

namespace vexo::utils::internal {

// As write(2), but a closed end gives EPIPE without SIGPIPE. The process's disposition of the
// signal is left alone: it is blocked in this thread meanwhile and the one that the write raised is
// taken back. One that was pending before stays.
inline ssize_t writeNoSigpipe(int fd, const void* data, std::size_t size) {
  sigset_t sigpipe;
  sigset_t before;
  sigset_t pending;
  sigemptyset(&sigpipe);
  sigaddset(&sigpipe, SIGPIPE);
  sigpending(&pending);
  pthread_sigmask(SIG_BLOCK, &sigpipe, &before);
  const ssize_t written = write(fd, data, size);
  const int savedErrno = errno;
  if (written < 0 && savedErrno == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
    const timespec atOnce{};
    while (sigtimedwait(&sigpipe, nullptr, &atOnce) == -1 && errno == EINTR) {
    }
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  errno = savedErrno;
  return written;
}

}  // namespace vexo::utils::internal
