#include <uv.h>

#include "loop.h"

namespace vexo::bench {

namespace {

class LibuvLoop : public Loop {
 public:
  LibuvLoop() { require(uv_loop_init(&loop) == 0, "initialise libuv"); }

  ~LibuvLoop() override {
    if (wakeUpHandler != nullptr) uv_close(reinterpret_cast<uv_handle_t*>(&async), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);  // closes what was removed
    require(uv_loop_close(&loop) == 0, "close libuv's loop");
  }

  Id addReader(int fd, Handler& handler) override {
    auto* poll = new uv_poll_t;
    require(uv_poll_init(&loop, poll, fd) == 0, "initialise a poll handle");
    poll->data = &handler;
    const auto onReadable = [](uv_poll_t* handle, int, int) { call(handle->data); };
    require(uv_poll_start(poll, UV_READABLE, onReadable) == 0, "start a poll handle");
    return {0, poll};
  }

  Id addTimer(unsigned ms, bool periodic, Handler& handler) override {
    auto* timer = new uv_timer_t;
    require(uv_timer_init(&loop, timer) == 0, "initialise a timer");
    timer->data = &handler;
    require(uv_timer_start(timer, onExpiry, ms, periodic ? ms : 0) == 0, "start a timer");
    return {0, timer};
  }

  void rearm(Id id, unsigned ms) override {
    require(uv_timer_start(static_cast<uv_timer_t*>(id.pointer), onExpiry, ms, 0) == 0,
            "start a timer");
  }

  void remove(Id id) override {
    uv_close(static_cast<uv_handle_t*>(id.pointer), [](uv_handle_t* handle) {
      if (handle->type == UV_POLL) {
        delete reinterpret_cast<uv_poll_t*>(handle);
      } else {
        delete reinterpret_cast<uv_timer_t*>(handle);
      }
    });
  }

  void look() override { uv_run(&loop, UV_RUN_NOWAIT); }
  void run() override { uv_run(&loop, UV_RUN_DEFAULT); }
  void stop() override { uv_stop(&loop); }

  void onWakeUp(Handler& handler) override {
    wakeUpHandler = &handler;
    async.data = &handler;
    const auto onAsync = [](uv_async_t* handle) { call(handle->data); };
    require(uv_async_init(&loop, &async, onAsync) == 0, "initialise an async handle");
  }

  void wakeUp() override { require(uv_async_send(&async) == 0, "wake libuv"); }

 private:
  static void call(void* handler) { static_cast<Handler*>(handler)->onEvent(); }
  static void onExpiry(uv_timer_t* handle) { call(handle->data); }

  uv_loop_t loop{};
  uv_async_t async{};
  Handler* wakeUpHandler = nullptr;
};

}  // namespace

std::unique_ptr<Loop> makeLibuv(Tuning) {
  return std::make_unique<LibuvLoop>();
}

}  // namespace vexo::bench
