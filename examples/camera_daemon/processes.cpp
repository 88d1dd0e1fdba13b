#include "processes.h"

#include <vector>

#include <signal.h>
#include <unistd.h>

#include <vexo_utils/exec.h>
#include <vexo_utils/process.h>
#include <vexo_utils/timer.h>

#include "console.h"

using console::say;

namespace {

constexpr unsigned kServiceMs = 20;
constexpr unsigned kErrandsMs = 700;
constexpr int kRestarts = 2;

constexpr char kLines[] = "lines of the supervised program";
constexpr char kRestarted[] = "restarts of the supervised program";
constexpr char kErrands[] = "errands: capture, kill, find";

}  // namespace

Processes::Processes(vexo::utils::Scheduler& loop, Ledger& book)
    : scheduler(loop),
      ledger(book),
      encoder(
          [this](const std::string& line) {
            ledger.count(kLines);
            say("process", "encoder: " + line);
          },
          [this](int status) { encoderEnded(status); }) {
  ledger.expect(kLines, 2 * (kRestarts + 1), 0);
  ledger.expect(kRestarted, kRestarts, kRestarts);
  ledger.expect(kErrands, 3, 3);
}

bool Processes::start() {
  const auto service = [this](void*) {
    encoder.service();
    return true;
  };
  const auto errands = [this](void*) {
    captureMuchOutput();
    killTheStubborn();
    findADaemon();
    return true;
  };
  return startEncoder() && scheduler.AddTimerTask(kServiceMs, service, nullptr) != 0 &&
         scheduler.AddTimerTask(kErrandsMs, 0, errands, nullptr) != 0;
}

bool Processes::done() const {
  return ledger.counted(kRestarted) == kRestarts && ledger.counted(kErrands) == 3 &&
         ledger.counted(kLines) >= 2 * (kRestarts + 1);
}

// ---- a program that is started again when it ends ----

bool Processes::startEncoder() {
  return encoder.start("/bin/sh", {"-c", "echo first frame; sleep 0.15; echo last frame; exit 3"});
}

void Processes::encoderEnded(int status) {
  if (ledger.counted(kRestarted) == kRestarts) {
    say("process", "encoder ended with " + std::to_string(status) + " for the last time");
    return;
  }
  ledger.count(kRestarted);
  say("process", "encoder ended with " + std::to_string(status) + ", starting it again");
  startEncoder();
}

// ---- one-line errands ----

void Processes::captureMuchOutput() {
  std::string out;
  const int status = vexo::utils::shellExec("head -c 1000000 /dev/zero | tr '\\0' x", nullptr, &out,
                                            nullptr, 0, 4096, 0);
  say("process", "captured " + std::to_string(out.size()) + " of 1000000 bytes, status " +
                     std::to_string(status));
  if (status == 0 && out == std::string(4096, 'x')) ledger.count(kErrands);
}

void Processes::killTheStubborn() {
  const int status = vexo::utils::shellExec("trap '' HUP INT TERM; while :; do sleep 1; done",
                                            nullptr, nullptr, nullptr, 200, 0, 0);
  say("process", "a program that ignores every signal was killed after 200 ms");
  if (status == -1) ledger.count(kErrands);
}

void Processes::findADaemon() {
  const std::string recorder = "/run/recorder";  // a name that no other process has
  int started = 0;
  std::vector<int> found;
  if (symlink("/bin/sleep", recorder.c_str()) != 0 ||
      !vexo::utils::sysExecAsyncSimplePid(recorder.c_str(), &started, {"1000"})) {
    return;
  }
  // The kernel shows a program's name a moment after it has begun to execute it.
  for (int tries = 0; found.empty() && tries < 100; ++tries) {
    if (tries > 0) sleepMs(10);
    if (!vexo::utils::pidof("recorder", found)) return;
  }
  say("process", "started the daemon recorder with pid " + std::to_string(started) + ", found " +
                     std::to_string(found.size()) + " of that name");
  if (found == std::vector<int>{started}) ledger.count(kErrands);
  kill(started, SIGKILL);
  unlink(recorder.c_str());
}
