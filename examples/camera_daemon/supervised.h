// A program whose output is shown as it comes, and whose end is told.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <vexo_utils/exec.h>

class Supervised {
 public:
  // `onEnd` gets the exit status, and may start the program again.
  Supervised(std::function<void(const std::string&)> onLine, std::function<void(int)> onEnd);

  bool start(const std::string& exe, const std::vector<std::string>& arguments);

  // A step of supervision, to be called often from the loop; never waits.
  void service();

 private:
  void tellLines();

  std::function<void(const std::string&)> lineSeen;
  std::function<void(int)> ended;
  std::vector<char> output;
  vexo::utils::SysExec program;  // after its output, which it writes to until its end
};
