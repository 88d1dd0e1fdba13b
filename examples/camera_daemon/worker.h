// Scene: a worker of the daemon (camera_worker.cpp) crashes, leaves its trace, and is started
// again.
#pragma once

#include <string>

#include <vexo_utils/scheduler.h>

#include "ledger.h"
#include "scene.h"
#include "supervised.h"

class Worker : public Scene {
 public:
  Worker(vexo::utils::Scheduler& loop, Ledger& book);

  bool start() override;
  bool done() const override;

 private:
  bool startWorker(const std::string& order);
  void ended(int status);
  void showDump();

  vexo::utils::Scheduler& scheduler;
  Ledger& ledger;
  Supervised worker;
};
