// Scene: settings that change while the daemon runs, each checked before it is taken.
#pragma once

#include <string>

#include <vexo_utils/FSWatcher.h>
#include <vexo_utils/scheduler.h>

#include "ledger.h"
#include "scene.h"

class Settings : public Scene {
 public:
  Settings(vexo::utils::Scheduler& loop, Ledger& book);

  bool start() override;
  bool done() const override;

 private:
  void read(const std::string& path);
  void take(const std::string& key, const std::string& value);
  void showClock();

  vexo::utils::Scheduler& scheduler;
  Ledger& ledger;
  vexo::utils::FSWatcher watcher;
  bool hasDate = false;
};
