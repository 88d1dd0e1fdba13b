#include "vexo_utils/threadpriority.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "in_child.h"
#include "log_recorder.h"

namespace {

using vexo::test::kError;
using vexo::test::kInfo;
using vexo::test::logged;

using Scheduling = std::pair<int, int>;  // policy and priority

class ThreadPriority : public testing::Test {
 protected:
  void TearDown() override { set(SCHED_OTHER, 0); }

  static bool set(int policy, int priority) {
    sched_param param{};
    param.sched_priority = priority;
    return sched_setscheduler(0, policy, &param) == 0;
  }
  static Scheduling current() {
    sched_param param{};
    sched_getparam(0, &param);
    return {sched_getscheduler(0), param.sched_priority};
  }

  // The last call gave `done`: what it must have left.
  void expectSet(bool done, const Scheduling& expected, bool process) {
    EXPECT_TRUE(done);
    EXPECT_EQ(current(), expected);
    const std::string who =
        process ? "Pid " + std::to_string(getpid()) : "Tid " + std::to_string(pthread_self());
    EXPECT_TRUE(logged(kInfo, who + " has priority " + std::to_string(expected.second), 0));
  }
  void expectRefused(bool done, int priority, int error) {
    EXPECT_FALSE(done);
    EXPECT_EQ(current(), Scheduling(SCHED_OTHER, 0));
    EXPECT_TRUE(logged(kError, "Unable to set priority to " + std::to_string(priority), error));
  }
};

TEST_F(ThreadPriority, OrdinaryPoliciesNeedNoRights) {
  expectSet(SetRealTimePriority(0, -1, SCHED_BATCH), {SCHED_BATCH, 0}, true);
  expectSet(SetThreadRealTimePriority(pthread_self(), -5, SCHED_OTHER), {SCHED_OTHER, 0}, false);
}

TEST_F(ThreadPriority, RealTime) {
  if (!set(SCHED_RR, 1)) GTEST_SKIP() << "this machine allows no real-time priority";
  const pthread_t self = pthread_self();
  expectSet(SetRealTimePriority(0, -1), {SCHED_RR, 99}, true);
  expectSet(SetRealTimePriority(getpid(), 7), {SCHED_RR, 7}, true);
  expectSet(SetRealTimePriority(0, 1, SCHED_FIFO), {SCHED_FIFO, 1}, true);
  expectSet(SetThreadRealTimePriority(self, INT_MIN), {SCHED_RR, 99}, false);
  expectSet(SetThreadRealTimePriority(self, 7, SCHED_FIFO), {SCHED_FIFO, 7}, false);
}

TEST_F(ThreadPriority, RefusedChangesNothing) {
  const pthread_t self = pthread_self();
  expectRefused(SetRealTimePriority(0, 1000), 1000, EINVAL);
  expectRefused(SetRealTimePriority(0, 1, SCHED_OTHER), 1, EINVAL);
  expectRefused(SetRealTimePriority(0, -1, 12345), -1, EINVAL);
  expectRefused(SetRealTimePriority(INT_MAX, 0, SCHED_OTHER), 0, ESRCH);
  expectRefused(SetThreadRealTimePriority(self, 1000), 1000, EINVAL);
  expectRefused(SetThreadRealTimePriority(self, 0, SCHED_FIFO), 0, EINVAL);
}

TEST_F(ThreadPriority, ThreadZeroIsTheKernelsIdAsAHandle) {
  const auto onSegv = [](int, siginfo_t* info, void*) {
    const auto id = static_cast<std::uintptr_t>(syscall(SYS_gettid));
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    _exit(address - id < 65536 ? 42 : 43);  // within what would be the thread's record
  };
  const auto passZero = [&] {
    struct sigaction action {};
    action.sa_sigaction = onSegv;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &action, nullptr);
    return SetThreadRealTimePriority(0, 0, SCHED_OTHER) ? 1 : 0;
  };
  EXPECT_EQ(vexo::test::inChild(passZero), 42);
}

}  // namespace
