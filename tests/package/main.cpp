// A user's first program: one tick of a timer, with nothing but the installed library.

#include <cstdio>

#include <vexo_utils/scheduler.h>
#include <vexo_utils/timer.h>

static_assert(_FILE_OFFSET_BITS == 64, "the package passes this on");

int main() {
  vexo::utils::Scheduler scheduler;
  bool ticked = false;
  const auto tick = [&](void*) { return ticked = true; };
  if (!scheduler.Init() || scheduler.AddTimerTask(1, tick, nullptr) == 0) return 1;
  while (!ticked) {
    if (!scheduler.Service(-1)) return 1;
  }
  std::printf("ticked, %s after start\n", timeToString(0).c_str());
  return 0;
}
