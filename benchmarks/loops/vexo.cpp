#include <atomic>

#include <sys/epoll.h>

#include <vexo_utils/scheduler.h>

#include "loop.h"

namespace vexo::bench {

namespace {

using utils::Scheduler;

class VexoLoop : public Loop {
 public:
  VexoLoop() { require(scheduler.Init(), "initialise the scheduler"); }

  Id addReader(int fd, Handler& handler) override {
    const unsigned long long id = scheduler.AddIOTask(
        fd, EPOLLIN,
        [](unsigned long long, int, int, void* ctx) {
          static_cast<Handler*>(ctx)->onEvent();
          return true;
        },
        &handler);
    require(id != 0, "add an IO task");
    return {id, nullptr};
  }

  Id addTimer(unsigned ms, bool periodic, Handler& handler) override {
    const unsigned long long id = scheduler.AddTimerTask(
        ms, periodic ? ms : 0,
        [](unsigned long long, void* ctx) {
          static_cast<Handler*>(ctx)->onEvent();
          return true;
        },
        &handler);
    require(id != 0, "add a timer task");
    return {id, nullptr};
  }

  void rearm(Id timer, unsigned ms) override {
    require(scheduler.UpdateTimerTask(timer.number, ms, 0), "update a timer task");
  }

  void remove(Id id) override { require(scheduler.RemoveIOTask(id.number), "remove a task"); }

  void look() override { require(scheduler.Service(0), "service"); }

  void run() override {
    stopped = false;
    while (!stopped) {
      require(scheduler.Service(-1), "service");
      // A wake-up has no callback; the owner sees it when Service returns.
      if (wakeUpHandler != nullptr && woken.exchange(false)) wakeUpHandler->onEvent();
    }
  }

  void stop() override { stopped = true; }

  void onWakeUp(Handler& handler) override { wakeUpHandler = &handler; }

  void wakeUp() override {
    woken = true;
    require(scheduler.WakeUp(), "wake the scheduler");
  }

 private:
  Scheduler scheduler;
  bool stopped = false;
  Handler* wakeUpHandler = nullptr;
  std::atomic<bool> woken{false};
};

}  // namespace

std::unique_ptr<Loop> makeVexo(Tuning) {
  return std::make_unique<VexoLoop>();
}

}  // namespace vexo::bench
