#include <cstdint>

#include <sys/epoll.h>

#include <systemd/sd-event.h>

#include "loop.h"

namespace vexo::bench {

namespace {

constexpr std::uint64_t kForever = UINT64_MAX;
constexpr std::uint64_t kAccuracyUs = 1;  // the finest; 0 would mean a quarter of a second

class SdEventLoop : public Loop {
 public:
  SdEventLoop() { require(sd_event_new(&loop) >= 0, "create an sd-event loop"); }

  ~SdEventLoop() override {
    if (wakeUpSource != nullptr) sd_event_source_disable_unref(wakeUpSource);
    sd_event_unref(loop);
  }

  Id addReader(int fd, Handler& handler) override { return {0, addSource(fd, handler)}; }

  Id addTimer(unsigned ms, bool periodic, Handler& handler) override {
    const std::uint64_t us = ms * 1000ULL;
    sd_event_source* source = nullptr;
    if (!periodic) {
      addTimeSource(&source, us, onOnce, &handler);
    } else {
      period = {us, &handler};
      addTimeSource(&source, us, onPeriod, &period);
      sd_event_source_set_enabled(source, SD_EVENT_ON);
    }
    return {0, source};
  }

  void rearm(Id id, unsigned ms) override {
    auto* source = static_cast<sd_event_source*>(id.pointer);
    require(sd_event_source_set_time_relative(source, ms * 1000ULL) >= 0, "set a timer");
    require(sd_event_source_set_enabled(source, SD_EVENT_ONESHOT) >= 0, "enable a timer");
  }

  void remove(Id id) override {
    sd_event_source_disable_unref(static_cast<sd_event_source*>(id.pointer));
  }

  void look() override { require(sd_event_run(loop, 0) >= 0, "look"); }

  void run() override {
    stopped = false;
    while (!stopped) require(sd_event_run(loop, kForever) >= 0, "run sd-event");
  }

  void stop() override { stopped = true; }

  void onWakeUp(Handler& handler) override {
    wakeDescriptor.setTarget(handler);
    wakeUpSource = addSource(wakeDescriptor.fd(), wakeDescriptor);
  }

  void wakeUp() override { wakeDescriptor.signal(); }

 private:
  struct Periodic {
    std::uint64_t us;
    Handler* handler;
  };

  static int call(void* handler) {
    static_cast<Handler*>(handler)->onEvent();
    return 0;
  }

  static int onReadable(sd_event_source*, int, std::uint32_t, void* handler) {
    return call(handler);
  }

  static int onOnce(sd_event_source*, std::uint64_t, void* handler) { return call(handler); }

  // A source has no period: the callback names the next time, the first that is not past.
  static int onPeriod(sd_event_source* source, std::uint64_t dueUs, void* data) {
    const auto* timer = static_cast<const Periodic*>(data);
    std::uint64_t nowUs = 0;
    sd_event_now(sd_event_source_get_event(source), CLOCK_MONOTONIC, &nowUs);
    do {
      dueUs += timer->us;
    } while (dueUs <= nowUs);
    sd_event_source_set_time(source, dueUs);
    return call(timer->handler);
  }

  void addTimeSource(sd_event_source** source, std::uint64_t us, sd_event_time_handler_t callback,
                     void* data) {
    require(sd_event_add_time_relative(loop, source, CLOCK_MONOTONIC, us, kAccuracyUs, callback,
                                       data) >= 0,
            "add a timer");
  }

  sd_event_source* addSource(int fd, Handler& handler) {
    sd_event_source* source = nullptr;
    require(sd_event_add_io(loop, &source, fd, EPOLLIN, onReadable, &handler) >= 0, "add a source");
    return source;
  }

  sd_event* loop = nullptr;
  bool stopped = false;
  Periodic period{};  // one at a time
  WakeDescriptor wakeDescriptor;
  sd_event_source* wakeUpSource = nullptr;
};

}  // namespace

std::unique_ptr<Loop> makeSdEvent(Tuning) {
  return std::make_unique<SdEventLoop>();
}

}  // namespace vexo::bench
