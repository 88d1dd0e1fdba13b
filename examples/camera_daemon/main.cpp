// A small camera daemon, and the tutorial of the library: one event loop that serves timers,
// signals, a configuration folder and another thread. The other scenes are in files of their own:
// access.cpp, mounting.cpp, neighbours.cpp, processes.cpp, recordings.cpp, settings.cpp,
// worker.cpp.
//
//   camera_daemon [--check]     --check: exit status 1 unless everything expected was served
//   camera_daemon --PART ...    the other processes of its scenes, which it starts itself
//
// It keeps /run/camera_daemon.pid and /run/camera_daemon.status, which demo.sh waits for.

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <vexo_utils/FSWatcher.h>
#include <vexo_utils/scheduler.h>
#include <vexo_utils/timer.h>

#include "access.h"
#include "console.h"
#include "ledger.h"
#include "mounting.h"
#include "neighbours.h"
#include "processes.h"
#include "recordings.h"
#include "scene.h"
#include "settings.h"
#include "worker.h"

using console::say;
using vexo::utils::FSWatcher;
using vexo::utils::Scheduler;

namespace {

constexpr char kConfigFolder[] = "/etc/camera";
constexpr unsigned kHeartbeatMs = 400;
constexpr unsigned kFirstShotMs = 150;
constexpr int kShots = 3;
constexpr int kMotions = 3;

class CameraDaemon {
 public:
  explicit CameraDaemon(Ledger& book) : ledger(book), watcher(&scheduler) {
    scenes.push_back(std::make_unique<Processes>(scheduler, book));
    scenes.push_back(std::make_unique<Recordings>(scheduler, book));
    scenes.push_back(std::make_unique<Mounting>(scheduler, book));
    scenes.push_back(std::make_unique<Worker>(scheduler, book));
    scenes.push_back(std::make_unique<Settings>(scheduler, book));
    scenes.push_back(std::make_unique<Access>(scheduler, book));
    scenes.push_back(std::make_unique<Neighbours>(scheduler, book));
    ledger.expect("periodic timer", 3, 0);
    ledger.expect("one-shot timer, armed anew by itself", kShots, kShots);
    ledger.expect("wake-ups by the second thread", kMotions, 0);
    ledger.expect("configuration changes", 4, 4);
    ledger.expect("signals", 1, 1);
  }

  bool run() {
    const auto starts = [](const auto& scene) { return scene->start(); };
    if (!scheduler.Init() || !serveSignals() || !serveTimers() || !serveConfiguration() ||
        !std::all_of(scenes.begin(), scenes.end(), starts)) {
      return false;
    }
    writeFile("/run/camera_daemon.pid", std::to_string(getpid()));
    std::thread sensor([this] { watchSensor(); });
    say("daemon", "up, pid " + std::to_string(getpid()) + ", watching " + kConfigFolder);

    bool healthy = true;
    while (healthy && !stopping) {
      healthy = scheduler.Service(-1);
      showMotions();
      writeStatus();
    }

    stopping = true;
    sensor.join();
    watcher.stop();
    scheduler.Stop();
    say("daemon", healthy ? "down" : "down: the loop failed");
    return healthy;
  }

 private:
  bool serveSignals() {
    const auto stop = [this](unsigned long long, unsigned int signo, void*) {
      ledger.count("signals");
      say("signal", std::string(strsignal(static_cast<int>(signo))) + ": shutting down");
      stopping = true;
    };
    return scheduler.AddSignalHandler(SIGINT, stop, nullptr) != 0 &&
           scheduler.AddSignalHandler(SIGTERM, stop, nullptr) != 0;
  }

  bool serveTimers() {
    const auto beat = [this](void*) {
      ledger.count("periodic timer");
      say("timer", "heartbeat " + std::to_string(ledger.counted("periodic timer")));
      return true;
    };
    // Fires once, and arms itself anew for twice the time until it has fired often enough.
    const auto shoot = [this](unsigned long long id, void*) {
      ledger.count("one-shot timer, armed anew by itself");
      if (++shots == kShots) {
        say("timer", "one-shot fired for the last time");
        return true;
      }
      const unsigned next = kFirstShotMs << shots;
      say("timer", "one-shot fired, next in " + std::to_string(next) + " ms");
      return scheduler.UpdateTimerTask(id, next, 0);
    };
    return scheduler.AddTimerTask(kHeartbeatMs, beat, nullptr) != 0 &&
           scheduler.AddTimerTask(kFirstShotMs, 0, shoot, nullptr) != 0;
  }

  bool serveConfiguration() {
    // IN_CLOSE_WRITE: written in place; IN_MOVED_TO: replaced, as careful editors do.
    const unsigned mask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE;
    const auto changed = [this](unsigned, const std::string& folder, unsigned event,
                                const char* name) {
      if (name == nullptr || name[0] == '.') return;  // an editor's temporary
      ledger.count("configuration changes");
      const char* how = (event & IN_CLOSE_WRITE) != 0 ? "written"
                        : (event & IN_MOVED_TO) != 0  ? "replaced"
                                                      : "deleted";
      say("config", std::string(name) + " " + how + contentsOf(folder + "/" + name));
    };
    return watcher.start() && watcher.add(kConfigFolder, mask, changed, nullptr);
  }

  // The second thread: sees motions, and wakes the loop, which shows them.
  void watchSensor() {
    for (int seen = 0; seen < kMotions && !stopping; ++seen) {
      sleepMs(250);
      ++motions;
      scheduler.WakeUp();
    }
  }

  void showMotions() {
    for (int seen = motions.exchange(0); seen > 0; --seen) {
      ledger.count("wake-ups by the second thread");
      say("motion", "seen by the sensor's thread");
    }
  }

  static std::string contentsOf(const std::string& path) {
    std::ifstream file(path);
    std::string text;
    for (std::string line; std::getline(file, line);) text += (text.empty() ? ": " : "; ") + line;
    return text;
  }

  static void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path + ".new") << text << '\n';
    rename((path + ".new").c_str(), path.c_str());
  }

  // For demo.sh: what of the scenario is done.
  void writeStatus() {
    std::string status =
        "changes=" + std::to_string(ledger.counted("configuration changes")) +
        "\nattitudes=" + std::to_string(ledger.counted("attitude changes")) + "\nsettings=" +
        std::to_string(ledger.counted("settings taken") + ledger.counted("settings refused")) +
        "\nlogged=" + std::to_string(ledger.counted("lines of the log, none lost or torn"));
    const auto done = [](const auto& scene) { return scene->done(); };
    if (ledger.counted("periodic timer") >= 3 && shots == kShots &&
        ledger.counted("wake-ups by the second thread") == kMotions &&
        std::all_of(scenes.begin(), scenes.end(), done)) {
      status += "\nscenes=done";
    }
    if (status == writtenStatus) return;
    writeFile("/run/camera_daemon.status", status);
    writtenStatus = status;
  }

  Ledger& ledger;
  Scheduler scheduler;
  FSWatcher watcher;  // after the scheduler, so that it ends before it
  std::vector<std::unique_ptr<Scene>> scenes;
  std::atomic<bool> stopping{false};
  std::atomic<int> motions{0};  // seen and not yet shown
  int shots = 0;
  std::string writtenStatus;
};

}  // namespace

int main(int argc, char** argv) {
  const std::string part = argc > 2 ? argv[1] : "";
  if (part == "--farewell") return Access::sayFarewell(argv[2]);
  if (part == "--second") return Neighbours::beSecond();
  if (part == "--tenant") return Neighbours::beTenant();
  const bool check = argc > 1 && std::strcmp(argv[1], "--check") == 0;
  Ledger ledger;
  bool healthy = false;
  {
    CameraDaemon daemon(ledger);
    healthy = daemon.run();
  }
  const bool asExpected = ledger.close();
  return healthy && (asExpected || !check) ? 0 : 1;
}
