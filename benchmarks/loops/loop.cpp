#include "loop.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace vexo::bench {

const std::vector<Contestant>& contestants() {
  static const std::vector<Contestant> all = {
      {"vexo", false, makeVexo},
      {"epoll/8", false, makeEpoll8},
      {"epoll/1024", false, makeEpoll1024},
      {"libuv", true, makeLibuv},
      {"libevent", true, makeLibevent},
      {"sd-event", true, makeSdEvent},
  };
  return all;
}

WakeDescriptor::WakeDescriptor() : descriptor(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  require(descriptor >= 0, "create an eventfd");
}

WakeDescriptor::~WakeDescriptor() {
  close(descriptor);
}

void WakeDescriptor::signal() const {
  require(eventfd_write(descriptor, 1) == 0, "signal an eventfd");
}

void WakeDescriptor::onEvent() {
  eventfd_t signals = 0;
  require(eventfd_read(descriptor, &signals) == 0, "read an eventfd");
  target->onEvent();
}

}  // namespace vexo::bench
