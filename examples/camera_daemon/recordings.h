// Scene: the sounds and folders that the daemon keeps.
#pragma once

#include <vexo_utils/scheduler.h>

#include "ledger.h"
#include "scene.h"

class Recordings : public Scene {
 public:
  Recordings(vexo::utils::Scheduler& loop, Ledger& book);

  bool start() override;
  bool done() const override;

 private:
  void keepATone();
  void archive();

  vexo::utils::Scheduler& scheduler;
  Ledger& ledger;
};
