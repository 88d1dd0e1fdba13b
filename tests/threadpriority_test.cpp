#include "vexo_utils/threadpriority.h"

#include <cerrno>
#include <climits>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include "in_child.h"
#include "log_recorder.h"
#include "wait.h"

namespace {

using namespace vexo::test;

TEST(ThreadPriority, IsSetOrStaysAsItIs) {
  sched_param param{1};
  const bool realTimeAllowed = sched_setscheduler(0, SCHED_RR, &param) == 0;
  const struct {
    int wanted, policy, error, given;
  } rows[] = {
      {-1, SCHED_BATCH, 0, 0},     {1000, SCHED_RR, EINVAL, 1000}, {0, SCHED_FIFO, EINVAL, 0},
      {1, SCHED_OTHER, EINVAL, 1}, {-1, 12345, EINVAL, -1},        {-1, SCHED_RR, 0, 99},
      {7, SCHED_RR, 0, 7},         {INT_MIN, SCHED_FIFO, 0, 99},   {1, SCHED_FIFO, 0, 1},
  };
  for (const auto& row : rows) {
    if (row.error == 0 && row.given > 0 && !realTimeAllowed) GTEST_SKIP() << "no real-time here";
    const auto check = [&](bool done, const std::string& who) {
      SCOPED_TRACE(who + ", priority " + std::to_string(row.wanted));
      const std::string number = std::to_string(row.given);
      EXPECT_EQ(done, row.error == 0);
      EXPECT_TRUE(done ? logged(kInfo, who + " has priority " + number, 0)
                       : logged(kError, "Unable to set priority to " + number, row.error));
      sched_getparam(0, &param);
      EXPECT_EQ(param.sched_priority, done ? row.given : 0);
      EXPECT_EQ(sched_getscheduler(0), done ? row.policy : SCHED_OTHER);
      param.sched_priority = 0;
      sched_setscheduler(0, SCHED_OTHER, &param);
      errno = 0;
    };
    param.sched_priority = 0;
    sched_setscheduler(0, SCHED_OTHER, &param);
    const std::string pid = "Pid " + std::to_string(getpid());
    const std::string tid = "Tid " + std::to_string(pthread_self());
    check(SetRealTimePriority(0, row.wanted, row.policy), pid);
    check(SetThreadRealTimePriority(pthread_self(), row.wanted, row.policy), tid);
    if (row.policy != SCHED_RR) continue;
    check(SetRealTimePriority(getpid(), row.wanted), pid);
    check(SetThreadRealTimePriority(pthread_self(), row.wanted), tid);
  }
}

TEST(ThreadPriority, NeedsAThreadAndAProcess) {
  EXPECT_FALSE(SetRealTimePriority(INT_MAX, 0, SCHED_OTHER));
  EXPECT_TRUE(logged(kError, "Unable to set priority to 0", ESRCH));
  std::thread ended([] {});
  EXPECT_TRUE(eventually([&] {
    errno = 0;  // which it leaves alone: of a thread that has ended, the kernel is not asked
    return !SetThreadRealTimePriority(ended.native_handle(), 0, SCHED_OTHER);
  }));
  ended.join();
  EXPECT_TRUE(logged(kError, "Unable to set priority to 0", ESRCH));
  const auto passZero = [] {
    signal(SIGSEGV, [](int) { _exit(42); });
    return SetThreadRealTimePriority(0, 0, SCHED_OTHER) ? 1 : 0;
  };
  EXPECT_EQ(inChild(passZero), 42);  // the kernel's id is no handle
}

}  // namespace
