#include "vexo_utils/exec.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "internal/exec_state.h"
#include "internal/log.h"
#include "internal/retry.h"
#include "internal/spawn.h"
#include "internal/unique_fd.h"
#include "internal/write_no_sigpipe.h"
#include "vexo_utils/timer.h"

namespace vexo::utils {

using internal::kEnded;
using internal::kErrOverflow;
using internal::kExited;
using internal::kFailed;
using internal::kOutOverflow;
using internal::kRunning;
using internal::kStarting;
using internal::retryOnEintr;
using internal::UniqueFd;

namespace {

constexpr std::size_t kChunk = 16384;
constexpr unsigned kStepMs = 10;      // between looks where the kernel cannot tell of a child's end
constexpr unsigned kGraceMs = 10;     // before SIGKILL
constexpr unsigned kKilledMs = 5000;  // after it
constexpr long long kDrainMs = 100;

bool isTemporary(int error) {
  return error == EAGAIN || error == EINTR;
}

// errno stays as it was.
void closeEnd(int& fd) {
  UniqueFd(std::exchange(fd, -1)).reset();
}

void closeBoth(int (&ends)[2]) {
  for (int& end : ends) closeEnd(end);
}

int timeoutOf(long long ms) {
  return static_cast<int>(std::clamp<long long>(ms, 0, INT_MAX));
}

}  // namespace

// One output stream of the child, and what becomes of it.
struct SysExec::Output {
  bool& open;
  int fd;
  std::vector<char>& buffer;
  std::vector<char>* target;
  std::string* text;
  int targetFd;
  unsigned int threshold;
  bool overflowStop;
  int overflowBit;
  unsigned long long& accepted;
};

SysExec::SysExec() = default;

SysExec::~SysExec() {
  stop();
}

// ---- configuration ----

bool SysExec::isConfigurable() const {
  if (state == 0) return true;
  VEXO_LOG_ERROR("Setter applicable only to never serviced instance");
  return false;
}

SysExec& SysExec::setName(const std::string& label) {
  if (isConfigurable()) name = label;
  return *this;
}

SysExec& SysExec::setExe(const std::string& path) {
  if (isConfigurable()) exe = path;
  return *this;
}

SysExec& SysExec::setArgs(std::vector<std::string> arguments) {
  if (isConfigurable()) args = std::move(arguments);
  return *this;
}

SysExec& SysExec::pushArg(const std::string& argument) {
  if (isConfigurable()) args.push_back(argument);
  return *this;
}

SysExec& SysExec::setIn(const std::string& data) {
  if (!isConfigurable()) return *this;
  in = data;
  pipeIn = true;
  return *this;
}

SysExec& SysExec::setOut(std::vector<char>* target) {
  if (!isConfigurable()) return *this;
  outVector = target;
  pipeOut = true;
  return *this;
}

SysExec& SysExec::setOut(int fd) {
  if (!isConfigurable()) return *this;
  outFd = fd;
  pipeOut = true;
  return *this;
}

SysExec& SysExec::setErr(std::vector<char>* target) {
  if (!isConfigurable()) return *this;
  errVector = target;
  pipeErr = true;
  return *this;
}

SysExec& SysExec::setOutThreshold(unsigned int bytes) {
  if (isConfigurable()) outThreshold = bytes;
  return *this;
}

SysExec& SysExec::setErrThreshold(unsigned int bytes) {
  if (isConfigurable()) errThreshold = bytes;
  return *this;
}

SysExec& SysExec::setOutOverflowStop(bool stop) {
  if (isConfigurable()) outOverflowStop = stop;
  return *this;
}

SysExec& SysExec::setErrOverflowStop(bool stop) {
  if (isConfigurable()) errOverflowStop = stop;
  return *this;
}

SysExec& SysExec::setMaskSignals(const sigset_t* set) {
  if (!isConfigurable()) return *this;
  maskSignals = set != nullptr;
  if (maskSignals) mask = *set;
  return *this;
}

SysExec& SysExec::setDaemon(bool detached) {
  if (isConfigurable()) daemon = detached;
  return *this;
}

// ---- start ----

bool SysExec::fail(int failureCode, int failedState) {
  code = failureCode;
  state = failedState;
  return false;
}

bool SysExec::start() {
  if (state != 0) return fail(10, state);
  if (exe.empty()) return fail(20, state);
  state = kStarting;
  if (!buildArguments()) return fail(30, kStarting | kFailed | kEnded);
  outBuffer.resize(pipeOut ? kChunk : 0);
  errBuffer.resize(pipeErr ? kChunk : 0);

  int handOver[2] = {-1, -1};
  const bool started = openPipes(handOver) && makeNonBlocking() && startChild(handOver[1]) &&
                       (!daemon || collectDaemon(handOver));
  closeBoth(handOver);
  closeEnd(inPipe[0]);
  closeEnd(outPipe[1]);
  closeEnd(errPipe[1]);
  if (!started) {
    closePipes();
    return false;
  }
  state = kRunning;
  return true;
}

bool SysExec::buildArguments() {
  argv = static_cast<char**>(std::calloc(args.size() + 2, sizeof *argv));
  if (argv == nullptr) return false;
  argv[0] = exe.data();
  cmd = exe;
  for (std::size_t i = 0; i < args.size(); ++i) {
    argv[i + 1] = args[i].data();
    cmd += ' ' + args[i];
  }
  return true;
}

// Close-on-exec from the start, since other threads may execute programs too, and above the
// standard streams, in whose place the child would have to put them.
bool SysExec::openPipe(int (&ends)[2]) {
  if (pipe2(ends, O_CLOEXEC) != 0) return fail(40, kStarting | kFailed | kEnded);
  for (int& end : ends) {
    if (end > STDERR_FILENO) continue;
    const UniqueFd low(std::exchange(end, -1));
    end = fcntl(low.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (end < 0) return fail(40, kStarting | kFailed | kEnded);
  }
  return true;
}

bool SysExec::openPipes(int (&handOver)[2]) {
  return (!daemon || openPipe(handOver)) && (!pipeIn || openPipe(inPipe)) &&
         (!pipeOut || openPipe(outPipe)) && (!pipeErr || openPipe(errPipe));
}

// Our ends only: each end has flags of its own.
bool SysExec::makeNonBlocking() {
  for (const int end : {inPipe[1], outPipe[0], errPipe[0]}) {
    if (end >= 0 && fcntl(end, F_SETFL, O_NONBLOCK) != 0) return fail(80, kFailed | kEnded);
  }
  return true;
}

bool SysExec::startChild(int handOver) {
  internal::SpawnPlan plan{};
  plan.exe = exe.c_str();
  plan.argv = argv;
  plan.envp = environ;
  plan.mask = maskSignals ? &mask : nullptr;
  plan.streams[0] = inPipe[0];
  plan.streams[1] = outPipe[1];
  plan.streams[2] = errPipe[1];
  plan.handOver = handOver;
  pid = internal::spawn(plan);
  return pid >= 0 || fail(40, kStarting | kFailed | kEnded);
}

// The intermediate child's end, and the daemon's pid from it.
bool SysExec::collectDaemon(int (&handOver)[2]) {
  const int intermediate = std::exchange(pid, -1);
  int childStatus = 0;
  if (retryOnEintr([&] { return waitpid(intermediate, &childStatus, 0); }) < 0) {
    return fail(50, kFailed | kEnded);
  }
  if (childStatus != 0) return fail(60, kFailed | kEnded);
  closeEnd(handOver[1]);
  int daemonPid = -1;
  const ssize_t got = retryOnEintr([&] { return read(handOver[0], &daemonPid, sizeof daemonPid); });
  if (got != static_cast<ssize_t>(sizeof daemonPid)) return fail(70, kFailed | kEnded);
  pid = daemonPid;
  return true;
}

// ---- service ----

bool SysExec::service() {
  if (state != kRunning) return fail(90, state);
  return writeInput() && readOutput(standardOutput(), nullptr) &&
         readOutput(standardError(), nullptr) && lookForEnd();
}

bool SysExec::lookForEnd() {
  bool exited = false;
  bool signalled = false;
  if (!waitPid(0, nullptr, &exited, &signalled, &status) || signalled) {
    return fail(100, kFailed | kEnded);
  }
  if (exited) state = kExited | kEnded;
  return true;
}

bool SysExec::writeInput() {
  if (!pipeIn) return true;
  if (const std::size_t size = std::min(in.size() - inWritten, kChunk); size != 0) {
    const ssize_t written = internal::writeNoSigpipe(inPipe[1], in.data() + inWritten, size);
    if (written < 0) return isTemporary(errno) || fail(110, kFailed | kEnded);
    inWritten += static_cast<std::size_t>(written);
  }
  if (inWritten == in.size()) {
    pipeIn = false;
    closeEnd(inPipe[1]);
  }
  return true;
}

SysExec::Output SysExec::standardOutput() {
  return {pipeOut, outPipe[0],   outBuffer,       outVector,    outText,
          outFd,   outThreshold, outOverflowStop, kOutOverflow, outAccepted};
}

SysExec::Output SysExec::standardError() {
  return {pipeErr, errPipe[0],   errBuffer,       errVector,    errText,
          -1,      errThreshold, errOverflowStop, kErrOverflow, errAccepted};
}

bool SysExec::readOutput(Output stream, bool* more) {
  if (more != nullptr) *more = false;
  if (!stream.open) return true;
  const bool full = stream.threshold != 0 && stream.accepted >= stream.threshold;
  if (full && stream.overflowStop) {
    stream.open = false;
    return fail(120, stream.overflowBit | kEnded);
  }
  std::size_t chunk = kChunk;
  if (stream.threshold != 0 && !full) {
    chunk = static_cast<std::size_t>(
        std::min<unsigned long long>(chunk, stream.threshold - stream.accepted));
  }
  const ssize_t got = read(stream.fd, stream.buffer.data(), chunk);
  if (got < 0) return isTemporary(errno) || fail(130, kFailed | kEnded);
  if (got == 0) {
    stream.open = false;
    return true;
  }
  if (more != nullptr) *more = static_cast<std::size_t>(got) == chunk;
  if (full) return true;  // read, so that the child does not block, and thrown away
  if (!store(stream, static_cast<std::size_t>(got))) return fail(140, kFailed | kEnded);
  stream.accepted += static_cast<unsigned long long>(got);
  return true;
}

// For a helper's run: reads on while whole chunks come.
bool SysExec::readMuch() {
  constexpr int kChunks = 64;
  bool more = true;
  for (int i = 0; more && i < kChunks; ++i) {
    if (!readOutput(standardOutput(), &more)) return false;
  }
  more = true;
  for (int i = 0; more && i < kChunks; ++i) {
    if (!readOutput(standardError(), &more)) return false;
  }
  return true;
}

bool SysExec::store(const Output& stream, std::size_t size) {
  const char* data = stream.buffer.data();
  if (stream.target != nullptr) {
    stream.target->insert(stream.target->end(), data, data + size);
    return true;
  }
  if (stream.text != nullptr) {
    stream.text->append(data, size);
    return true;
  }
  if (stream.targetFd < 0) return true;
  while (size > 0) {
    const ssize_t written = internal::writeNoSigpipe(stream.targetFd, data, size);
    if (written < 0 && errno == EAGAIN) {
      pollfd target{stream.targetFd, POLLOUT, 0};
      poll(&target, 1, static_cast<int>(kStepMs));
    }
    if (written < 0 && !isTemporary(errno)) return false;
    if (written > 0) {
      data += written;
      size -= static_cast<std::size_t>(written);
    }
  }
  return true;
}

// ---- waiting ----

bool SysExec::waitPid(unsigned int timeoutMs, bool* timedOut, bool* exited, bool* signalled,
                      int* childStatus) {
  if (pid < 0) return false;
  for (bool* result : {timedOut, exited, signalled}) {
    if (result != nullptr) *result = false;
  }
  if (childStatus != nullptr) *childStatus = 0;

  const long long deadline = nowMs() + timeoutMs;
  for (;;) {
    int collected = 0;
    const pid_t ended = waitpid(pid, &collected, WNOHANG);
    if (ended < 0) return false;
    if (ended > 0) {
      if (childStatus != nullptr) *childStatus = collected;
      if (exited != nullptr) *exited = WIFEXITED(collected);
      if (signalled != nullptr) *signalled = WIFSIGNALED(collected);
      pid = -1;
      closeEnd(pidFd);
      return true;
    }
    const long long left = timeoutMs == 0 ? 0 : deadline - nowMs();
    if (left <= 0) {
      if (timedOut != nullptr) *timedOut = true;
      return true;
    }
    waitForEnd(left);
  }
}

// False where the kernel, or its table of descriptors, has nothing to wait on.
bool SysExec::openPidFd() {
  if (pidFd < 0) pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  return pidFd >= 0;
}

void SysExec::waitForEnd(long long timeoutMs) {
  if (!openPidFd()) {
    sleepMs(static_cast<unsigned long long>(std::min<long long>(timeoutMs, kStepMs)));
    return;
  }
  pollfd waited{pidFd, POLLIN, 0};
  poll(&waited, 1, timeoutOf(timeoutMs));
}

void SysExec::waitReady(unsigned int timeoutMs) {
  if (state == kRunning) waitForActivity(timeoutMs);
}

// False when there is something to do, and the child's end is not it.
bool SysExec::waitForActivity(unsigned int timeoutMs) {
  const unsigned int timeout = openPidFd() ? timeoutMs : std::min(timeoutMs, kStepMs);
  // poll(2) passes over negative descriptors.
  pollfd waited[] = {
      {pipeIn ? inPipe[1] : -1, POLLOUT, 0},
      {pipeOut ? outPipe[0] : -1, POLLIN, 0},
      {pipeErr ? errPipe[0] : -1, POLLIN, 0},
      {pidFd, POLLIN, 0},
  };
  const int ready = poll(waited, std::size(waited), timeoutOf(timeout));
  return ready <= 0 || pidFd < 0 || waited[3].revents != 0;
}

// ---- stop ----

void SysExec::stop() {
  if (state == 0) return;
  if (!daemon && (state & kExited) == 0 && pid >= 0) {
    endChild();
    state |= kEnded;
  }
  if ((state & kEnded) != 0 && (state & kStarting) == 0) drain();
  reset();
}

void SysExec::endChild() {
  bool timedOut = false;
  if (!waitPid(kGraceMs, &timedOut, nullptr, nullptr, nullptr)) {
    VEXO_LOG_WARNING_ERRNO("Failed to wait for pid=%d", pid);
  }
  if (!timedOut) return;
  kill(pid, SIGKILL);
  if (!waitPid(kKilledMs, nullptr, nullptr, nullptr, nullptr)) {
    VEXO_LOG_WARNING_ERRNO("Failed to wait for pid=%d", pid);
  }
}

// What the child has written and nobody has read yet.
void SysExec::drain() {
  const long long deadline = nowMs() + kDrainMs;
  while (pipeOut || pipeErr) {
    const long long left = deadline - nowMs();
    if (left < 0) {
      VEXO_LOG_WARNING("Timeout reading from stopped process pipes, name '%s'", name.c_str());
      return;
    }
    pollfd waited[] = {{pipeOut ? outPipe[0] : -1, POLLIN, 0},
                       {pipeErr ? errPipe[0] : -1, POLLIN, 0}};
    poll(waited, std::size(waited), timeoutOf(left));
    if (!readOutput(standardOutput(), nullptr)) pipeOut = false;
    if (!readOutput(standardError(), nullptr)) pipeErr = false;
  }
}

void SysExec::closePipes() {
  for (auto* ends : {&inPipe, &outPipe, &errPipe}) closeBoth(*ends);
  pipeIn = pipeOut = pipeErr = false;
}

void SysExec::reset() {
  closePipes();
  closeEnd(pidFd);
  std::free(argv);
  argv = nullptr;
  in.clear();
  exe.clear();
  cmd.clear();
  args.clear();
  outVector = errVector = nullptr;
  outText = errText = nullptr;
  outFd = -1;
  outThreshold = errThreshold = 0;
  outOverflowStop = errOverflowStop = true;
  maskSignals = daemon = false;
  inWritten = 0;
  outAccepted = errAccepted = 0;
  pid = -1;
  state = code = status = 0;
}

}  // namespace vexo::utils
