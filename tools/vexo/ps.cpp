// vexo ps: processes by the name of their program.

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <unistd.h>

#include <vexo_utils/process.h>
#include <vexo_utils/procfs.h>
#include <vexo_utils/string_utils.h>

#include "command.h"

namespace {

int run(int argc, char** argv) {
  if (getopt(argc, argv, "") != -1) return misused("wrong option -%c", optopt);
  if (argc - optind != 1) return misused("give the name of a program");
  std::vector<int> pids;
  if (!vexo::utils::pidof(argv[optind], pids, {getpid()})) return failed("cannot search");
  bool found = false;
  for (const int pid : pids) {
    const std::string path = "/proc/" + std::to_string(pid) + "/cmdline";
    std::string line;
    if (!ReadProcFile(path.c_str(), line, 4096)) continue;  // it has ended meanwhile
    std::replace(line.begin(), line.end(), '\0', ' ');
    std::printf("%7d %s\n", pid, vexo::utils::trim(line).c_str());
    found = true;
  }
  return found ? kDone : kFailed;
}

}  // namespace

const Command psCommand = {"ps", "find the processes of a program",
                           R"(usage: vexo ps NAME

Prints process id and command line of the processes whose program is NAME, which is an extended
regular expression for all of the name; exit status 1 when there are none.

  vexo ps streamer
  vexo ps 'stream.*'
)",
                           run};
