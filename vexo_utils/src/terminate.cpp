#include "vexo_utils/terminate.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <time.h>

#include "internal/log.h"
#include "internal/retry.h"
#include "vexo_utils/string_utils.h"

namespace vexo::utils {

namespace {

constexpr int kMaxAnnouncingSeconds = 10;

// As sleep(3), but a signal does not end it.
void sleepThrough(int seconds) {
  timespec left{seconds, 0};
  while (nanosleep(&left, &left) == -1 && errno == EINTR) {
  }
}

}  // namespace

void openUdp(int& fd, sockaddr_in& address, const char* host, unsigned short port) {
  fd = -1;
  if (host == nullptr || port == 0) return;
  address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = inet_addr(host);
  if (address.sin_addr.s_addr == INADDR_NONE) return;
  fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int yes = 1;
  setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &yes, sizeof yes);
}

void announce(int fd, sockaddr_in& address, bool reboot, int code, const char* description) {
  const std::string text = format(
      "Announce %s. reason code: %08x; reason description: %s\n", reboot ? "reboot" : "app restart",
      static_cast<unsigned int>(code), description != nullptr ? description : "");
  VEXO_LOG_INFO("%s", text.c_str());
  if (fd < 0) return;
  internal::retryOnEintr([&] {
    return sendto(fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                  sizeof address);
  });
}

void announceTerminate(const char* host, unsigned short port, int totalSeconds, int intervalSeconds,
                       int code, const char* description, bool reboot) {
  const int total = std::min(totalSeconds, kMaxAnnouncingSeconds);
  const int step = intervalSeconds > 0 && intervalSeconds <= total ? intervalSeconds : total;
  int fd = -1;
  sockaddr_in address{};
  openUdp(fd, address, host, port);
  for (int elapsed = 0;;) {
    announce(fd, address, reboot, code, description);
    const int wait = std::min(total - elapsed, step);
    if (wait < 1) break;
    sleepThrough(wait);
    elapsed += wait;
    if (elapsed >= total) break;
  }
  if (!reboot) std::exit(code);
  [[maybe_unused]] const int saved = std::system("cfgmtd -p /etc/ -w");  // holds nothing up
  if (std::system("reboot") == 0) std::exit(code);
  std::abort();
}

}  // namespace vexo::utils
