// vexo watch: changes of files and folders, as they happen.

#include <cstdio>
#include <string>

#include <sys/inotify.h>
#include <unistd.h>

#include <vexo_utils/FSWatcher.h>

#include "command.h"
#include "loop.h"

namespace {

constexpr struct {
  unsigned bit;
  const char* name;
} kEvents[] = {
    {IN_CREATE, "create"},     {IN_MODIFY, "modify"},         {IN_CLOSE_WRITE, "written"},
    {IN_ATTRIB, "attributes"}, {IN_MOVED_FROM, "moved-from"}, {IN_MOVED_TO, "moved-to"},
    {IN_DELETE, "delete"},     {IN_DELETE_SELF, "deleted"},   {IN_MOVE_SELF, "moved"},
    {IN_OPEN, "open"},         {IN_ACCESS, "read"},           {IN_CLOSE_NOWRITE, "closed"},
    {IN_UNMOUNT, "unmounted"}, {IN_IGNORED, "ended"},         {IN_ISDIR, "folder"},
};

constexpr unsigned kReaders = IN_OPEN | IN_ACCESS | IN_CLOSE_NOWRITE;
constexpr unsigned kChanges = (IN_ALL_EVENTS & ~kReaders) | IN_UNMOUNT | IN_IGNORED | IN_ISDIR;

std::string namesOf(unsigned mask) {
  std::string names;
  for (const auto& event : kEvents) {
    if ((mask & event.bit) != 0) names += (names.empty() ? "" : ",") + std::string(event.name);
  }
  return names;
}

int run(int argc, char** argv) {
  unsigned mask = kChanges;
  unsigned long long wanted = 0;  // 0: any number
  for (int option = 0; (option = getopt(argc, argv, "an:")) != -1;) {
    if (option == 'a') mask |= kReaders;
    if (option == '?') return misused("wrong option -%c", optopt);
    if (option == 'n' && !numberOf(optarg, 1ULL, ~0ULL, wanted)) {
      return misused("not a number above 0: %s", optarg);
    }
  }
  if (optind == argc) return misused("give a path");

  Loop loop;
  vexo::utils::FSWatcher watcher(&loop.scheduler);
  if (!loop.start() || !watcher.start()) return failed("cannot watch");
  unsigned long long seen = 0;
  const auto tell = [&](unsigned, const std::string& path, unsigned events, const char* name) {
    if (wanted != 0 && seen == wanted) return;
    std::printf("%-20s %s%s%s\n", namesOf(events).c_str(), path.c_str(), name ? "/" : "",
                name ? name : "");
    std::fflush(stdout);
    if (++seen == wanted) loop.stop();
  };
  for (int i = optind; i < argc; ++i) {
    if (!watcher.add(argv[i], mask, tell, nullptr)) return failed("cannot watch %s", argv[i]);
  }
  complain("watching");  // scripts wait for this line before they make changes
  return loop.run() ? kDone : failed("the event loop failed");
}

}  // namespace

const Command watchCommand = {"watch", "tell changes of files and folders as they happen",
                              R"(usage: vexo watch [-a] [-n COUNT] PATH...

Prints a line for each change of the files and folders, and of what is directly in the folders,
until Ctrl-C. Prints "watching" on standard error once it does.

  -a        also what only reads
  -n COUNT  ends after so many lines

  vexo watch /etc /tmp
)",
                              run};
