#include "vexo_utils/lowlevelsocket.h"

#include <cerrno>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/time.h>

#include "files.h"
#include "in_child.h"
#include "internal/unique_fd.h"
#include "log_recorder.h"
#include "process_state.h"

namespace vexo::utils {
namespace {

using namespace test;
using internal::UniqueFd;

// What of the settings holds, by the bits of SetFdOptions.
unsigned int settings(const UniqueFd& fd) {
  unsigned int bits = (fcntl(fd.get(), F_GETFL) & O_NONBLOCK) != 0 ? 0x80000000 : 0;
  if (fcntl(fd.get(), F_GETFD) == FD_CLOEXEC) bits |= 0x04000000;
  const int rows[][4] = {{29, SOL_SOCKET, SO_REUSEPORT, 1},
                         {28, IPPROTO_TCP, TCP_NODELAY, 1},
                         {25, IPPROTO_TCP, TCP_CORK, 1},
                         {24, IPPROTO_IP, IP_TOS, 184}};
  for (const auto& [bit, level, option, expected] : rows) {
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(fd.get(), level, option, &value, &size);
    if (value == expected) bits |= 1U << bit;
  }
  return bits;
}

TEST(FdOptions, AreSetInOrderUntilOneFails) {
  for (unsigned int bit = 0; bit < 32; ++bit) {
    if (bit == 27) continue;  // of the whole process
    const UniqueFd tcp(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_TRUE(SetFdOptions(tcp.get(), 1U << bit));
    EXPECT_EQ(settings(tcp), bit < 24 || bit == 30 ? 0 : 1U << bit) << bit;
  }
  const UniqueFd tcp(socket(AF_INET, SOCK_STREAM, 0));
  EXPECT_TRUE(SetFdOptions(tcp.get(), 0xB7FFFFFF) && SetFdOptions(tcp.get(), 0));
  EXPECT_EQ(settings(tcp), 0xB7000000);
  EXPECT_TRUE(SetFdOptions(tcp.get(), 0xC0000000));
  EXPECT_EQ(settings(tcp), 0x37000000U);
  int reused = 0;
  socklen_t size = sizeof reused;
  EXPECT_EQ(getsockopt(tcp.get(), SOL_SOCKET, SO_REUSEADDR, &reused, &size), 0);
  EXPECT_EQ(reused, 1);
  EXPECT_TRUE(SetFdTos(tcp.get(), 187));
  EXPECT_TRUE(logged(kWarning, "TOS mismatch. Wanted value: 187; Applied value: 184", 0));
  const UniqueFd folder(open("/tmp", O_RDONLY));
  EXPECT_FALSE(SetFdOptions(folder.get(), 0xB7000000));
  EXPECT_TRUE(logged(kError, "Unable to reuse address", ENOTSOCK));
  EXPECT_EQ(settings(folder), 0x80000000);
}

TEST(FdOptions, SigpipeAndTimeouts) {
  const auto write = [] {
    int ends[2];
    if (pipe(ends) != 0 || !SetFdOptions(-1, 0x08000000) || !SetFdNoSIGPIPE(-1)) return 1;
    close(ends[0]);
    return ::write(ends[1], "x", 1) == -1 && errno == EPIPE ? 0 : 2;
  };
  EXPECT_EQ(inChild(write), 0);
  const UniqueFd udp(socket(AF_INET, SOCK_DGRAM, 0));
  EXPECT_TRUE(SetSendTimeout(udp.get(), 7, 500'000) && SetRecvTimeout(udp.get(), 7, 500'000));
  for (const int option : {SO_SNDTIMEO, SO_RCVTIMEO}) {
    timeval time{};
    socklen_t size = sizeof time;
    getsockopt(udp.get(), SOL_SOCKET, option, &time, &size);
    EXPECT_TRUE(time.tv_sec == 7 && time.tv_usec == 500'000);
  }
  EXPECT_FALSE(SetSendTimeout(udp.get(), 1, ~0U) || SetRecvTimeout(udp.get(), 1, 1'000'000));
  EXPECT_TRUE(logged(kError, "Unable to set SO_SNDTIMEO", EDOM));
  EXPECT_TRUE(logged(kError, "Unable to set SO_RCVTIMEO", EDOM));
}

// The last takes 7 s: the kernel's two further attempts.
TEST(HostReachable, OpenClosedUnknownAndSilent) {
  writeFile("/etc/nsswitch.conf", "hosts: files\n");
  writeFile("/etc/hosts", "127.0.0.1 camera.test\n");
  const UniqueFd server(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(700);
  ASSERT_EQ(bind(server.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const auto codeFor = [](const char* host) {
    int error = 77;
    EXPECT_EQ(hostReachable(host, 700, error), error == 0);
    return error;
  };
  EXPECT_EQ(codeFor("127.0.0.1"), ECONNREFUSED);
  const std::string tooLong(300, 'x');
  for (const char* none : {"", "nobody.test", tooLong.c_str(), static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(codeFor(none), HOST_NOT_FOUND);
  }
  ASSERT_EQ(listen(server.get(), 0), 0);
  int error = 77;
  EXPECT_TRUE(hostReachable(std::string("camera.test"), 700, error) && error == 0);
  // Nobody accepts that connection; while it waits, further attempts are dropped.
  const InterruptingSignal alarm(SIGALRM);
  const itimerval often{{0, 5000}, {0, 5000}};
  setitimer(ITIMER_REAL, &often, nullptr);
  EXPECT_EQ(codeFor("127.0.0.1"), ETIMEDOUT);
  const itimerval never{};
  setitimer(ITIMER_REAL, &never, nullptr);
}

}  // namespace
}  // namespace vexo::utils
