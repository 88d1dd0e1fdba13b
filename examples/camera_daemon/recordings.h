// Scene: the sounds and folders that the daemon keeps.
#pragma once

#include <vexo_utils/scheduler.h>

#include "ledger.h"

class Recordings {
 public:
  Recordings(vexo::utils::Scheduler& loop, Ledger& book);

  // Puts the scene on the loop.
  bool start();
  bool done() const;

 private:
  void keepATone();
  void archive();

  vexo::utils::Scheduler& scheduler;
  Ledger& ledger;
};
