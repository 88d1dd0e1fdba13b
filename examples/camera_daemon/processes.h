// Scene: the programs that the daemon runs.
#pragma once

#include <string>

#include <vexo_utils/scheduler.h>

#include "ledger.h"
#include "scene.h"
#include "supervised.h"

class Processes : public Scene {
 public:
  Processes(vexo::utils::Scheduler& loop, Ledger& book);

  bool start() override;
  bool done() const override;

 private:
  bool startEncoder();
  void encoderEnded(int status);
  void captureMuchOutput();
  void killTheStubborn();
  void findADaemon();

  vexo::utils::Scheduler& scheduler;
  Ledger& ledger;
  Supervised encoder;
};
