// A first program: ticks three times a second until Ctrl-C, or until the third tick.

#include <cstdio>

#include <signal.h>

#include <vexo_utils/scheduler.h>
#include <vexo_utils/timer.h>

int main() {
  vexo::utils::Scheduler scheduler;
  if (!scheduler.Init()) return 1;

  const long long start = nowMs();
  int ticks = 0;
  const auto tick = [&](void*) {
    std::printf("tick %d after %lld ms\n", ++ticks, nowMs() - start);
    return true;
  };
  bool interrupted = false;
  const auto interrupt = [&](void*) { return interrupted = true; };
  if (scheduler.AddTimerTask(333, tick, nullptr) == 0 ||
      scheduler.AddSignalHandler(SIGINT, interrupt, nullptr) == 0) {
    return 1;
  }

  while (ticks < 3 && !interrupted) {
    if (!scheduler.Service(-1)) return 1;
  }
  return 0;
}
