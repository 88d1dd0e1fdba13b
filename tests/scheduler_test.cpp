#include "vexo_utils/scheduler.h"

#include <atomic>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "allocations.h"
#include "log_recorder.h"
#include "process_state.h"
#include "vexo_utils/timer.h"
#include "wait.h"

namespace vexo::utils {
namespace {

using namespace test;
using Id = unsigned long long;

constexpr auto kNothing = [](int, void*) { return true; };
constexpr auto kTick = [](void*) { return true; };

// A descriptor that is ready to be read from the start and stays so.
class Ready {
 public:
  Ready() : fd(eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC)) {}
  ~Ready() {
    if (fd >= 0) close(fd);
  }
  Ready(const Ready&) = delete;
  Ready& operator=(const Ready&) = delete;
  int fd;
};

class SchedulerTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(scheduler.Init()); }
  Id addReady(const Ready& one, Scheduler::IoShortCallback callback) {
    return scheduler.AddIOTask(one.fd, EPOLLIN, std::move(callback), nullptr);
  }

  SignalMask mask;
  Ready ready[9];  // outlive their tasks
  Scheduler scheduler;
};

TEST_F(SchedulerTest, IdsBeginAnewAndNothingWorksOutside) {
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(addReady(ready[0], kNothing), 2U);
    EXPECT_TRUE(scheduler.Service(0));
    EXPECT_TRUE(scheduler.Stop());
    EXPECT_EQ(addReady(ready[0], kNothing), 0U);
    EXPECT_EQ(scheduler.AddTimerTask(1, kTick, nullptr), 0U);
    for (int i = 0; i < 2; ++i) EXPECT_TRUE(logged(kError, "Failed to add task", EBADF));
    EXPECT_TRUE(refused(scheduler.Service(0), "Failed to wait epoll", EBADF));
    EXPECT_TRUE(scheduler.WakeUp() && scheduler.Stop() && scheduler.Init());
  }
}

TEST_F(SchedulerTest, CallsBothIoFormsUntilTheyAreSilenced) {
  std::vector<Id> seen;
  const auto full = [&](Id id, int fd, int events, void* ctx) {
    EXPECT_TRUE(fd == ready[0].fd && events == EPOLLIN && ctx == &seen);
    seen.push_back(id);
    return false;
  };
  const auto brief = [&](int fd, void* ctx) {
    EXPECT_TRUE(fd == ready[1].fd && ctx == &seen);
    seen.push_back(0);
    return false;
  };
  const Id id = scheduler.AddIOTask(ready[0].fd, EPOLLIN, full, &seen);
  scheduler.AddIOTask(ready[1].fd, EPOLLIN, brief, &seen);
  // Level-triggered, and false removes nothing.
  for (int round = 0; round < 2; ++round) EXPECT_TRUE(scheduler.Service(-5));
  EXPECT_EQ(seen, (std::vector<Id>{id, 0, id, 0}));
  EXPECT_TRUE(scheduler.ChangeIOTaskMode(id, 0));
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(seen.size(), 5U);
}

TEST_F(SchedulerTest, ServesEightAtATimeWithoutAllocating) {
  int calls = 0;
  for (const Ready& one : ready) {
    addReady(one, [&](int fd, void*) {
      eventfd_t value = 0;
      ++calls;
      return eventfd_read(fd, &value) == 0;
    });
  }
  const long before = allocations();
  for (const int expected : {8, 9, 9}) {
    EXPECT_TRUE(scheduler.Service(0));
    EXPECT_EQ(calls, expected);
  }
  EXPECT_EQ(allocations(), before);
}

TEST_F(SchedulerTest, RemovalTakesEffectWithinTheBatch) {
  Id ids[3] = {};
  int calls = 0;
  for (int i = 0; i < 3; ++i) {
    const auto alive = std::make_shared<int>(0);
    ids[i] = addReady(ready[i], [&, alive](int, void*) {
      ++calls;
      for (const Id id : ids) EXPECT_TRUE(scheduler.RemoveIOTask(id));  // itself and its neighbours
      EXPECT_EQ(alive.use_count(), 1);  // not destroyed while it runs
      return true;
    });
  }
  for (int round = 0; round < 2; ++round) EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(calls, 1);
}

TEST_F(SchedulerTest, RecycledDescriptorReachesNoStranger) {
  Id ids[2] = {};
  int strangers = 0;
  for (int i = 0; i < 2; ++i) {
    ids[i] = addReady(ready[i], [&, i](int, void*) {
      Ready& other = ready[1 - i];  // reported in the same batch, its turn is next
      for (const Id id : ids) EXPECT_TRUE(scheduler.RemoveIOTask(id));
      const int number = other.fd;
      close(other.fd);
      other.fd = eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);
      EXPECT_EQ(other.fd, number);
      return addReady(other, [&](int, void*) { return ++strangers > 0; }) != 0;
    });
  }
  for (const int expected : {0, 1}) {
    EXPECT_TRUE(scheduler.Service(0));
    EXPECT_EQ(strangers, expected);
  }
}

TEST_F(SchedulerTest, CallbackMayStopAndStartAgain) {
  for (const bool again : {true, false}) {
    int old = 0;
    int strangers = 0;
    for (int i = 0; i < 3; ++i) {
      addReady(ready[i], [&, again](int, void*) {
        ++old;
        if (!again) return scheduler.Stop();
        EXPECT_TRUE(scheduler.Init());  // ids begin anew: the rest of the batch names strangers
        for (int j = 0; j < 3; ++j) addReady(ready[j], [&](int, void*) { return ++strangers > 0; });
        return true;
      });
    }
    EXPECT_TRUE(scheduler.Service(0));
    EXPECT_TRUE(old == 1 && strangers == 0);
    if (!again) break;
    EXPECT_TRUE(scheduler.Service(0));
    EXPECT_EQ(strangers, 3);
    EXPECT_TRUE(scheduler.Init());
  }
}

TEST_F(SchedulerTest, WhatTasksCaptureMayCallTheScheduler) {
  int ended = 0;
  const auto add = [&](const Ready& one) {
    const std::shared_ptr<int> caller(&ended, [this](int* count) {
      scheduler.RemoveIOTask(1234);
      ++*count;
    });
    return addReady(one, [caller](int, void*) { return true; });
  };
  add(ready[0]);
  EXPECT_TRUE(scheduler.RemoveIOTask(add(ready[1])));
  EXPECT_EQ(ended, 1);
  EXPECT_TRUE(scheduler.Stop());
  EXPECT_EQ(ended, 2);
}

TEST_F(SchedulerTest, FindsItsTasksAfterManyWereRemoved) {
  std::mt19937 random(7);
  std::map<Id, int> live;
  std::vector<Id> gone;
  for (int step = 0; step < 2000; ++step) {
    if (live.empty() || random() % 100 < (step < 1000 ? 60 : 40)) {
      const int fd = dup(ready[0].fd);
      ASSERT_TRUE(live.emplace(scheduler.AddIOTask(fd, EPOLLIN, kNothing, nullptr), fd).second);
    } else {
      const auto victim = std::next(live.begin(), static_cast<long>(random() % live.size()));
      ASSERT_TRUE(scheduler.RemoveIOTask(victim->first));
      close(victim->second);
      gone.push_back(victim->first);
      live.erase(victim);
    }
  }
  for (const Id id : gone) EXPECT_FALSE(scheduler.ChangeIOTaskMode(id, 0));
  forgetLog();
  for (const auto& [id, fd] : live) {
    EXPECT_TRUE(scheduler.ChangeIOTaskMode(id, 0) && scheduler.RemoveIOTask(id));
    close(fd);
  }
}

// ---- timers ----

TEST_F(SchedulerTest, TimersFireWhenTheyAreDue) {
  const std::pair<unsigned, unsigned> rows[] = {{0, 0}, {20, 0}, {0, 5}, {10, 10}};
  for (const auto& [first, interval] : rows) {
    SCOPED_TRACE(first);
    int calls = 0;
    const auto count = [&](void*) { return ++calls < 0; };
    const int expected = interval == 0 ? 1 : 3;
    const long long start = nowMs();
    const Id id = scheduler.AddTimerTask(first, interval, count, nullptr);
    while (calls < expected) ASSERT_TRUE(scheduler.Service(-1));
    EXPECT_GE(nowMs() - start, first + static_cast<unsigned>(calls - 1) * interval);
    EXPECT_TRUE(scheduler.Service(interval == 0 ? 50 : -1));
    EXPECT_EQ(calls > expected, interval != 0);
    EXPECT_TRUE(scheduler.RemoveIOTask(id));
  }
}

TEST_F(SchedulerTest, MissedExpirationsMakeOneCallAndARearmedTimerNone) {
  int calls = 0;
  int rearmed = 0;
  Id id = 0;
  Id other = 0;
  const auto rearm = [&](Id own, void*) {
    EXPECT_EQ(own, id);
    ++calls;
    return scheduler.UpdateTimerTask(other, 1'000'000, 0);  // it is in this batch, and due
  };
  id = scheduler.AddTimerTask(1, rearm, nullptr);
  other = scheduler.AddTimerTask(
      1, [&](void*) { return ++rearmed > 0; }, nullptr);
  const long long start = nowMs();
  ASSERT_TRUE(eventually([&] { return nowMs() > start + 20; }));
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_TRUE(calls == 1 && rearmed == 0);
}

// ---- faults ----

TEST_F(SchedulerTest, UnknownAndUnsuitableTasksAreRefused) {
  const Id unknown = (1ULL << 32) + 5;
  EXPECT_TRUE(refused(scheduler.UpdateTimerTask(unknown, 1, 1), "Invalid id 5", 0));
  EXPECT_TRUE(refused(scheduler.ChangeIOTaskMode(unknown, EPOLLIN), "Invalid id 4294967301", 0));
  EXPECT_TRUE(scheduler.RemoveIOTask(unknown));
  EXPECT_TRUE(logged(kDebug, "No IO task with id 5", 0));
  EXPECT_FALSE(scheduler.UpdateTimerTask(1, 1, 1));  // the wake-up pipe
  EXPECT_TRUE(logged(kError, "Failed to settime", EINVAL));
  EXPECT_TRUE(logged(kError, "Failed to set timer", 0));
  const int file = open("/tmp/regular", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  EXPECT_TRUE(refused(scheduler.AddIOTask(file, EPOLLIN, kNothing, nullptr) != 0,
                      "Failed to add task", EPERM));
  close(file);
}

TEST_F(SchedulerTest, DescriptorClosedBehindItsBack) {
  for (const bool removed : {true, false}) {
    Ready brief;
    const Id id = addReady(brief, kNothing);
    close(std::exchange(brief.fd, -1));
    EXPECT_TRUE(scheduler.Service(0));
    EXPECT_TRUE(refused(scheduler.ChangeIOTaskMode(id, EPOLLIN), "Failed to change task", EBADF));
    EXPECT_TRUE(!removed || !scheduler.RemoveIOTask(id));
    EXPECT_EQ(logged(kError, "Failed to del task", EBADF), removed);
    EXPECT_TRUE(scheduler.Stop());
    EXPECT_EQ(logged(kWarning, "Failed to del fd", EBADF), !removed);
    EXPECT_TRUE(scheduler.Init());
  }
}

TEST_F(SchedulerTest, NoDescriptorsLeft) {
  {
    const DescriptorLimit none(0);
    EXPECT_TRUE(refused(scheduler.Init(), "Failed to create epoll", EMFILE));
    EXPECT_TRUE(scheduler.Service(0));  // the instance of before goes on
  }
  for (const int left : {1, 2}) {
    scheduler.Stop();
    const DescriptorLimit few(left);
    EXPECT_TRUE(refused(scheduler.Init(), "Failed to create wakeup pipe", EMFILE));
    EXPECT_TRUE(scheduler.Service(0) && scheduler.WakeUp());  // usable without wake-ups
  }
}

// ---- signals and threads ----

TEST_F(SchedulerTest, TwoHandlersOfOneSignalShareItsArrivals) {
  std::vector<unsigned> seen;
  const auto full = [&](Id, unsigned signo, void* ctx) {
    EXPECT_EQ(ctx, &seen);
    seen.push_back(signo);
  };
  const auto brief = [&](void* ctx) { return full(0, SIGUSR1, ctx), true; };
  EXPECT_NE(scheduler.AddSignalHandler(SIGUSR1, full, &seen), 0U);
  EXPECT_NE(scheduler.AddSignalHandler(SIGUSR1, brief, &seen), 0U);
  for (std::size_t arrivals = 1; arrivals <= 3; ++arrivals) {
    raise(SIGUSR1);
    EXPECT_TRUE(scheduler.Service(-1));
    EXPECT_EQ(seen, std::vector<unsigned>(arrivals, SIGUSR1));
  }
  EXPECT_TRUE(refused(scheduler.AddSignalHandler(4711, full, &seen) != 0, "Failed to add mask", 0));
}

TEST_F(SchedulerTest, WakeUpFromAnotherThreadEndsAnInterruptedWait) {
  const InterruptingSignal interrupting(SIGUSR1);
  std::atomic<bool> done{false};
  std::thread waker([&, owner = pthread_self()] {
    for (int i = 0; i < 20; ++i) {
      pthread_kill(owner, SIGUSR1);
      std::this_thread::yield();
    }
    done = true;
    for (int i = 0; i < 2; ++i) scheduler.WakeUp();
  });
  EXPECT_TRUE(scheduler.Service(-1));
  EXPECT_TRUE(done);
  waker.join();
  EXPECT_TRUE(scheduler.Service(-1));  // the second wake-up has its own
  for (int i = 0; i < 70'000; ++i) ASSERT_TRUE(scheduler.WakeUp());  // a full pipe is no failure
}

TEST_F(SchedulerTest, OtherThreadsAddAndRemoveWhileItServes) {
  std::atomic<int> working{3};
  std::atomic<int> wrong{0};
  const auto work = [&] {
    for (int round = 0; round < 200; ++round) {
      const Ready one;
      const int own = one.fd;
      const auto check = [&wrong, own](int fd, void*) { return (wrong += fd != own) == 0; };
      const Id io = scheduler.AddIOTask(own, EPOLLIN, check, nullptr);
      const Id timer = scheduler.AddTimerTask(0, 1, kTick, nullptr);
      wrong += !scheduler.UpdateTimerTask(timer, 0, 0) + !scheduler.ChangeIOTaskMode(io, 0);
      wrong += !scheduler.RemoveIOTask(timer) + !scheduler.RemoveIOTask(io);
    }
    --working;
    scheduler.WakeUp();
  };
  std::thread threads[] = {std::thread(work), std::thread(work), std::thread(work)};
  while (working > 0) ASSERT_TRUE(scheduler.Service(-1));
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace vexo::utils
