// camera_worker crash|work: a part of the camera daemon in a process of its own, which leaves a
// dump when it crashes.

#include <cstdio>
#include <cstring>

#include <vexo_utils/crashdumps.h>

namespace {

// Not inline, so that the trace has it as a frame of its own.
__attribute__((noinline)) void grabFrame(volatile int* frame) {
  *frame = 1;  // NOLINT(clang-analyzer-core.NullDereference): it is to crash
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || !InstallCrashDumpHandler("camera_worker")) return 1;
  std::puts("ready");
  std::fflush(stdout);
  int frame = 0;
  grabFrame(std::strcmp(argv[1], "crash") == 0 ? nullptr : &frame);
  std::puts("frame grabbed");
  return 0;
}
