#include "vexo_utils/scheduler.h"

#include <atomic>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
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

using test::eventually;
using test::kDebug;
using test::kError;
using test::kWarning;
using test::logged;

using Id = unsigned long long;

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

  test::SignalMask mask;
  Ready ready[9];  // outlive their tasks
  Scheduler scheduler;
};

TEST(SchedulerLifecycle, IdsBeginAnewAndNothingWorksOutside) {
  const Ready ready;
  Scheduler scheduler;
  const auto add = [&] {
    return scheduler.AddIOTask(
        ready.fd, EPOLLIN, [](int, void*) { return true; }, nullptr);
  };
  const auto refusesAll = [&] {
    EXPECT_EQ(add(), 0U);
    EXPECT_TRUE(logged(kError, "Failed to add task", EBADF));
    EXPECT_EQ(scheduler.AddTimerTask(
                  1, [](void*) { return true; }, nullptr),
              0U);
    EXPECT_TRUE(logged(kError, "Failed to add task", EBADF));
    EXPECT_FALSE(scheduler.Service(0));
    EXPECT_TRUE(logged(kError, "Failed to wait epoll", EBADF));
    EXPECT_TRUE(scheduler.WakeUp());
    EXPECT_TRUE(scheduler.Stop());
  };
  refusesAll();
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(scheduler.Init());
    EXPECT_EQ(add(), 2U);
    EXPECT_TRUE(scheduler.Service(0));
  }
  EXPECT_TRUE(scheduler.Stop());
  refusesAll();
}

TEST_F(SchedulerTest, CallsBothIoFormsWithTheirArguments) {
  const Ready& a = ready[0];
  const Ready& b = ready[1];
  int context = 0;
  Id seen = 0;
  const Id full = scheduler.AddIOTask(
      a.fd, EPOLLIN,
      [&](Id id, int fd, int events, void* ctx) {
        EXPECT_EQ(fd, a.fd);
        EXPECT_EQ(events, EPOLLIN);
        EXPECT_EQ(ctx, &context);
        seen = id;
        return false;
      },
      &context);
  scheduler.AddIOTask(
      b.fd, EPOLLIN,
      [&](int fd, void* ctx) {
        EXPECT_EQ(fd, b.fd);
        ++*static_cast<int*>(ctx);
        return false;
      },
      &context);
  for (int calls = 1; calls <= 2; ++calls) {  // level-triggered, and false removes nothing
    seen = 0;
    EXPECT_TRUE(scheduler.Service(-5));
    EXPECT_EQ(seen, full);
    EXPECT_EQ(context, calls);
  }
  EXPECT_TRUE(scheduler.ChangeIOTaskMode(full, 0));
  seen = 0;
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(seen, 0U);
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
  const long before = test::allocations();
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(calls, 8);
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(calls, 9);
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(calls, 9);
  EXPECT_EQ(test::allocations(), before);
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
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(calls, 1);
}

TEST_F(SchedulerTest, RecycledDescriptorReachesNoStranger) {
  Id ids[2] = {};
  int strangers = 0;
  int calls = 0;
  for (int i = 0; i < 2; ++i) {
    ids[i] = addReady(ready[i], [&, i](int, void*) {
      ++calls;
      Ready& other = ready[1 - i];  // reported in the same batch, its turn is next
      EXPECT_TRUE(scheduler.RemoveIOTask(ids[1 - i]));
      const int number = other.fd;
      close(other.fd);
      other.fd = eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC);
      EXPECT_EQ(other.fd, number);
      addReady(other, [&](int, void*) { return ++strangers > 0; });
      return scheduler.RemoveIOTask(ids[i]);
    });
  }
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(strangers, 0);
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(strangers, 1);
}

TEST_F(SchedulerTest, CallbackMayStopAndStartAgain) {
  int old = 0;
  int strangers = 0;
  for (int i = 0; i < 3; ++i) {
    addReady(ready[i], [&](int, void*) {
      ++old;
      EXPECT_TRUE(scheduler.Init());  // ids begin anew: the rest of the batch names strangers
      for (int j = 0; j < 3; ++j) {
        addReady(ready[j], [&](int, void*) { return ++strangers > 0; });
      }
      return true;
    });
  }
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(old, 1);
  EXPECT_EQ(strangers, 0);
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(strangers, 3);
}

TEST_F(SchedulerTest, CallbackMayStop) {
  int calls = 0;
  for (int i = 0; i < 2; ++i) {
    addReady(ready[i], [&](int, void*) {
      ++calls;
      return scheduler.Stop();
    });
  }
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(calls, 1);
}

TEST_F(SchedulerTest, WhatTasksCaptureMayCallTheScheduler) {
  struct Caller {
    Scheduler& scheduler;
    int& ended;
    ~Caller() {
      scheduler.RemoveIOTask(1234);
      ++ended;
    }
  };
  int ended = 0;
  Id id = 0;
  for (int i = 0; i < 2; ++i) {
    id = addReady(ready[i], [caller = std::make_shared<Caller>(Caller{scheduler, ended})](
                                int, void*) { return true; });
  }
  ended = 0;  // the temporaries
  EXPECT_TRUE(scheduler.RemoveIOTask(id));
  EXPECT_EQ(ended, 1);
  EXPECT_TRUE(scheduler.Stop());
  EXPECT_EQ(ended, 2);
}

TEST_F(SchedulerTest, ExceptionsLeaveThroughService) {
  const Id id = addReady(ready[0], [](int, void*) -> bool { throw std::runtime_error("own"); });
  EXPECT_THROW(scheduler.Service(0), std::runtime_error);
  EXPECT_TRUE(scheduler.RemoveIOTask(id));
  scheduler.AddTimerTask(0, 0, Scheduler::TimerCallback(), nullptr);
  EXPECT_THROW(scheduler.Service(-1), std::bad_function_call);
}

TEST_F(SchedulerTest, FindsItsTasksAfterManyWereRemoved) {
  std::mt19937 random(7);
  std::map<Id, int> live;
  std::vector<Id> gone;
  for (int step = 0; step < 2000; ++step) {
    if (live.empty() || random() % 100 < (step < 1000 ? 60 : 40)) {
      const int fd = dup(ready[0].fd);
      const Id id = scheduler.AddIOTask(
          fd, EPOLLIN, [](int, void*) { return true; }, nullptr);
      ASSERT_TRUE(live.emplace(id, fd).second);
    } else {
      const auto victim = std::next(live.begin(), static_cast<long>(random() % live.size()));
      ASSERT_TRUE(scheduler.RemoveIOTask(victim->first));
      close(victim->second);
      gone.push_back(victim->first);
      live.erase(victim);
    }
  }
  for (const auto& [id, fd] : live) EXPECT_TRUE(scheduler.ChangeIOTaskMode(id, 0));
  for (const Id id : gone) {
    EXPECT_FALSE(scheduler.ChangeIOTaskMode(id, 0));
    EXPECT_TRUE(logged(kError, "Invalid id " + std::to_string(id)));
  }
  for (const auto& [id, fd] : live) {
    EXPECT_TRUE(scheduler.RemoveIOTask(id));
    close(fd);
  }
}

// ---- timers ----

TEST_F(SchedulerTest, TimersFireWhenTheyAreDue) {
  struct {
    const char* name;
    int first, interval;
    int calls;  // waited for
    bool again;
  } const rows[] = {
      {"at once, once", 0, 0, 1, false},
      {"later, once", 20, 0, 1, false},
      {"at once, then periodic", 0, 5, 3, true},
      {"periodic", 10, 10, 3, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    int calls = 0;
    const long long start = nowMs();
    const Id id = scheduler.AddTimerTask(
        static_cast<unsigned>(row.first), static_cast<unsigned>(row.interval),
        [&](void*) { return ++calls < 0; }, nullptr);
    while (calls < row.calls) ASSERT_TRUE(scheduler.Service(-1));
    EXPECT_GE(nowMs() - start, row.first + (calls - 1) * row.interval);
    EXPECT_EQ(scheduler.Service(row.again ? -1 : 50), true);
    EXPECT_EQ(calls, row.again ? row.calls + 1 : row.calls);
    EXPECT_TRUE(scheduler.RemoveIOTask(id));
  }
}

TEST_F(SchedulerTest, MissedExpirationsMakeOneCallAndARearmedTimerNone) {
  int calls = 0;
  int rearmed = 0;
  Id other = 0;
  const Id id = scheduler.AddTimerTask(
      1,
      [&](Id own, void*) {
        EXPECT_EQ(own, id);
        ++calls;
        return scheduler.UpdateTimerTask(other, 1'000'000, 0);  // it is in this batch, and due
      },
      nullptr);
  other = scheduler.AddTimerTask(
      1, [&](void*) { return ++rearmed > 0; }, nullptr);
  const long long start = nowMs();
  ASSERT_TRUE(eventually([&] { return nowMs() > start + 20; }));
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(rearmed, 0);
}

TEST_F(SchedulerTest, UnknownAndUnsuitableTasksAreRefused) {
  const Id unknown = (1ULL << 32) + 5;
  EXPECT_FALSE(scheduler.UpdateTimerTask(unknown, 1, 1));
  EXPECT_TRUE(logged(kError, "Invalid id 5", 0));
  EXPECT_FALSE(scheduler.ChangeIOTaskMode(unknown, EPOLLIN));
  EXPECT_TRUE(logged(kError, "Invalid id 4294967301", 0));
  EXPECT_TRUE(scheduler.RemoveIOTask(unknown));
  EXPECT_TRUE(logged(kDebug, "No IO task with id 5", 0));

  EXPECT_FALSE(scheduler.UpdateTimerTask(1, 1, 1));  // the wake-up pipe
  EXPECT_TRUE(logged(kError, "Failed to settime", EINVAL));
  EXPECT_TRUE(logged(kError, "Failed to set timer", 0));

  const int file = open("/tmp/regular", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  EXPECT_EQ(scheduler.AddIOTask(
                file, EPOLLIN, [](int, void*) { return true; }, nullptr),
            0U);
  EXPECT_TRUE(logged(kError, "Failed to add task", EPERM));
  close(file);
}

TEST_F(SchedulerTest, DescriptorClosedBehindItsBack) {
  for (const bool removed : {true, false}) {
    Ready brief;
    const Id id = addReady(brief, [](int, void*) { return true; });
    close(std::exchange(brief.fd, -1));
    EXPECT_TRUE(scheduler.Service(0));
    EXPECT_FALSE(scheduler.ChangeIOTaskMode(id, EPOLLIN));
    EXPECT_TRUE(logged(kError, "Failed to change task", EBADF));
    if (removed) {
      EXPECT_FALSE(scheduler.RemoveIOTask(id));
      EXPECT_TRUE(logged(kError, "Failed to del task", EBADF));
    }
    EXPECT_TRUE(scheduler.Stop());
    EXPECT_EQ(logged(kWarning, "Failed to del fd", EBADF), !removed);
    ASSERT_TRUE(scheduler.Init());
  }
}

TEST_F(SchedulerTest, NoDescriptorsLeft) {
  const auto call = [](void*) { return true; };
  {
    const test::DescriptorLimit none(0);
    EXPECT_EQ(scheduler.AddTimerTask(1, call, nullptr), 0U);
    EXPECT_TRUE(logged(kError, "Failed to create timer", EMFILE));
    EXPECT_EQ(scheduler.AddSignalHandler(SIGUSR1, Scheduler::SignalShortCallback(call), nullptr),
              0U);
    EXPECT_TRUE(logged(kError, "Failed to create signal FD", EMFILE));
    EXPECT_FALSE(scheduler.Init());
    EXPECT_TRUE(logged(kError, "Failed to create epoll", EMFILE));
    EXPECT_TRUE(scheduler.Service(0));  // the instance of before goes on
  }
  for (const int left : {1, 2}) {
    scheduler.Stop();
    const test::DescriptorLimit few(left);
    EXPECT_FALSE(scheduler.Init());
    EXPECT_TRUE(logged(kError, "Failed to create wakeup pipe", EMFILE));
    EXPECT_TRUE(scheduler.Service(0));  // usable without wake-ups
    EXPECT_TRUE(scheduler.WakeUp());
  }
}

// ---- wake-ups and signals ----

TEST_F(SchedulerTest, WakeUpFromAnotherThreadEndsAnInterruptedWait) {
  const test::InterruptingSignal interrupting(SIGUSR1);
  std::atomic<bool> done{false};
  std::thread waker([&, owner = pthread_self()] {
    for (int i = 0; i < 20; ++i) {
      pthread_kill(owner, SIGUSR1);
      std::this_thread::yield();
    }
    done = true;
    scheduler.WakeUp();
    scheduler.WakeUp();
  });
  EXPECT_TRUE(scheduler.Service(-1));
  EXPECT_TRUE(done);
  waker.join();
  EXPECT_TRUE(scheduler.Service(-1));  // the second wake-up has its own
}

TEST_F(SchedulerTest, FullWakeUpPipeIsNoFailure) {
  for (int i = 0; i < 70'000; ++i) ASSERT_TRUE(scheduler.WakeUp());
}

TEST_F(SchedulerTest, SignalsReachEveryForm) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  int context = 0;
  std::vector<unsigned> seen;
  const auto full = [&](Id id, unsigned signo, void* ctx) {
    EXPECT_NE(id, 0U);
    EXPECT_EQ(ctx, &context);
    seen.push_back(signo);
  };
  EXPECT_NE(scheduler.AddSignalHandler(set, full, &context), 0U);
  EXPECT_NE(scheduler.AddSignalHandler(SIGUSR2, full, &context), 0U);
  EXPECT_NE(scheduler.AddSignalHandler(
                SIGHUP, [&](void* ctx) { return ++*static_cast<int*>(ctx) > 0; }, &context),
            0U);
  for (const int signo : {SIGUSR1, SIGUSR2, SIGHUP}) {
    raise(signo);
    EXPECT_TRUE(scheduler.Service(-1));
  }
  EXPECT_EQ(seen, (std::vector<unsigned>{SIGUSR1, SIGUSR2}));
  EXPECT_EQ(context, 1);

  EXPECT_EQ(scheduler.AddSignalHandler(4711, full, &context), 0U);
  EXPECT_TRUE(logged(kError, "Failed to add mask", 0));
}

TEST_F(SchedulerTest, TwoHandlersOfOneSignalShareItsArrivals) {
  int calls = 0;
  const auto count = [&](void*) { return ++calls > 0; };
  for (int i = 0; i < 2; ++i) {
    ASSERT_NE(scheduler.AddSignalHandler(SIGUSR1, Scheduler::SignalShortCallback(count), nullptr),
              0U);
  }
  for (int arrivals = 1; arrivals <= 3; ++arrivals) {
    raise(SIGUSR1);
    EXPECT_TRUE(scheduler.Service(-1));
    EXPECT_EQ(calls, arrivals);
  }
}

// ---- threads ----

TEST_F(SchedulerTest, OtherThreadsAddAndRemoveWhileItServes) {
  constexpr int kThreads = 3;
  std::atomic<int> working{kThreads};
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < 200; ++round) {
        const Ready one;
        const int own = one.fd;
        const auto check = [&wrong, own](int fd, void*) { return (wrong += fd != own) == 0; };
        const Id io = scheduler.AddIOTask(own, EPOLLIN, check, nullptr);
        const Id timer = scheduler.AddTimerTask(
            0, 1, [](void*) { return true; }, nullptr);
        wrong += !scheduler.UpdateTimerTask(timer, 0, 0) + !scheduler.ChangeIOTaskMode(io, 0);
        wrong += !scheduler.RemoveIOTask(timer) + !scheduler.RemoveIOTask(io);
      }
      --working;
      scheduler.WakeUp();
    });
  }
  while (working > 0) ASSERT_TRUE(scheduler.Service(-1));
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace vexo::utils
