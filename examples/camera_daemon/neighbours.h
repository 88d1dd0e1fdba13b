// Scene: what the daemon has to do with its neighbours: one that wants its place, one that waits
// for it, files that appear, the system log, and bytes in large numbers.
#pragma once

#include <vexo_utils/InterProcessMutex.h>
#include <vexo_utils/inode_listener.h>
#include <vexo_utils/iobuffer.h>
#include <vexo_utils/logread.h>
#include <vexo_utils/scheduler.h>
#include <vexo_utils/startupcontrolfile.h>

#include "ledger.h"
#include "scene.h"
#include "supervised.h"

class Neighbours : public Scene, private vexo::utils::IInodeNotifier {
 public:
  Neighbours(vexo::utils::Scheduler& loop, Ledger& book);
  ~Neighbours() override;

  bool start() override;
  bool done() const override;

  // The mains of the two other processes.
  static int beSecond();
  static int beTenant();

 private:
  bool startProcesses();
  void beReady();
  void notify(const std::string& name, unsigned int mask) override;
  void readLog();
  bool startRelay();
  bool send(unsigned long long id, int fd);
  bool receive(int fd);

  vexo::utils::Scheduler& scheduler;
  Ledger& ledger;
  InterProcessMutex place{"camera_daemon", false};
  vexo::utils::StartupControlFile startup;
  Supervised second;
  Supervised tenant;
  vexo::utils::InodeListener recordings;
  vexo::utils::Logread log;
  int lastFrame = 0;
  int ends[2] = {-1, -1};
  vexo::utils::IOBuffer outgoing{"outgoing"};
  vexo::utils::IOBuffer incoming{"incoming"};
  unsigned received = 0;
};
