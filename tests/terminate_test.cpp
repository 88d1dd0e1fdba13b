#include "vexo_utils/terminate.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/time.h>
#include <sys/wait.h>

#include "files.h"
#include "internal/unique_fd.h"
#include "log_recorder.h"
#include "process_state.h"
#include "vexo/host/log_sink.h"
#include "vexo_utils/timer.h"

namespace vexo::utils {
namespace {

using namespace test;
using internal::UniqueFd;
using Strings = std::vector<std::string>;

constexpr unsigned short kPort = 700;

Strings heard(const UniqueFd& listener) {
  Strings all;
  char text[1000];
  for (ssize_t got = 0; (got = recv(listener.get(), text, sizeof text, MSG_DONTWAIT)) >= 0;) {
    all.emplace_back(text, static_cast<std::size_t>(got));
  }
  return all;
}

TEST(Announce, HasNowhereToGo) {
  int fd = 77;
  sockaddr_in address{};
  for (const char* none : {"localhost", "", "255.255.255.255", static_cast<const char*>(nullptr)}) {
    openUdp(fd = 77, address, none, kPort);
    EXPECT_EQ(fd, -1);
  }
  openUdp(fd = 77, address, "127.0.0.1", 0);
  EXPECT_EQ(fd, -1);
  announce(fd, address, true, -2, nullptr);
  EXPECT_TRUE(logged(kInfo, "Announce reboot. reason code: fffffffe; reason description: \n"));
}

// All at once, as the longest takes 10 s.
TEST(AnnounceTerminate, KeepsItsSchedule) {
  const struct {
    int total;
    int interval;
    std::size_t announcements;
    int seconds;
  } rows[] = {{-5, 1, 1, 0}, {0, 1, 1, 0},   {2, 0, 1, 2},   {2, 3, 1, 2},
              {2, 1, 2, 2},  {60, 3, 4, 10}, {60, 10, 1, 10}};
  std::vector<UniqueFd> listeners;
  std::vector<pid_t> children;
  const long long start = nowMs();
  for (const auto& row : rows) {
    const auto port = static_cast<unsigned short>(kPort + children.size());
    listeners.emplace_back(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    bind(listeners.back().get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    children.push_back(fork());
    if (children.back() != 0) continue;
    const InterruptingSignal alarm(SIGALRM);
    const itimerval often{{0, 50'000}, {0, 50'000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    announceTerminate("127.255.255.255", port, row.total, row.interval, 0x107, "100 %s", false);
  }
  const std::string text =
      "Announce app restart. reason code: 00000107; reason description: 100 %s\n";
  for (std::size_t i = 0; i < children.size(); ++i) {
    int status = 0;
    waitpid(children[i], &status, 0);
    EXPECT_GE(nowMs() - start, rows[i].seconds * 1000);
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(heard(listeners[i]), Strings(rows[i].announcements, text)) << i;
  }
}

TEST(AnnounceTerminate, Reboots) {
  setenv("PATH", "/tmp", 1);  // nothing but the stand-ins
  for (const std::string name : {"/tmp/cfgmtd", "/tmp/reboot"}) {
    writeFile(name, "#!/bin/sh\necho $0 $* >>/tmp/calls\nexit $STATUS\n");
    std::filesystem::permissions(name, std::filesystem::perms::all);
  }
  const auto terminate = [](const char* status) {
    setenv("STATUS", status, 1);
    host::setLogLevel(kInfo);
    announceTerminate("localhost", kPort, 0, 0, 7, "down", true);
  };
  const char log[] = "Announce reboot. reason code: 00000007; reason description: down\n";
  EXPECT_EXIT(terminate("0"), testing::ExitedWithCode(7), log);
  EXPECT_EXIT(terminate("1"), testing::KilledBySignal(SIGABRT), log);
  const std::string calls = "/tmp/cfgmtd -p /etc/ -w\n/tmp/reboot\n";
  EXPECT_EQ(readFile("/tmp/calls"), calls + calls);
}

}  // namespace
}  // namespace vexo::utils
