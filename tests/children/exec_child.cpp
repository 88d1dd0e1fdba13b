// exec_child MODE [ARGUMENT]: what the tests of the process runner start.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

namespace {

void writeAll(int fd, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t written = write(fd, text.data() + done, text.size() - done);
    if (written <= 0) _exit(99);
    done += static_cast<std::size_t>(written);
  }
}

// Both streams, SIZE bytes each, in turns: letters on the one, digits on the other.
void flood(std::size_t size) {
  constexpr std::size_t kBlock = 26 * 10 * 50;  // a whole number of both sequences
  std::string letters;
  std::string digits;
  for (std::size_t i = 0; i < kBlock; ++i) {
    letters += static_cast<char>('a' + i % 26);
    digits += static_cast<char>('0' + i % 10);
  }
  for (std::size_t left = size; left > 0; left -= letters.size()) {
    if (left < kBlock) {
      letters.resize(left);
      digits.resize(left);
    }
    writeAll(STDOUT_FILENO, letters);
    writeAll(STDERR_FILENO, digits);
  }
}

void copyInput() {
  char block[65536];
  for (ssize_t got = 0; (got = read(STDIN_FILENO, block, sizeof block)) > 0;) {
    writeAll(STDOUT_FILENO, std::string(block, static_cast<std::size_t>(got)));
  }
}

// What the process was given: descriptors, session, mask, handlers, arguments.
void report(int argc, char** argv) {
  DIR* folder = opendir("/proc/self/fd");
  std::string text = "descriptors";
  while (const dirent* entry = readdir(folder)) {
    const int fd = std::atoi(entry->d_name);
    if (entry->d_name[0] == '.' || fd == dirfd(folder)) continue;
    char target[256] = {};
    const ssize_t ignored =
        readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1);
    static_cast<void>(ignored);
    text += " " + std::to_string(fd) + "=" + (strncmp(target, "pipe:", 5) == 0 ? "pipe" : target);
  }
  closedir(folder);
  sigset_t mask;
  sigprocmask(SIG_BLOCK, nullptr, &mask);
  text += "\nblocked";
  for (int signo = 1; signo < NSIG; ++signo) {
    if (sigismember(&mask, signo) == 1) text += " " + std::to_string(signo);
  }
  text += std::string("\nleader ") + (getsid(0) == getpid() ? "yes" : "no");
  text += "\narguments";
  for (int i = 2; i < argc; ++i) text += std::string(" <") + argv[i] + ">";
  writeAll(STDOUT_FILENO, text + "\n");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  const std::string argument = argc > 2 ? argv[2] : "";
  if (mode == "flood") flood(std::stoul(argument));
  if (mode == "flood-copy") {
    copyInput();
    flood(std::stoul(argument));
  }
  if (mode == "copy") copyInput();
  if (mode == "report") report(argc, argv);
  if (mode == "exit") return std::stoi(argument);
  if (mode == "raise") raise(std::stoi(argument));
  if (mode == "close-input") {
    close(STDIN_FILENO);
    pause();
  }
  if (mode == "ignore-all") {
    for (int signo = 1; signo < NSIG; ++signo) signal(signo, SIG_IGN);
    writeAll(STDOUT_FILENO, "ready");
    for (;;) pause();
  }
  // A daemon: writes what it is to a file, in one step, then stays.
  if (mode == "daemon") {
    const std::string beside = argument + ".new";
    const int fd = open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(fd, STDOUT_FILENO);
    close(fd);
    report(argc, argv);
    rename(beside.c_str(), argument.c_str());
    for (;;) pause();
  }
  return 0;
}
