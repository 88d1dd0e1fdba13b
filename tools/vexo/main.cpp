// vexo: the library from a command line, to try it or to poke a camera.

#include <cstdio>
#include <cstring>
#include <string>

#include <unistd.h>

#include "command.h"

namespace {

const Command* const kCommands[] = {
    &runCommand,     &watchCommand, &logreadCommand, &crashCommand, &attitudeCommand,
    &fisheyeCommand, &colorCommand, &wavCommand,     &checkCommand, &b64Command,
    &hexCommand,     &tzCommand,    &psCommand,
};

void list() {
  std::fputs("usage: vexo [-v] COMMAND [ARGUMENT]...\n\n", stdout);
  for (const Command* command : kCommands) {
    std::printf("  %-9s %s\n", command->name, command->help);
  }
  std::fputs(
      "\n"
      "  -v        leave the library's log as it is; otherwise only its errors are told\n"
      "\n"
      "\"vexo COMMAND --help\" tells more. Exit status: 0 done, 1 failed or the answer is no,\n"
      "2 wrong usage.\n",
      stdout);
}

bool asksForHelp(const char* argument) {
  return std::strcmp(argument, "--help") == 0 || std::strcmp(argument, "-h") == 0;
}

const Command* commandOf(const char* name) {
  for (const Command* command : kCommands) {
    if (std::strcmp(command->name, name) == 0) return command;
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  const bool verbose = argc > 1 && std::strcmp(argv[1], "-v") == 0;
  argc -= verbose ? 1 : 0;
  argv += verbose ? 1 : 0;
  if (argc < 2 || asksForHelp(argv[1])) {
    list();
    return kDone;
  }
  const Command* const command = commandOf(argv[1]);
  if (command == nullptr) return misused("no command '%s'", argv[1]);
  if (argc > 2 && asksForHelp(argv[2])) {
    std::fputs(command->usage, stdout);
    return kDone;
  }
  std::string name = std::string("vexo ") + command->name;
  argv[1] = name.data();
  opterr = 0;  // getopt(3) leaves the messages to the commands
  speakAs(name);
  if (!verbose) quietLog();
  const int status = command->run(argc - 1, argv + 1);
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    return failed("cannot write to standard output");
  }
  return status;
}
