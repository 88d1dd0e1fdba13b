#include "supervised.h"

#include <algorithm>
#include <utility>

#include <sys/wait.h>

Supervised::Supervised(std::function<void(const std::string&)> onLine,
                       std::function<void(int)> onEnd)
    : lineSeen(std::move(onLine)), ended(std::move(onEnd)) {}

bool Supervised::start(const std::string& exe, const std::vector<std::string>& arguments) {
  program.setExe(exe).setArgs(arguments).setOut(&output);
  return program.start();
}

void Supervised::service() {
  if (program.getState() != 1) return;
  const bool good = program.service();
  tellLines();
  if (good && program.getState() == 1) return;
  const int status = WEXITSTATUS(program.getStatus());
  program.stop();  // takes what was written last
  tellLines();
  ended(status);
}

void Supervised::tellLines() {
  for (;;) {
    const auto end = std::find(output.begin(), output.end(), '\n');
    if (end == output.end()) return;
    const std::string line(output.begin(), end);
    output.erase(output.begin(), end + 1);
    lineSeen(line);
  }
}
