#include "access.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vexo_utils/auth.h>
#include <vexo_utils/fileutils.h>
#include <vexo_utils/persistence.h>
#include <vexo_utils/procfs.h>
#include <vexo_utils/terminate.h>

#include "console.h"

using console::say;

namespace {

constexpr unsigned kServiceMs = 20;
constexpr int kFarewell = 3;  // exit status

constexpr char kPasswords[] = "passwords: right, wrong, nobody's";
constexpr char kTokens[] = "tokens: valid, not valid";
constexpr char kHeard[] = "announcements heard";
constexpr char kSaved[] = "farewells: saved, reboot requested";

const char* verdict(int code, bool ok) {
  return code != 0 ? "not checked" : ok ? "accepted" : "refused";
}

}  // namespace

Access::Access(vexo::utils::Scheduler& loop, Ledger& book)
    : scheduler(loop),
      ledger(book),
      accessDaemon(
          [this](const std::string& line) {
            if (line == "ready") checkTokens();
          },
          [](int) {}),
      leaving([](const std::string& line) { say("farewell", line); },
              [this](int status) {
                say("farewell", "ended with " + std::to_string(status));
                if (status == kFarewell && showRequests() > 0) ledger.count(kSaved);
              }) {
  ledger.expect(kPasswords, 3, 3);
  ledger.expect(kTokens, 2, 2);
  ledger.expect(kHeard, 2, 2);
  ledger.expect(kSaved, 1, 1);
}

Access::~Access() {
  if (listener >= 0) close(listener);
}

bool Access::start() {
  const auto service = [this](void*) {
    accessDaemon.service();
    leaving.service();
    return true;
  };
  checkPasswords();
  return listen() && accessDaemon.start("/usr/bin/access_daemon", {"--accept", "open sesame"}) &&
         startFarewell() && scheduler.AddTimerTask(kServiceMs, service, nullptr) != 0;
}

bool Access::done() const {
  return ledger.counted(kTokens) == 2 && ledger.counted(kSaved) == 1 && ledger.counted(kHeard) == 2;
}

void Access::checkPasswords() {
  const std::string hash = vexo::utils::generateHash("secret", vexo::utils::generateSecureSalt());
  std::ofstream("/etc/passwd", std::ios::app) << "viewer:" << hash << ":1000:1000::/:\n";

  const struct {
    const char* user;
    const char* password;
    int code;
    bool ok;
  } tries[] = {{"viewer", "secret", 0, true},
               {"viewer", "guess", 0, false},
               {"nobody.here", "x", -1, false}};
  for (const auto& each : tries) {
    bool ok = false;
    const int code = vexo::utils::authenticatePassword(each.user, each.password, ok);
    say("access", std::string(each.user) + " with a password: " + verdict(code, ok));
    if (code == each.code && ok == each.ok) ledger.count(kPasswords);
  }
}

void Access::checkTokens() {
  for (const char* token : {"open sesame", "open barley"}) {
    bool ok = false;
    const int code = vexo::utils::authenticateToken(token, ok);
    say("access", std::string("token \"") + token + "\": " + verdict(code, ok));
    if (code == 0 && ok == (std::string(token) == "open sesame")) ledger.count(kTokens);
  }
}

// ---- the farewell of a process, heard by this one ----

bool Access::listen() {
  listener = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return false;
  }
  port = ntohs(address.sin_port);
  const auto readable = [this](int, void*) {
    hear();
    return true;
  };
  return scheduler.AddIOTask(listener, EPOLLIN, readable, nullptr) != 0;
}

void Access::hear() {
  int got = 0;
  sockaddr_in from{};
  if (!heard.ReadFromUDPFd(listener, got, from)) return;
  const std::string text(reinterpret_cast<const char*>(heard.Unread()), heard.UnreadSize());
  heard.IgnoreAll();
  ledger.count(kHeard);
  say("network", "heard: " + text.substr(0, text.find('\n')));
}

bool Access::startFarewell() {
  std::string program;
  return getModuleDir(program) &&
         leaving.start(program + "/camera_daemon", {"--farewell", std::to_string(port)});
}

// What the client was asked, as the one in platform/host/tools records it.
int Access::showRequests() {
  int requests = 0;
  const auto show = [&](const std::string& line) {
    say("request", line);
    ++requests;
    return true;
  };
  forEachLine("/run/vexo_ipc_cli.record", show, AT_FDCWD);
  return requests;
}

int Access::sayFarewell(const char* port) {
  if (!vexo::utils::enqueuePersist(true) || !vexo::utils::enqueueReboot(5000)) return 1;
  std::puts("configuration saved, reboot requested in 5000 ms");
  std::fflush(stdout);
  vexo::utils::announceTerminate("127.0.0.1", static_cast<unsigned short>(std::atoi(port)), 2, 1,
                                 kFarewell, "firmware update", false);
}
