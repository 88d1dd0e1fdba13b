#include "worker.h"

#include <vector>

#include <fcntl.h>

#include <vexo_utils/fileutils.h>
#include <vexo_utils/procfs.h>
#include <vexo_utils/string_utils.h>

#include "console.h"

using console::say;

namespace {

constexpr unsigned kServiceMs = 20;

constexpr char kCrashes[] = "crashes of the worker";
constexpr char kDumps[] = "dumps, collected and read";
constexpr char kWork[] = "work done by the worker started again";

}  // namespace

Worker::Worker(vexo::utils::Scheduler& loop, Ledger& book)
    : scheduler(loop),
      ledger(book),
      worker([](const std::string& line) { say("worker", line); },
             [this](int status) { ended(status); }) {
  ledger.expect(kCrashes, 1, 1);
  ledger.expect(kDumps, 1, 1);
  ledger.expect(kWork, 1, 1);
}

bool Worker::start() {
  const auto service = [this](void*) {
    worker.service();
    return true;
  };
  return startWorker("crash") && scheduler.AddTimerTask(kServiceMs, service, nullptr) != 0;
}

bool Worker::done() const {
  return ledger.counted(kWork) == 1;
}

bool Worker::startWorker(const std::string& order) {
  std::string folder;
  return getModuleDir(folder) && worker.start(folder + "/camera_worker", {order});
}

void Worker::ended(int status) {
  if (status == 0) {
    ledger.count(kWork);
    say("worker", "has done its work");
    return;
  }
  ledger.count(kCrashes);
  say("worker", "ended with " + std::to_string(status) + ", starting it again");
  showDump();
  startWorker("work");
}

// The collector has copied the dump, since the next start makes room for its own, and has written
// what tools/read-crash-dump says of it into "trace".
void Worker::showDump() {
  std::vector<std::string> traces;
  glob("/var/crash/*/trace", traces);
  for (const std::string& trace : traces) {
    const auto show = [&](const std::string& line) {
      if (!vexo::utils::startsWith(line, "=>")) return true;
      say("crash", line);
      if (line.find("grabFrame") != std::string::npos) ledger.count(kDumps);
      return false;
    };
    forEachLine(trace, show, AT_FDCWD);
  }
}
