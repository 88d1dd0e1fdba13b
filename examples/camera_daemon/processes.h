// Scene: the programs that the daemon runs.
#pragma once

#include <string>
#include <vector>

#include <vexo_utils/exec.h>
#include <vexo_utils/scheduler.h>

#include "ledger.h"

class Processes {
 public:
  Processes(vexo::utils::Scheduler& loop, Ledger& book);

  // Puts the scene on the loop.
  bool start();
  bool done() const;

 private:
  bool startEncoder();
  bool serviceEncoder();
  void showLines();
  void captureMuchOutput();
  void killTheStubborn();
  void findADaemon();

  vexo::utils::Scheduler& scheduler;
  Ledger& ledger;
  std::vector<char> encoderOutput;
  vexo::utils::SysExec encoder;  // after its output, which it writes to until its end
};
