#include "internal/path_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace vexo::utils::internal {

PathWatch::PathWatch() : inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

void PathWatch::add(const std::string& path) {
  const std::size_t slash = path.find_last_of('/', path.find_last_not_of('/'));
  if (slash == std::string::npos) {
    watch(".");
    return;
  }
  if (watch(path.substr(0, slash + 1))) return;
  // From the top down: what is made while this runs is either watched itself or seen from above.
  watch(path.front() == '/' ? "/" : ".");
  for (std::size_t end = path.find('/', 1); end <= slash; end = path.find('/', end + 1)) {
    if (!watch(path.substr(0, end))) return;
  }
}

void PathWatch::wait(int timeoutMs) {
  pollfd events{inotify.get(), POLLIN, 0};  // a negative descriptor is passed over
  if (poll(&events, 1, timeoutMs) <= 0) return;
  char block[4096];
  while (read(inotify.get(), block, sizeof block) > 0) {
  }
}

bool PathWatch::watch(const std::string& folder) {
  // A folder that goes away takes its watch with it: the next add starts further up.
  constexpr unsigned int kEvents = IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;
  return inotify_add_watch(inotify.get(), folder.c_str(), kEvents | IN_ONLYDIR) >= 0;
}

}  // namespace vexo::utils::internal
