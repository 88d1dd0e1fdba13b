// A program that crashes, and one that looks what is left of it. (To see functions and lines of a
// dump, use tools/read-crash-dump or "vexo crash show".)

#include <cstdio>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vexo_utils/crashdumps.h>
#include <vexo_utils/fileutils.h>

namespace {

// Not inline, so that it has a frame of its own.
__attribute__((noinline)) void writeTo(volatile int* number) {
  *number = 1;  // NOLINT(clang-analyzer-core.NullDereference): it is to crash
}

[[noreturn]] void crash() {
  if (!InstallCrashDumpHandler("crash_report")) _exit(2);
  writeTo(nullptr);
  _exit(3);
}

// Prints the signal, and how much there is of the rest.
bool showDump(const std::string& path) {
  int frames = 0;
  int mappings = 0;
  int* counted = nullptr;
  const auto look = [&](const std::string& line) {
    if (line.find("SIGNAL: ") == 0) std::printf("%s\n", line.c_str());
    if (counted != nullptr && !line.empty()) ++*counted;
    if (line == "--- STACK TRACE ---") counted = &frames;
    if (line == "--- MEMORY MAP ---") counted = &mappings;
    return true;
  };
  if (!forEachLine(path, look, AT_FDCWD)) return false;
  std::printf("the trace has frames: %s, the map has lines: %s\n", frames > 2 ? "yes" : "no",
              mappings > 2 ? "yes" : "no");
  return frames > 2 && mappings > 2;
}

}  // namespace

int main() {
  const pid_t child = fork();
  if (child == 0) crash();
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return 1;
  std::printf("it ended with status %d\n", WEXITSTATUS(status));

  std::vector<std::string> dumps;
  glob("/tmp/crashdumps/crash_report/*/stack", dumps);
  return dumps.size() == 1 && showDump(dumps[0]) ? 0 : 1;
}
