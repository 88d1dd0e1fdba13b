// vexo tz: the system's time zone.

#include <cstdio>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <vexo_utils/fileutils.h>
#include <vexo_utils/timezone.h>

#include "command.h"

namespace {

int show() {
  const std::string file = resolvePath("/etc/localtime");
  if (file.empty()) return failed("no time zone is set");
  const bool hasRule = isFile("/etc/TZ", AT_FDCWD);
  const auto rule = hasRule ? readFromFile("/etc/TZ", AT_FDCWD) : std::nullopt;
  std::printf("file  %s\nrule  %s", file.c_str(), rule ? rule->c_str() : "-\n");
  return kDone;
}

int run(int argc, char** argv) {
  if (getopt(argc, argv, "") != -1) return misused("wrong option -%c", optopt);
  if (argc - optind > 1) return misused("too many arguments");
  if (argc == optind) return show();
  const std::string zone = argv[optind];
  const std::string file = zone[0] == '/' ? zone : "/usr/share/zoneinfo/" + zone;
  if (!vexo::utils::setTimeZone(file)) return failed("the zone is as it was");
  return show();
}

}  // namespace

const Command tzCommand = {"tz", "show or set the system's time zone",
                           R"(usage: vexo tz [ZONE]

Shows the system's zone, as the file of its data and as a POSIX rule; with ZONE, sets it before, for
programs that start from then on. ZONE is a file below /usr/share/zoneinfo.

  vexo tz Europe/Berlin
)",
                           run};
