#include "leftovers.h"

#include <cerrno>
#include <filesystem>
#include <sstream>

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

namespace vexo::test {

namespace {

std::string blockedSignals() {
  sigset_t set;
  pthread_sigmask(SIG_BLOCK, nullptr, &set);
  std::ostringstream text;
  for (int signo = 1; signo < NSIG; ++signo) {
    if (sigismember(&set, signo) == 1) text << signo << ' ';
  }
  return text.str();
}

// Also one that has ended and was not waited for.
bool hasChildren() {
  siginfo_t info{};
  return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

class Compare : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { before = processState(); }
  void OnTestEnd(const testing::TestInfo&) override {
    EXPECT_EQ(before, processState()) << "left behind";
  }

  std::string before;
};

}  // namespace

std::map<int, std::string> openDescriptors() {
  std::map<int, std::string> all;
  DIR* folder = opendir("/proc/self/fd");
  while (const dirent* entry = readdir(folder)) {
    const std::string name = entry->d_name;
    if (name[0] == '.' || std::stoi(name) == dirfd(folder)) continue;
    std::error_code gone;
    all[std::stoi(name)] = std::filesystem::read_symlink("/proc/self/fd/" + name, gone);
  }
  closedir(folder);
  return all;
}

std::string processState() {
  std::ostringstream text;
  for (const auto& [fd, target] : openDescriptors()) text << fd << " is " << target << '\n';
  text << "blocked signals: " << blockedSignals() << '\n'
       << "working directory: " << std::filesystem::current_path() << '\n'
       << "children: " << (hasChildren() ? "some" : "none") << '\n';
  return text.str();
}

void installLeftoversCheck() {
  testing::UnitTest::GetInstance()->listeners().Append(new Compare);
}

}  // namespace vexo::test
