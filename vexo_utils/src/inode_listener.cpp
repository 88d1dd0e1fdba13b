#include "vexo_utils/inode_listener.h"

#include <cerrno>
#include <exception>
#include <new>
#include <utility>

#include <poll.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

#include "internal/log.h"

namespace vexo::utils {

namespace {

constexpr std::size_t kBufferSize = 16384;

// As select(2) on one descriptor; also on those that do not fit into its sets.
int waitReadable(int fd, unsigned long timeoutMs) {
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  if (fd >= FD_SETSIZE) {
    const timespec limit{static_cast<time_t>(timeoutMs / 1000),
                         static_cast<long>(timeoutMs % 1000 * 1'000'000)};
    pollfd waited{fd, POLLIN, 0};
    const int ready = ppoll(&waited, 1, &limit, nullptr);
    if (ready <= 0 || (waited.revents & POLLNVAL) == 0) return ready;
    errno = EBADF;
    return -1;
  }
  timeval limit{static_cast<time_t>(timeoutMs / 1000),
                static_cast<suseconds_t>(timeoutMs % 1000 * 1000)};
  fd_set waited;
  FD_ZERO(&waited);
  FD_SET(fd, &waited);
  return select(fd + 1, &waited, nullptr, nullptr, &limit);
}

void forgetPattern(InodeListener::WatchObject& watch) {
  if (std::exchange(watch.compiled, false)) regfree(&watch.regex);
}

}  // namespace

IInodeNotifier::~IInodeNotifier() = default;

BareInodeNotifier::BareInodeNotifier(void (*called)(const std::string& name, unsigned int mask))
    : function(called) {}

void BareInodeNotifier::notify(const std::string& name, unsigned int mask) {
  if (function != nullptr) function(name, mask);
}

InodeListener::WatchObject::~WatchObject() {
  forgetPattern(*this);
}

InodeListener::InodeListener() = default;

InodeListener::~InodeListener() {
  stop();
}

bool InodeListener::start(const std::string& dir, const std::string& pattern, unsigned int mask,
                          IInodeNotifier* notified) {
  if (notifier != nullptr) {
    VEXO_LOG_ERROR("Already started");
    return false;
  }
  if (dir.empty()) {
    VEXO_LOG_ERROR("Invalid directory name (empty)");
    return false;
  }
  if (mask == 0) {
    VEXO_LOG_ERROR("Invalid flags value (should be non-zero)");
    return false;
  }
  if (notified == nullptr) {
    VEXO_LOG_ERROR("Invalid notifier (null)");
    return false;
  }
  if (buffer == nullptr) buffer.reset(new (std::nothrow) char[kBufferSize]);
  if (buffer == nullptr) {
    VEXO_LOG_ERROR_ERRNO("`std::new` error");
    return false;
  }
  running = std::make_shared<const bool>(true);
  notifier = notified;
  return init() && add(dir, pattern, mask, watch);
}

bool InodeListener::service(unsigned long timeoutMs) {
  if (notifier == nullptr) return true;
  const int ready = waitReadable(fd, timeoutMs);
  if (ready < 0) {
    VEXO_LOG_ERROR_ERRNO("`select()` error");
    return false;
  }
  if (ready == 0) return true;
  std::vector<inotify_event*> events;
  if (!read(events)) VEXO_LOG_ERROR("Failed to read events");
  if (!notifyMatchedEvents(events)) VEXO_LOG_ERROR("Failed to notify");
  return true;
}

void InodeListener::stop() {
  running.reset();
  buffer.reset();
  forgetPattern(watch);
  watch.wd = -1;
  notifier = nullptr;
  close();
}

bool InodeListener::init() {
  if (fd >= 0) {
    VEXO_LOG_WARNING("Calling `init()` on already initialized object");
    return true;
  }
  fd = inotify_init1(IN_NONBLOCK);
  if (fd < 0) VEXO_LOG_ERROR_ERRNO("inotify_init1() error");
  return fd >= 0;
}

bool InodeListener::add(const std::string& dir, const std::string& pattern, unsigned int mask,
                        WatchObject& added) {
  forgetPattern(added);
  const char* expression = pattern.empty() ? "*" : pattern.c_str();
  const int error = regcomp(&added.regex, expression, REG_EXTENDED | REG_NOSUB);
  if (error != 0) {
    char reason[1024];
    regerror(error, &added.regex, reason, sizeof reason);
    VEXO_LOG_ERROR("Failed to compile regex: %s", reason);
    return false;
  }
  added.compiled = true;
  added.wd = inotify_add_watch(fd, dir.c_str(), mask);
  if (added.wd < 0) VEXO_LOG_ERROR_ERRNO("`inotify_add_watch()` error");
  return added.wd >= 0;
}

bool InodeListener::read(std::vector<inotify_event*>& events) {
  if (buffer == nullptr) {
    VEXO_LOG_ERROR("Data buffer is not allocated");
    return false;
  }
  std::vector<inotify_event*>().swap(events);
  const ssize_t got = ::read(fd, buffer.get(), kBufferSize);
  if (got < 0 && errno == EINTR) {
    VEXO_LOG_WARNING("`read()` was interruped. Try again");
    return true;
  }
  if (got < 0 && errno == EAGAIN) {
    VEXO_LOG_WARNING("`read()` has nothing to return. Try again");
    return true;
  }
  if (got < 0) {
    VEXO_LOG_ERROR_ERRNO("`read()` error");
    return false;
  }
  if (got == 0) {
    VEXO_LOG_ERROR("buffer is too small");
    return false;
  }
  for (char* at = buffer.get(); at < buffer.get() + got;) {
    // The kernel fills names up to multiples of an event's size: all events are aligned.
    auto* event = reinterpret_cast<inotify_event*>(at);
    events.push_back(event);
    at += sizeof *event + event->len;
  }
  return true;
}

bool InodeListener::notifyMatchedEvents(const std::vector<inotify_event*>& events) {
  const std::weak_ptr<const bool> alive = running;
  std::exception_ptr thrown;
  for (const inotify_event* event : events) {
    if (alive.expired()) break;  // stopped or destroyed by the notifier, or never started
    const char* name = event->len != 0 ? event->name : "";
    if (!matches(name)) continue;
    try {
      notifier->notify(name, event->mask);
    } catch (...) {  // must not lose the events that follow
      thrown = std::current_exception();
    }
  }
  if (thrown != nullptr) std::rethrow_exception(thrown);
  return true;
}

bool InodeListener::close() {
  if (fd == -1) return true;
  if (::close(std::exchange(fd, -1)) == 0) return true;
  VEXO_LOG_ERROR_ERRNO("close() error");
  return false;
}

// What happens to the folder itself has no name and always counts.
bool InodeListener::matches(const char* name) const {
  return *name == '\0' || (watch.compiled && regexec(&watch.regex, name, 0, nullptr, 0) == 0);
}

}  // namespace vexo::utils
