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

struct State {
  std::map<int, std::string> descriptors;
  std::string blockedSignals;
  std::string workingDirectory;
  bool hasChildren = false;
};

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

State look() {
  return {openDescriptors(), blockedSignals(), std::filesystem::current_path(), hasChildren()};
}

class Compare : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { before = look(); }
  void OnTestEnd(const testing::TestInfo&) override {
    const State after = look();
    EXPECT_EQ(before.descriptors, after.descriptors) << "open descriptors changed";
    EXPECT_EQ(before.blockedSignals, after.blockedSignals) << "the signal mask changed";
    EXPECT_EQ(before.workingDirectory, after.workingDirectory) << "the working directory changed";
    EXPECT_FALSE(after.hasChildren) << "a child is left";
  }

  State before;
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

void installLeftoversCheck() {
  testing::UnitTest::GetInstance()->listeners().Append(new Compare);
}

}  // namespace vexo::test
