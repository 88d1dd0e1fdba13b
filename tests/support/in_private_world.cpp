// in_private_world KEEP PROGRAM [ARGUMENT...]: executes a program in a private world.
// KEEP is the folder that stays as it is inside.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include <unistd.h>

#include "private_world.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s KEEP PROGRAM [ARGUMENT...]\n", argv[0]);
    return 2;
  }
  const auto execute = [&] {
    std::signal(SIGINT, SIG_DFL);
    execvp(argv[2], argv + 2);
    std::fprintf(stderr, "%s: %s\n", argv[2], std::strerror(errno));
    return 127;
  };
  const auto refuse = [](const std::string& reason) {
    std::fprintf(stderr,
                 "This machine does not allow a private world (%s): be root, or allow user "
                 "namespaces.\n",
                 reason.c_str());
    return 1;
  };
  // Ctrl-C at the terminal is for the program: this process only waits for it.
  std::signal(SIGINT, SIG_IGN);
  return vexo::test::runInPrivateWorld({argv[1]}, execute, refuse);
}
