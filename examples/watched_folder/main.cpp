// Watches a folder on the event loop, and takes in a file as soon as it is complete there: either
// closed after writing, or moved in under its name.

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <sys/inotify.h>

#include <vexo_utils/FSWatcher.h>
#include <vexo_utils/fileutils.h>
#include <vexo_utils/scheduler.h>

int main() {
  char folder[] = "/tmp/watched.XXXXXX";
  if (mkdtemp(folder) == nullptr) return 1;

  vexo::utils::Scheduler scheduler;
  vexo::utils::FSWatcher watcher(&scheduler);  // goes before its scheduler
  if (!scheduler.Init() || !watcher.start()) return 1;

  int taken = 0;
  const auto take = [&](unsigned, const std::string& path, unsigned mask, const char* name) {
    if (name == nullptr) return;  // it happened to the folder itself
    const auto text = readFromFile(path + "/" + name, AT_FDCWD);
    if (!text) return;
    std::printf("%s %s: %s", (mask & IN_MOVED_TO) != 0 ? "moved in" : "written", name,
                text->c_str());
    ++taken;
  };
  if (!watcher.add(folder, IN_CLOSE_WRITE | IN_MOVED_TO, take, nullptr)) return 1;

  // What others do: write a file in place, and make one elsewhere and move it in.
  const std::string made = std::string(folder) + "/osd.conf";
  const std::string moved = std::string(folder) + "/audio.conf";
  std::ofstream("/tmp/elsewhere") << "volume = 40\n";
  std::ofstream(made) << "text = Front door\n";
  if (!renameFile("/tmp/elsewhere", moved.c_str(), AT_FDCWD, AT_FDCWD)) return 1;

  bool late = false;
  const auto giveUp = [&](void*) { return late = true; };
  if (scheduler.AddTimerTask(10'000, giveUp, nullptr) == 0) return 1;
  while (taken < 2 && !late) {
    if (!scheduler.Service(-1)) return 1;
  }
  return watcher.stop() && rmRf(folder, AT_FDCWD) && !late ? 0 : 1;
}
