// Scene: how the camera hangs, by its accelerometers.
#pragma once

#include <vexo_utils/CameraAttitude.h>
#include <vexo_utils/scheduler.h>

#include "ledger.h"
#include "scene.h"

class Mounting : public Scene {
 public:
  Mounting(vexo::utils::Scheduler& loop, Ledger& book);

  bool start() override;
  bool done() const override;

 private:
  bool changed(vexo::utils::Attitude now);

  vexo::utils::Scheduler& scheduler;
  Ledger& ledger;
  vexo::utils::CameraAttitude attitude;
  vexo::utils::Attitude last = vexo::utils::Attitude::unknown;
  bool refused = false;
};
