// The lower bound: epoll(7) and an array, nothing checked, nothing locked, nothing kept alive.
#include <cstdint>

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "loop.h"

namespace vexo::bench {

namespace {

class EpollLoop : public Loop {
 public:
  explicit EpollLoop(std::size_t batch) : epollFd(epoll_create1(EPOLL_CLOEXEC)), events(batch) {
    require(epollFd >= 0, "create an epoll instance");
  }
  ~EpollLoop() override { close(epollFd); }

  Id addReader(int fd, Handler& handler) override { return add({fd, false, &handler}); }

  Id addTimer(unsigned ms, bool periodic, Handler& handler) override {
    const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    require(fd >= 0, "create a timer");
    arm(fd, ms, periodic ? ms : 0);
    return add({fd, true, &handler});
  }

  void rearm(Id timer, unsigned ms) override { arm(taskAt(timer.number).fd, ms, 0); }

  void remove(Id id) override {
    const Task& task = taskAt(id.number);
    require(epoll_ctl(epollFd, EPOLL_CTL_DEL, task.fd, nullptr) == 0, "remove a descriptor");
    if (task.isTimer) close(task.fd);
    unused.push_back(static_cast<std::size_t>(id.number));
  }

  void look() override { pass(0); }

  void run() override {
    stopped = false;
    while (!stopped) pass(-1);
  }

  void stop() override { stopped = true; }

  void onWakeUp(Handler& handler) override {
    wakeDescriptor.setTarget(handler);
    addReader(wakeDescriptor.fd(), wakeDescriptor);
  }

  void wakeUp() override { wakeDescriptor.signal(); }

 private:
  struct Task {
    int fd;
    bool isTimer;
    Handler* handler;
  };

  static void arm(int fd, unsigned ms, unsigned intervalMs) {
    itimerspec times{};
    times.it_value = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1'000'000};
    times.it_interval = {static_cast<time_t>(intervalMs / 1000),
                         static_cast<long>(intervalMs % 1000) * 1'000'000};
    require(timerfd_settime(fd, 0, &times, nullptr) == 0, "set a timer");
  }

  const Task& taskAt(std::uint64_t id) const { return tasks[static_cast<std::size_t>(id)]; }

  Id add(const Task& task) {
    std::size_t id = tasks.size();
    if (unused.empty()) {
      tasks.push_back(task);
    } else {
      id = unused.back();
      unused.pop_back();
      tasks[id] = task;
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = id;
    require(epoll_ctl(epollFd, EPOLL_CTL_ADD, task.fd, &event) == 0, "add a descriptor");
    return {id, nullptr};
  }

  void pass(int timeoutMs) {
    const int ready =
        epoll_wait(epollFd, events.data(), static_cast<int>(events.size()), timeoutMs);
    require(ready >= 0, "wait");
    for (int i = 0; i < ready; ++i) {
      const Task& task = taskAt(events[static_cast<std::size_t>(i)].data.u64);
      std::uint64_t expirations = 0;
      if (task.isTimer && read(task.fd, &expirations, sizeof expirations) < 0) continue;
      task.handler->onEvent();
    }
  }

  const int epollFd;
  std::vector<epoll_event> events;
  std::vector<Task> tasks;
  std::vector<std::size_t> unused;  // places in `tasks`
  bool stopped = false;
  WakeDescriptor wakeDescriptor;
};

}  // namespace

std::unique_ptr<Loop> makeEpoll8(Tuning) {
  return std::make_unique<EpollLoop>(8);
}

std::unique_ptr<Loop> makeEpoll1024(Tuning) {
  return std::make_unique<EpollLoop>(1024);
}

}  // namespace vexo::bench
