// Changes of the process that end with the scope.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

namespace vexo::test {

// Leaves room for `more` descriptors.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(int more) {
    getrlimit(RLIMIT_NOFILE, &before);
    const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(next);
    rlimit limit = before;
    limit.rlim_cur = static_cast<rlim_t>(next) + static_cast<rlim_t>(more);
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit before{};
};

class SignalMask {
 public:
  SignalMask() { pthread_sigmask(SIG_BLOCK, nullptr, &before); }
  ~SignalMask() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
  SignalMask(const SignalMask&) = delete;
  SignalMask& operator=(const SignalMask&) = delete;

 private:
  sigset_t before{};
};

// Handles a signal by doing nothing, and without SA_RESTART, so that it interrupts system calls.
class InterruptingSignal {
 public:
  explicit InterruptingSignal(int signo) : number(signo) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(number, &action, &before);
  }
  ~InterruptingSignal() { sigaction(number, &before, nullptr); }
  InterruptingSignal(const InterruptingSignal&) = delete;
  InterruptingSignal& operator=(const InterruptingSignal&) = delete;

 private:
  int number;
  struct sigaction before {};
};

}  // namespace vexo::test
