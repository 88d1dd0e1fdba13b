// Scene: who may come in, and how the daemon says farewell.
#pragma once

#include <vexo_utils/iobuffer.h>
#include <vexo_utils/scheduler.h>

#include "ledger.h"
#include "scene.h"
#include "supervised.h"

class Access : public Scene {
 public:
  Access(vexo::utils::Scheduler& loop, Ledger& book);
  ~Access() override;

  bool start() override;
  bool done() const override;

  // The main of the process that says farewell: `port` is where its listener is.
  static int sayFarewell(const char* port);

 private:
  void checkPasswords();
  void checkTokens();
  bool listen();
  void hear();
  bool startFarewell();
  static int showRequests();

  vexo::utils::Scheduler& scheduler;
  Ledger& ledger;
  Supervised accessDaemon;
  Supervised leaving;
  int listener = -1;
  unsigned short port = 0;
  vexo::utils::IOBuffer heard{"announcements"};
};
