// An event loop that Ctrl-C or SIGTERM ends.
#pragma once

#include <signal.h>

#include <vexo_utils/scheduler.h>

class Loop {
 public:
  vexo::utils::Scheduler scheduler;

  bool start() {
    const auto end = [this](void*) { return stopping = true; };
    return scheduler.Init() && scheduler.AddSignalHandler(SIGINT, end, nullptr) != 0 &&
           scheduler.AddSignalHandler(SIGTERM, end, nullptr) != 0;
  }

  // Until stop or a signal. False: the loop failed.
  bool run() {
    while (!stopping) {
      if (!scheduler.Service(-1)) return false;
    }
    return true;
  }

  void stop() { stopping = true; }

 private:
  bool stopping = false;
};
