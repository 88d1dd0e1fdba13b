#include "vexo_utils/iobuffer.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/un.h>
#include <unistd.h>

#include "in_child.h"
#include "internal/unique_fd.h"
#include "log_recorder.h"

namespace vexo::utils {
namespace {

using internal::UniqueFd;
using test::inChild;
using test::kError;
using test::kWarning;
using test::logged;

using Numbers = std::array<uint64_t, 3>;  // size, published, consumed

Numbers numbersOf(const IOBuffer& buffer) {
  return {buffer.Size(), buffer.Published(), buffer.Consumed()};
}

std::string_view unread(const IOBuffer& buffer) {
  return {reinterpret_cast<const char*>(buffer.Unread()), buffer.UnreadSize()};
}

bool append(IOBuffer& buffer, std::string_view text) {
  return buffer.ReadFromBuffer(reinterpret_cast<const unsigned char*>(text.data()),
                               static_cast<unsigned>(text.size()));
}

TEST(IOBuffer, CountsInPages) {
  const auto after = [](unsigned published, unsigned consumed, unsigned wanted) {
    IOBuffer buffer("pages");
    buffer.ReadFromRepeat('x', published);
    buffer.Ignore(consumed);
    buffer.EnsureSize(wanted);
    return numbersOf(buffer);
  };
  EXPECT_EQ(after(1, 0, 4095), (Numbers{4096, 1, 0}));
  EXPECT_EQ(after(1, 0, 4096), (Numbers{8192, 1, 0}));
  EXPECT_EQ(after(6000, 5000, 3000), (Numbers{8192, 1000, 0}));
  EXPECT_EQ(after(7000, 1000, 3000), (Numbers{12288, 6000, 0}));
  EXPECT_EQ(after(9 << 20, 9 << 20, 0), (Numbers{8388608, 0, 0}));
  EXPECT_TRUE(logged(kWarning,
                     "IOB: free space limit exceeded. Shrinking `pages` buffer space: "
                     "9437184 -> 8388608"));
}

TEST(IOBuffer, ReceivesWithoutWaitingAndNotBeyondTheCallersAddress) {
  const UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un path{AF_UNIX, "/tmp/a-sender-with-more-bytes-than-an-ipv4-address-has"};
  const auto* address = reinterpret_cast<const sockaddr*>(&path);
  ASSERT_EQ(bind(fd.get(), address, sizeof path), 0);
  IOBuffer buffer("socket");
  int got = 7;
  EXPECT_TRUE(buffer.ReadFromFd(fd.get(), 0, got));
  EXPECT_FALSE(buffer.ReadFromTCPFd(fd.get(), 0, got));
  EXPECT_EQ(got, 7);
  EXPECT_TRUE(buffer.ReadFromTCPFd(fd.get(), 10, got));
  EXPECT_EQ(got, 0);
  struct {
    sockaddr_in from;
    std::array<char, 128> behind;
  } memory{};
  for (const char* text : {"ab", "cd", "ef", "gh"}) {
    ASSERT_EQ(sendto(fd.get(), text, 2, 0, address, sizeof path), 2);
    EXPECT_TRUE(*text == 'a'   ? buffer.ReadFromFd(fd.get(), 10, got)
                : *text == 'c' ? buffer.ReadFromTCPFd(fd.get(), 10, got)
                               : buffer.ReadFromUDPFd(fd.get(), got, memory.from));
    EXPECT_EQ(got, 2);
    EXPECT_EQ(memory.behind, decltype(memory.behind){});
  }
  EXPECT_EQ(unread(buffer), "abcdefgh");
}

TEST(IOBuffer, ReportsFailuresAndKeepsItsBytes) {
  IOBuffer buffer("failing");
  int done = 0;
  sockaddr_in from{};
  const iovec pieces[] = {{&done, 2}, {nullptr, 3}};
  append(buffer, "kept");
  EXPECT_FALSE(buffer.ReadFromFd(-1, 9, done) || buffer.ReadFromTCPFd(-1, 9, done) ||
               buffer.ReadFromUDPFd(-1, done, from) || buffer.WriteToFd(-1, 9, done) ||
               buffer.ReadFromBuffer(pieces, 2, 1) || buffer.ReadFromBuffer(nullptr, 2, 1));
  EXPECT_TRUE(logged(kError, "Unable to read 9 bytes from fd", EBADF));
  EXPECT_TRUE(logged(kError, "recv() failed", EBADF));
  EXPECT_TRUE(logged(kError, "Unable to read data from UDP socket", EBADF));
  const std::string text = "Unable to send 4 bytes of data data. Size advertised by network layer ";
  EXPECT_TRUE(logged(kError, text + "was 9. Permanent error.", EBADF));
  EXPECT_TRUE(logged(kError, "Unable to append 3 bytes from a null pointer"));
  EXPECT_TRUE(logged(kError, "Unable to append 2 pieces from a null pointer"));
  int fds[2];
  ASSERT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
  const UniqueFd reading(fds[0]);
  const UniqueFd writing(fds[1]);
  const std::string page(4096, 'x');
  while (write(writing.get(), page.data(), page.size()) > 0) continue;
  EXPECT_TRUE(buffer.WriteToFd(writing.get(), 9, done = 1));
  EXPECT_EQ(done, 0);
  EXPECT_EQ(unread(buffer), "kept");
}

TEST(IOBuffer, CrashesWithAMessage) {
  static std::string message;
  const auto status = [](const char* expected, const std::function<void()>& body) {
    message = expected;
    return inChild([&] {
      signal(SIGABRT, [](int) { std::_Exit(logged(kError, message) ? 77 : 1); });
      body();
      return 0;
    });
  };
  IOBuffer buffer("full");
  append(buffer, "12345");
  EXPECT_EQ(77, status("Unable to allocate memory: (12) Cannot allocate memory",
                       [&] { buffer.EnsureSize(UINT32_MAX); }));
  EXPECT_EQ(77, status("IOB: Unable to install the allocation stats print handler",
                       [] { InstallAllocStatsPrintSigHdlr(SIGKILL); }));
  EXPECT_EQ(0, status("", [] { InstallAllocStatsPrintSigHdlr(SIGUSR1), raise(SIGUSR1); }));
  EXPECT_EQ(0, status("", [&] { buffer.IgnoreAll(), append(buffer, "child"); }));
  EXPECT_EQ(unread(buffer), "12345");  // of its own since the fork
}

TEST(IOBuffer, DumpsComparesAndSwaps) {
  IOBuffer buffer("dumped");
  EXPECT_EQ(std::string(buffer), "Size: 0\nPublished: 0\nConsumed: 0\nAddress: (nil)\n");
  append(buffer, "0123456789 ~\x1f\x7f\x80\xff...a");
  buffer.Ignore(3);
  std::array<char, 90> head{};
  std::snprintf(head.data(), head.size(), "Size: 4096\nPublished: 20\nConsumed: 3\nAddress: %p\n",
                static_cast<const void*>(buffer.Unread() - 3));
  const std::string top = head.data();
  const std::string gap(38, ' ');
  const std::string line =
      "00000000  30 31 32 33 34 35 36 37 38 39 20 7e 1f 7f 80 ff  0123456789 ~";
  EXPECT_EQ(buffer.ToString(0, 0), top + line + "....\n00000016  2e 2e 2e 61" + gap + "...a\n");
  EXPECT_EQ(buffer.ToString(17, 21),
            top + "Limited to 21 bytes\n00000016  2e 2e 61 00" + gap + "..a.\n");
  EXPECT_EQ(buffer.ToString(4092, UINT32_MAX),
            top + "Limited to 4294967295 bytes\n00004080  00 00 00 00" + gap + "....\n");
  const std::string dump = IOBuffer::DumpBuffer(buffer.Unread() + 13, 4);
  EXPECT_NE(dump.find("\n00000000  2e 2e 2e 61" + gap + "...a\n"), std::string::npos);

  IOBuffer same("other");
  append(same, unread(buffer));
  EXPECT_TRUE(buffer == same);
  same.Ignore(1);
  EXPECT_TRUE(buffer != same);
  same.Swap(buffer);
  EXPECT_TRUE(same.ReadFromRepeat('x', 1 << 20) && buffer.ReadFromRepeat('x', 1 << 20));
  EXPECT_EQ(unread(same).substr(1), unread(buffer));
}

}  // namespace
}  // namespace vexo::utils
