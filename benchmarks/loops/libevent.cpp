#include <event2/event.h>
#include <event2/thread.h>

#include "loop.h"

namespace vexo::bench {

namespace {

timeval fromMs(unsigned ms) {
  timeval time{};
  time.tv_sec = static_cast<time_t>(ms / 1000);
  time.tv_usec = static_cast<suseconds_t>(ms % 1000) * 1000;
  return time;
}

// Locks only where another thread takes part; a timerfd, at a system call per pass, only where
// precision counts. The change list would let a descriptor come and go without the kernel seeing
// it.
event_base* makeBase(Tuning tuning) {
  static const bool threads = evthread_use_pthreads() == 0;
  require(threads, "initialise libevent's threads");
  event_config* config = event_config_new();
  require(config != nullptr, "create a libevent configuration");
  if (tuning != Tuning::kThreads) event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK);
  if (tuning == Tuning::kPreciseTimers) {
    event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
  }
  event_base* base = event_base_new_with_config(config);
  event_config_free(config);
  require(base != nullptr, "create an event base");
  return base;
}

class LibeventLoop : public Loop {
 public:
  explicit LibeventLoop(Tuning tuning) : base(makeBase(tuning)) {}

  ~LibeventLoop() override {
    if (wakeUpEvent != nullptr) event_free(wakeUpEvent);
    event_base_free(base);
  }

  Id addReader(int fd, Handler& handler) override {
    return add(fd, EV_READ | EV_PERSIST, nullptr, handler);
  }

  Id addTimer(unsigned ms, bool periodic, Handler& handler) override {
    const timeval time = fromMs(ms);
    return add(-1, periodic ? EV_PERSIST : 0, &time, handler);
  }

  void rearm(Id timer, unsigned ms) override {
    const timeval time = fromMs(ms);
    require(event_add(static_cast<event*>(timer.pointer), &time) == 0, "add an event");
  }

  void remove(Id id) override { event_free(static_cast<event*>(id.pointer)); }

  void look() override {
    require(event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK) >= 0, "look");
  }

  void run() override {
    require(event_base_loop(base, EVLOOP_NO_EXIT_ON_EMPTY) >= 0, "run libevent");
  }

  void stop() override { event_base_loopbreak(base); }

  void onWakeUp(Handler& handler) override {
    wakeUpEvent = event_new(base, -1, 0, call, &handler);
    require(wakeUpEvent != nullptr, "create an event");
  }

  void wakeUp() override { event_active(wakeUpEvent, 0, 1); }

 private:
  static void call(evutil_socket_t, short, void* handler) {
    static_cast<Handler*>(handler)->onEvent();
  }

  Id add(int fd, int what, const timeval* time, Handler& handler) {
    event* added = event_new(base, fd, static_cast<short>(what), call, &handler);
    require(added != nullptr, "create an event");
    require(event_add(added, time) == 0, "add an event");
    return {0, added};
  }

  event_base* const base;
  event* wakeUpEvent = nullptr;
};

}  // namespace

std::unique_ptr<Loop> makeLibevent(Tuning tuning) {
  return std::make_unique<LibeventLoop>(tuning);
}

}  // namespace vexo::bench
