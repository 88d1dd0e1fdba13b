#include "vexo_utils/FSWatcher.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <utility>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "internal/log.h"
#include "vexo_utils/scheduler.h"
#include "vexo_utils/timer.h"

namespace vexo::utils {

namespace {

constexpr std::size_t kBufferStep = 160;
constexpr std::size_t kLongestRecord = sizeof(inotify_event) + NAME_MAX + 1;

}  // namespace

FSWatcher::FSWatcher(Scheduler* served) : scheduler(served) {}

FSWatcher::~FSWatcher() {
  stop();
}

bool FSWatcher::start() {
  stop();
  inotifyFd = inotify_init1(IN_NONBLOCK);
  if (inotifyFd < 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to inotify_init1");
    return false;
  }
  if (scheduler != nullptr) {
    const Scheduler::IoShortCallback serve = [this](int, void*) {
      const bool served = service(0);  // a callback may have destroyed the watcher: no member below
      if (!served) VEXO_LOG_ERROR("Failed FSWatcher::service()");
      return served;
    };
    taskId = scheduler->AddIOTask(inotifyFd, EPOLLIN, serve, nullptr);
    if (taskId == 0) {
      close(std::exchange(inotifyFd, -1));
      return false;
    }
  }
  buffer.resize(kBufferStep);
  running = std::make_shared<const bool>(true);
  return true;
}

bool FSWatcher::stop() {
  running.reset();
  if (inotifyFd < 0) return true;
  bool clean = true;
  if (taskId != 0) clean = scheduler->RemoveIOTask(std::exchange(taskId, 0));
  for (auto& [watchId, object] : watches) {
    if (stopWatch(watchId, object)) continue;
    VEXO_LOG_ERROR_ERRNO("Failed to stopWatch");
    clean = false;
  }
  if (!descriptors.empty()) {
    VEXO_LOG_ERROR("Unexpected state, all watch descriptors should be closed");
    descriptors.clear();
    clean = false;
  }
  if (close(std::exchange(inotifyFd, -1)) != 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to close inotifyFD");
    clean = false;
  }
  return clean;
}

bool FSWatcher::add(std::string path, unsigned int mask, Callback callback, unsigned int* watchId) {
  if (inotifyFd < 0) {
    VEXO_LOG_ERROR("Should be starter before calling add.");
    return false;
  }
  if (mask == 0) {
    VEXO_LOG_ERROR("No events mask");
    return false;
  }
  const unsigned int id = nextWatchId();
  if (id == 0) {
    VEXO_LOG_ERROR("Unable to allocate new watchId");
    return false;
  }
  const auto [added, inserted] =
      watches.emplace(id, WatchObject{std::move(path), mask, std::move(callback), -1});
  if (!inserted) {
    VEXO_LOG_ERROR("Failed to insert new watch object");
    return false;
  }
  if (!startWatch(id, added->second)) {
    VEXO_LOG_ERROR("Failed to start new watch");
    watches.erase(added);
    return false;
  }
  if (watchId != nullptr) *watchId = id;
  return true;
}

bool FSWatcher::remove(unsigned int watchId) {
  const auto found = watches.find(watchId);
  if (found == watches.end()) {
    VEXO_LOG_ERROR("Failed to stopWatch");
    return false;
  }
  const bool stopped = stopWatch(watchId, found->second);
  if (!stopped) VEXO_LOG_ERROR_ERRNO("Failed to stopWatch");
  // Taken out before it is destroyed: what the callback captured may call the watcher.
  const auto removed = watches.extract(found);
  return stopped;
}

bool FSWatcher::service(unsigned int timeoutMs) {
  if (inotifyFd < 0) {
    VEXO_LOG_ERROR("Should be starter before calling service.");
    return false;
  }
  if (timeoutMs != 0) {
    const int ready = waitReadable(timeoutMs);
    if (ready < 0) {
      VEXO_LOG_ERROR_ERRNO("Poll events error");
      return false;
    }
    if (ready == 0) return true;
  }
  std::vector<Event> events;
  if (!readEvents(events)) {
    VEXO_LOG_ERROR("Failed to read events");
    return false;
  }

  const std::weak_ptr<const bool> alive = running;
  for (const Event& event : events) {
    const auto watched = descriptors.find(event.wd);
    if (watched == descriptors.end()) continue;  // removed meanwhile, or -1: the queue overflowed
    const std::set<unsigned int> ids = watched->second;
    for (const unsigned int id : ids) {
      const auto watch = watches.find(id);
      if (watch == watches.end()) continue;
      const unsigned int mask = event.mask & watch->second.mask;
      if (mask == 0) continue;
      // Copies: the callback may remove its own watch.
      const Callback callback = watch->second.callback;
      const std::string path = watch->second.path;
      callback(id, path, mask, event.named ? event.name.c_str() : nullptr);
      if (alive.expired()) return true;  // stopped or destroyed by the callback
    }
    if ((event.mask & IN_IGNORED) != 0) forget(event.wd);
  }
  return true;
}

// 0 when all ids are taken.
unsigned int FSWatcher::nextWatchId() {
  if (watches.size() >= UINT_MAX) return 0;
  do {
    ++lastWatchId;
  } while (lastWatchId == 0 || watches.count(lastWatchId) != 0);
  return lastWatchId;
}

bool FSWatcher::startWatch(unsigned int watchId, WatchObject& object) {
  // Without IN_MASK_ADD the mask would replace that of another registration of the same file. The
  // kernel refuses it together with IN_MASK_CREATE.
  const unsigned int sharing = (object.mask & IN_MASK_CREATE) != 0 ? 0 : IN_MASK_ADD;
  const int wd = inotify_add_watch(inotifyFd, object.path.c_str(), object.mask | sharing);
  if (wd < 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to inotify_add_watch on: %s", object.path.c_str());
    return false;
  }
  descriptors[wd].insert(watchId);
  object.wd = wd;
  return true;
}

// False with errno when the kernel's watch could not be ended.
bool FSWatcher::stopWatch(unsigned int watchId, WatchObject& object) {
  const auto sharing = descriptors.find(std::exchange(object.wd, -1));
  if (sharing == descriptors.end()) return true;  // the kernel has ended it already
  const auto& [wd, ids] = *sharing;
  sharing->second.erase(watchId);
  if (!ids.empty()) return true;
  // EINVAL: the file is gone, and the kernel's word of it (IN_IGNORED) not read yet.
  if (inotify_rm_watch(inotifyFd, wd) != 0 && errno != EINVAL) return false;
  descriptors.erase(sharing);
  return true;
}

// As poll(2), with signals and its narrower time-out taken care of.
int FSWatcher::waitReadable(unsigned int timeoutMs) const {
  const long long deadline = nowMs() + timeoutMs;
  pollfd waited{inotifyFd, POLLIN, 0};
  for (long long left = timeoutMs; left > 0; left = deadline - nowMs()) {
    const int ready = poll(&waited, 1, static_cast<int>(std::min<long long>(left, INT_MAX)));
    const bool goOn = ready == 0 || (ready < 0 && errno == EINTR);
    if (!goOn) return ready;
  }
  return 0;
}

bool FSWatcher::readEvents(std::vector<Event>& events) {
  for (;;) {
    errno = 0;
    const ssize_t got = read(inotifyFd, buffer.data(), buffer.size());
    // The next record does not fit: old kernels say so by 0, newer ones by EINVAL.
    const bool tooSmall = got == 0 || (got < 0 && errno == EINVAL);
    if (tooSmall && buffer.size() < kLongestRecord) {
      buffer.resize(buffer.size() + kBufferStep);
      continue;
    }
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return true;
    if (got <= 0) {
      VEXO_LOG_ERROR_ERRNO("Read events failed");
      return false;
    }
    for (const char* at = buffer.data(); at < buffer.data() + got;) {
      inotify_event header{};
      std::memcpy(&header, at, sizeof header);
      at += sizeof header;
      events.push_back({header.wd, header.mask, header.len != 0, header.len != 0 ? at : ""});
      at += header.len;
    }
    return true;
  }
}

// The kernel has ended a watch.
void FSWatcher::forget(int wd) {
  const auto ended = descriptors.find(wd);
  if (ended == descriptors.end()) return;
  for (const unsigned int id : ended->second) {
    const auto watch = watches.find(id);
    if (watch != watches.end()) watch->second.wd = -1;
  }
  descriptors.erase(ended);
}

}  // namespace vexo::utils
