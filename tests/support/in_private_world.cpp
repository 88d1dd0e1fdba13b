// in_private_world KEEP PROGRAM [ARGUMENT...]: executes a program in a private world.
// KEEP: the folders that stay as they are inside, with ':' between them.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

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
  std::vector<std::string> kept;
  std::istringstream folders(argv[1]);
  for (std::string folder; std::getline(folders, folder, ':');) kept.push_back(folder);
  // Ctrl-C at the terminal is for the program: this process only waits for it.
  std::signal(SIGINT, SIG_IGN);
  return vexo::test::runInPrivateWorld(kept, execute, refuse);
}
