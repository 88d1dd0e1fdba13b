#include "settings.h"

#include <fcntl.h>
#include <sys/inotify.h>

#include <vexo_utils/fileutils.h>
#include <vexo_utils/string_utils.h>
#include <vexo_utils/timer.h>
#include <vexo_utils/timezone.h>
#include <vexo_utils/validation.h>

#include "console.h"

using console::say;

namespace {

constexpr char kFolder[] = "/etc/camera/network";
constexpr unsigned kClockMs = 200;

constexpr char kRefused[] = "settings refused";
constexpr char kTaken[] = "settings taken";
constexpr char kClock[] = "on-screen clock: from uptime to date";

}  // namespace

Settings::Settings(vexo::utils::Scheduler& loop, Ledger& book)
    : scheduler(loop), ledger(book), watcher(&loop) {
  ledger.expect(kRefused, 1, 1);
  ledger.expect(kTaken, 2, 2);
  ledger.expect(kClock, 1, 1);
}

bool Settings::start() {
  say("clock", "on screen: " + vexo::utils::generateOsdTimeString(nullptr));
  const auto clock = [this](void*) {
    showClock();
    return true;
  };
  const auto changed = [this](unsigned, const std::string& folder, unsigned, const char* name) {
    if (name != nullptr) read(folder + "/" + name);
  };
  return mkdirP(kFolder, false, 0755, AT_FDCWD) && watcher.start() &&
         watcher.add(kFolder, IN_CLOSE_WRITE, changed, nullptr) &&
         scheduler.AddTimerTask(kClockMs, clock, nullptr) != 0;
}

bool Settings::done() const {
  return ledger.counted(kTaken) == 2 && ledger.counted(kClock) == 1;
}

// Lines of KEY = VALUE.
void Settings::read(const std::string& path) {
  const auto line = [this](const std::string& text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) return true;
    std::string key = text.substr(0, equals);
    std::string value = text.substr(equals + 1);
    take(vexo::utils::trim(key), vexo::utils::trim(value));
    return true;
  };
  forEachLine(path, line, AT_FDCWD);
}

void Settings::take(const std::string& key, const std::string& value) {
  bool good = false;
  if (key == "address") good = vexo::utils::ipv4_address_valid(value, true, false);
  if (key == "passphrase") good = vexo::utils::psk_valid(value, true);
  if (key == "zone") good = vexo::utils::setTimeZone(value);
  ledger.count(good ? kTaken : kRefused);
  // What is secret is not shown.
  say("settings", key + (key == "passphrase" ? "" : " " + value) + (good ? " taken" : " refused"));
}

void Settings::showClock() {
  if (hasDate || !isTimeSyncedLately(60)) return;
  hasDate = true;
  ledger.count(kClock);
  say("clock", "on screen: " + vexo::utils::generateOsdTimeString("%Y-%m-%d %H:%M %Z"));
}
