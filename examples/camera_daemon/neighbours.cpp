#include "neighbours.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vexo_utils/fileutils.h>
#include <vexo_utils/procfs.h>

#include "console.h"

using console::say;
using vexo::utils::startup_control_file_state_t;
using vexo::utils::StartupControlFile;

namespace {

constexpr char kStartupFile[] = "/run/camera_daemon.startup";
constexpr startup_control_file_state_t kStarting{'s'};
constexpr startup_control_file_state_t kReady{'r'};
constexpr char kRecordings[] = "/run/recordings";

constexpr unsigned kServiceMs = 30;
constexpr unsigned kReadyMs = 450;
constexpr unsigned kRelayMs = 1300;
constexpr int kRefusedStatus = 4;
constexpr int kFrames = 300;               // lines of the log, as demo.sh writes them
constexpr unsigned kRelayed = 20'000'000;  // bytes
constexpr unsigned kChunk = 64 << 10;

constexpr char kRefused[] = "second daemons refused";
constexpr char kTenants[] = "tenants that waited until it was ready";
constexpr char kNoticed[] = "recordings noticed";
constexpr char kLogged[] = "lines of the log, none lost or torn";
constexpr char kRelays[] = "relays of 20 MB";

}  // namespace

Neighbours::Neighbours(vexo::utils::Scheduler& loop, Ledger& book)
    : scheduler(loop),
      ledger(book),
      startup(kStartupFile, true),
      second([](const std::string& line) { say("second", line); },
             [this](int status) {
               if (status == kRefusedStatus) ledger.count(kRefused);
             }),
      tenant([](const std::string& line) { say("tenant", line); },
             [this](int status) {
               if (status == 0) ledger.count(kTenants);
             }) {
  ledger.expect(kRefused, 1, 1);
  ledger.expect(kTenants, 1, 1);
  ledger.expect(kNoticed, 1, 1);
  ledger.expect(kLogged, kFrames, kFrames);
  ledger.expect(kRelays, 1, 1);
}

Neighbours::~Neighbours() {
  for (const int end : ends) {
    if (end >= 0) close(end);
  }
}

bool Neighbours::start() {
  const auto service = [this](void*) {
    second.service();
    tenant.service();
    readLog();
    return recordings.service(0);
  };
  const auto ready = [this](void*) {
    beReady();
    return true;
  };
  const auto relay = [this](void*) { return startRelay(); };
  return startProcesses() && log.Initialize() && mkdirP(kRecordings, false, 0755, AT_FDCWD) &&
         recordings.start(kRecordings, "\\.mp4$", IN_CLOSE_WRITE, this) &&
         scheduler.AddTimerTask(kServiceMs, service, nullptr) != 0 &&
         scheduler.AddTimerTask(kReadyMs, 0, ready, nullptr) != 0 &&
         scheduler.AddTimerTask(kRelayMs, 0, relay, nullptr) != 0;
}

bool Neighbours::done() const {
  return ledger.counted(kRefused) == 1 && ledger.counted(kTenants) == 1 &&
         ledger.counted(kNoticed) == 1 && ledger.counted(kLogged) == kFrames &&
         ledger.counted(kRelays) == 1;
}

// ---- one that wants the daemon's place, and one that waits until it is ready ----

bool Neighbours::startProcesses() {
  std::string program;
  return place.acquire() == 0 && startup.Init() == 0 && startup.Set(kStarting) == 0 &&
         getModuleDir(program) && second.start(program += "/camera_daemon", {"--second", ""}) &&
         tenant.start(program, {"--tenant", ""});
}

int Neighbours::beSecond() {
  InterProcessMutex place("camera_daemon", false);
  if (place.acquire() == 0) return 0;
  std::puts("there is a daemon already: not starting");
  return kRefusedStatus;
}

int Neighbours::beTenant() {
  StartupControlFile startup(kStartupFile, false);
  std::puts("waiting until the daemon is ready");
  std::fflush(stdout);
  if (startup.Init() != 0 || startup.AwaitState(kReady, nullptr) != 0) return 1;
  std::puts("the daemon is ready, starting");
  return 0;
}

void Neighbours::beReady() {
  startup.Set(kReady);
  // A recording, and what is none.
  std::ofstream(std::string(kRecordings) + "/door.tmp") << "x";
  std::ofstream(std::string(kRecordings) + "/door.mp4") << "x";
}

void Neighbours::notify(const std::string& name, unsigned /*mask*/) {
  ledger.count(kNoticed);
  say("files", "a recording: " + name);
}

// ---- the system log, read while it is written ----

void Neighbours::readLog() {
  const auto take = [](const char* message, unsigned, void* context) {
    auto* const self = static_cast<Neighbours*>(context);
    int frame = 0;
    const char* const text = std::strstr(message, "camera: frame ");
    if (text == nullptr || std::sscanf(text, "camera: frame %d", &frame) != 1) return;
    // The logger waits while this runs, and must not be waited for: nothing is logged here.
    if (frame == self->lastFrame + 1) self->ledger.count(kLogged);
    self->lastFrame = frame;
    if (frame == kFrames) say("log", std::string(message, std::strcspn(message, "\n")));
  };
  log.ForEach(take, this);
}

// ---- many bytes, through a socket pair ----

bool Neighbours::startRelay() {
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) return false;
  outgoing.ReadFromRepeat('x', kRelayed);
  say("relay", "20 MB to send, in a buffer of " + std::to_string(outgoing.Size()) + " bytes");
  const auto writable = [this](unsigned long long id, int fd, int, void*) { return send(id, fd); };
  const auto readable = [this](int fd, void*) { return receive(fd); };
  return scheduler.AddIOTask(ends[0], EPOLLOUT, writable, nullptr) != 0 &&
         scheduler.AddIOTask(ends[1], EPOLLIN, readable, nullptr) != 0;
}

bool Neighbours::send(unsigned long long id, int fd) {
  int sent = 0;
  if (!outgoing.WriteToFd(fd, kChunk, sent)) return false;
  return outgoing.UnreadSize() > 0 || scheduler.RemoveIOTask(id);
}

bool Neighbours::receive(int fd) {
  int got = 0;
  if (!incoming.ReadFromFd(fd, kChunk, got)) return false;
  received += incoming.UnreadSize();
  incoming.IgnoreAll();
  if (received < kRelayed) return true;
  ledger.count(kRelays);
  say("relay", "all received through " + std::to_string(incoming.Size()) +
                   " bytes; the buffer has shrunk to " + std::to_string(outgoing.Size()));
  return true;
}
