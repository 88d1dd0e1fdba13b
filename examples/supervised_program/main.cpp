// Keeps a program running: passes on its lines as they come, and starts it again when it fails, at
// most twice. The program is a shell here that succeeds at its third start.

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <sys/wait.h>

#include <vexo_utils/exec.h>

namespace {

// Prints the complete lines and leaves the rest.
void printLines(std::vector<char>& output) {
  for (;;) {
    const auto end = std::find(output.begin(), output.end(), '\n');
    if (end == output.end()) return;
    std::printf("  it says: %s\n", std::string(output.begin(), end).c_str());
    output.erase(output.begin(), end + 1);
  }
}

// Runs the program once. Its exit status, -1 when it could not be run or was killed.
int runOnce(int number) {
  std::vector<char> output;
  vexo::utils::SysExec program;
  program.setExe("/bin/sh").setOut(&output);
  program.setArgs({"-c", "echo start $1; test $1 = 3", "sh", std::to_string(number)});
  if (!program.start()) return -1;
  std::printf("started\n");
  while (program.getState() == 1 && program.service()) {
    printLines(output);
    program.waitReady(1000);
  }
  const bool exited = program.getState() == 34;
  const int status = exited ? WEXITSTATUS(program.getStatus()) : -1;
  program.stop();  // takes what was written last
  printLines(output);
  return status;
}

}  // namespace

int main() {
  for (int tries = 1; tries <= 3; ++tries) {
    const int status = runOnce(tries);
    std::printf("ended with %d\n", status);
    if (status == 0) return 0;
  }
  std::printf("giving up\n");
  return 1;
}
