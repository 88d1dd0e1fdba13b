#include "vexo_utils/lowlevelsocket.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <limits>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "internal/log.h"
#include "internal/retry.h"
#include "internal/unique_fd.h"

namespace vexo::utils {

using internal::retryOnEintr;
using internal::UniqueFd;

namespace {

constexpr unsigned char kExpeditedForwarding = 46 << 2;  // DSCP 46, in the upper 6 bits of the TOS
constexpr int kSynRetries = 2;  // sent after 1 and after 3 s; given up after 7 s

bool setInt(int fd, int level, int option, int value) {
  return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

bool setTime(int fd, int option, unsigned int seconds, unsigned int microseconds) {
  // time_t may have 32 bits, and a negative time would be none at all.
  constexpr auto kLongest =
      static_cast<unsigned long long>(std::numeric_limits<decltype(timeval::tv_sec)>::max());
  timeval time{};
  time.tv_sec = static_cast<decltype(time.tv_sec)>(std::min<unsigned long long>(seconds, kLongest));
  time.tv_usec = static_cast<decltype(time.tv_usec)>(microseconds);
  return setsockopt(fd, SOL_SOCKET, option, &time, sizeof time) == 0;
}

bool changeFlags(int fd, int added, int removed) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags == -1) {
    VEXO_LOG_ERROR_ERRNO("Unable to get socket flags");
    return false;
  }
  if (fcntl(fd, F_SETFL, (flags | added) & ~removed) == -1) {
    VEXO_LOG_ERROR_ERRNO("Unable to set socket flags");
    return false;
  }
  return true;
}

// False with the resolver's code.
bool lookUp(const char* host, in_addr& address, int& code) {
  code = HOST_NOT_FOUND;
  if (host == nullptr) return false;
  hostent entry{};
  hostent* found = nullptr;
  std::array<char, 4096> work{};
  if (gethostbyname_r(host, &entry, work.data(), work.size(), &found, &code) != 0 ||
      found == nullptr || found->h_addr_list[0] == nullptr) {
    return false;
  }
  std::memcpy(&address, found->h_addr_list[0], sizeof address);
  return true;
}

// False with errno. One that a signal interrupts goes on by itself and must not be repeated.
bool connectTo(int fd, const sockaddr_in& address) {
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return true;
  if (errno != EINTR) return false;
  pollfd done{fd, POLLOUT, 0};
  if (retryOnEintr([&] { return poll(&done, 1, -1); }) < 0) return false;
  int failure = 0;
  socklen_t size = sizeof failure;
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &failure, &size) != 0) return false;
  errno = failure;
  return failure == 0;
}

}  // namespace

// ---- single options ----

bool SetFdNonBlock(int fd) {
  return changeFlags(fd, O_NONBLOCK, 0);
}

bool SetFdBlock(int fd) {
  return changeFlags(fd, 0, O_NONBLOCK);
}

bool SetFdReuseIpPort(int fd) {
  if (!setInt(fd, SOL_SOCKET, SO_REUSEADDR, 1)) {
    VEXO_LOG_ERROR_ERRNO("Unable to reuse address");
    return false;
  }
  if (!setInt(fd, SOL_SOCKET, SO_REUSEPORT, 1)) {
    VEXO_LOG_ERROR_ERRNO("Unable to reuse port");
    return false;
  }
  return true;
}

bool SetFdLowDelay(int fd) {
  if (setInt(fd, IPPROTO_TCP, TCP_NODELAY, 1)) return true;
  VEXO_LOG_ERROR_ERRNO("Unable to set TCP_NODELAY");
  return false;
}

bool SetFdNoSIGPIPE(int /*fd*/) {
  static std::atomic<bool> ignored{false};
  if (ignored) return true;
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  if (sigaction(SIGPIPE, &ignore, nullptr) != 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to ignore SIGPIPE signal");
    return false;
  }
  ignored = true;
  return true;
}

bool SetFdCloseOnExec(int fd) {
  const int flags = fcntl(fd, F_GETFD);
  if (flags != -1 && fcntl(fd, F_SETFD, flags | FD_CLOEXEC) != -1) return true;
  VEXO_LOG_ERROR_ERRNO("Unable to set FD_CLOEXEC");
  return false;
}

bool SetFdTcpCork(int fd) {
  if (setInt(fd, IPPROTO_TCP, TCP_CORK, 1)) return true;
  VEXO_LOG_ERROR_ERRNO("Unable to set TCP_CORK");
  return false;
}

bool SetFdTos(int fd, unsigned char tos) {
  int applied = 0;
  socklen_t size = sizeof applied;
  if (!setInt(fd, IPPROTO_IP, IP_TOS, tos) ||
      getsockopt(fd, IPPROTO_IP, IP_TOS, &applied, &size) != 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to set/get IP_TOS");
    return false;
  }
  if (applied != tos) {
    VEXO_LOG_WARNING("TOS mismatch. Wanted value: %u; Applied value: %d", unsigned{tos}, applied);
  }
  return true;
}

// ---- several options at once ----

bool SetFdOptions(int fd, unsigned int options) {
  const struct {
    unsigned int bit;
    bool (*set)(int fd);
  } inOrder[] = {{0x80000000U, SetFdNonBlock},
                 {0x40000000U, SetFdBlock},
                 {0x20000000U, SetFdReuseIpPort},
                 {0x10000000U, SetFdLowDelay},
                 {0x08000000U, SetFdNoSIGPIPE},
                 {0x04000000U, SetFdCloseOnExec},
                 {0x02000000U, SetFdTcpCork},
                 {0x01000000U, [](int socket) { return SetFdTos(socket, kExpeditedForwarding); }}};
  return std::all_of(std::begin(inOrder), std::end(inOrder), [&](const auto& option) {
    return (options & option.bit) == 0 || option.set(fd);
  });
}

// ---- time-outs ----

bool SetSendTimeout(int fd, unsigned int seconds, unsigned int microseconds) {
  if (setTime(fd, SO_SNDTIMEO, seconds, microseconds)) return true;
  VEXO_LOG_ERROR_ERRNO("Unable to set SO_SNDTIMEO");
  return false;
}

bool SetRecvTimeout(int fd, unsigned int seconds, unsigned int microseconds) {
  if (setTime(fd, SO_RCVTIMEO, seconds, microseconds)) return true;
  VEXO_LOG_ERROR_ERRNO("Unable to set SO_RCVTIMEO");
  return false;
}

// ---- reachability ----

bool hostReachable(const char* host, unsigned short port, int& error) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  if (!lookUp(host, address.sin_addr, error)) return false;
  const UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const bool reached = fd.valid() && setInt(fd.get(), IPPROTO_TCP, TCP_SYNCNT, kSynRetries) &&
                       connectTo(fd.get(), address);
  error = reached ? 0 : errno;
  return reached;
}

bool hostReachable(const std::string& host, unsigned short port, int& error) {
  return hostReachable(host.c_str(), port, error);
}

}  // namespace vexo::utils
