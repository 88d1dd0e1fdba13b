// Wakes up when a path may have come into being.
#pragma once

#include <string>

#include "internal/unique_fd.h"

namespace vexo::utils::internal {

class PathWatch {
 public:
  // Without an inotify instance, all but the time of `wait` is done without.
  PathWatch();

  // Watches the folder that `path` is to be in or, while that is missing, those above it. Whoever
  // looks for the path after this call, and does not find it, is woken when it comes. To be called
  // again after each `wait`.
  void add(const std::string& path);

  // Until something happened in a watched folder, or for `timeoutMs`.
  void wait(int timeoutMs);

 private:
  bool watch(const std::string& folder);

  UniqueFd inotify;
};

}  // namespace vexo::utils::internal
