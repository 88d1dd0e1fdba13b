#include "vexo_utils/process.h"

#include <algorithm>
#include <cerrno>
#include <optional>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include "internal/log.h"
#include "internal/process_scan.h"
#include "internal/retry.h"
#include "internal/unique_fd.h"
#include "vexo_utils/exec.h"
#include "vexo_utils/string_utils.h"

namespace vexo::utils {

using internal::findProcesses;
using internal::Process;
using internal::retryOnEintr;
using internal::splitCommandLine;
using internal::UniqueFd;

namespace {

constexpr char kAlphaNumeric[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr unsigned int kAlphaNumerics = sizeof kAlphaNumeric - 1;
// The largest multiple of them that a byte can count to: bytes from there on would favour some.
constexpr unsigned int kFairBytes = 256 / kAlphaNumerics * kAlphaNumerics;
constexpr std::size_t kMaxRandomBlock = 4096;

bool collect(const std::string& name, std::vector<int>& pids,
             const std::function<bool(const Process&)>& wanted) {
  const std::optional<std::vector<Process>> processes = findProcesses(name);
  std::vector<int> found;  // not `pids` itself, which may be what `wanted` looks at
  if (processes) {
    for (const Process& process : *processes) {
      if (wanted(process)) found.push_back(process.pid);
    }
  }
  pids.swap(found);
  return processes.has_value();
}

bool isAnyAlive(const std::vector<int>& pids) {
  return std::any_of(pids.begin(), pids.end(), [](int pid) { return is_process_alive(pid); });
}

bool sendSignal(const char* program, int signal, const std::vector<std::string>& targets) {
  // To some versions of kill(1), a number that is no signal is the first target: -100 is everyone.
  if (signal < 0 || signal > SIGRTMAX) {
    VEXO_LOG_ERROR("Invalid signal %d", signal);
    return false;
  }
  std::vector<std::string> args{"-" + std::to_string(signal)};
  // Only where it is needed: to other versions "--" is a target, and one that fails.
  const auto looksLikeOption = [](const std::string& target) { return startsWith(target, "-"); };
  if (std::any_of(targets.begin(), targets.end(), looksLikeOption)) args.emplace_back("--");
  args.insert(args.end(), targets.begin(), targets.end());
  return sysExecSimple(program, args) == 0;
}

}  // namespace

bool is_process_alive(int pid) {
  if (pid < 1) return false;
  return kill(pid, 0) == 0 || errno != ESRCH;
}

bool is_process_alive(const std::string& name) {
  std::vector<int> pids;
  return pidof(name, pids) && isAnyAlive(pids);
}

bool is_process_alive(const std::string& name, const std::vector<int>& leftOut) {
  std::vector<int> pids;
  return pidof(name, pids, leftOut) && isAnyAlive(pids);
}

bool is_process_alive(const std::string& name, const CommandLineFilter& filter) {
  std::vector<int> pids;
  return pidof(name, pids, filter) && isAnyAlive(pids);
}

bool store_pid(const std::string& name) {
  const std::string path = "/var/run/" + name + ".pid";
  const std::string text = std::to_string(getpid()) + "\n";
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  const UniqueFd fd(retryOnEintr([&] { return open(path.c_str(), flags, 0644); }));
  // Too few bytes to be written in part.
  if (!fd.valid() || retryOnEintr([&] { return write(fd.get(), text.data(), text.size()); }) < 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to write pid file `%s`", path.c_str());
    return false;
  }
  return true;
}

bool pidof(const std::string& name, std::vector<int>& pids) {
  return collect(name, pids, [](const Process&) { return true; });
}

bool pidof(const std::string& name, std::vector<int>& pids, const std::vector<int>& leftOut) {
  return collect(name, pids, [&](const Process& process) {
    return std::find(leftOut.begin(), leftOut.end(), process.pid) == leftOut.end();
  });
}

bool pidof(const std::string& name, std::vector<int>& pids, const CommandLineFilter& filter) {
  if (!filter) return pidof(name, pids);
  return collect(name, pids, [&](const Process& process) {
    return filter(splitCommandLine(process.commandLine));
  });
}

int single_pidof(const std::string& name) {
  std::vector<int> pids;
  if (!pidof(name, pids)) return -1;
  if (pids.size() == 1) return pids.front();
  errno = pids.empty() ? ESRCH : ERANGE;
  return -1;
}

bool kill_process_by_pids(const std::vector<int>& pids, int signal) {
  if (pids.empty()) return true;
  std::vector<std::string> targets;
  targets.reserve(pids.size());
  for (const int pid : pids) targets.push_back(std::to_string(pid));
  std::string list;
  join(list, " ", targets);
  VEXO_LOG_INFO("signals %d to %s", signal, list.c_str());
  return sendSignal("/bin/kill", signal, targets);
}

bool kill_process_by_name(const std::string& name, int signal) {
  VEXO_LOG_INFO("signals %d to %s", signal, name.c_str());
  return sendSignal("/bin/pkill", signal, {name});
}

bool randomBytes(unsigned char* buf, unsigned int n) {
  if (buf == nullptr || n == 0) return false;
  const UniqueFd fd(retryOnEintr([] { return open("/dev/urandom", O_RDONLY | O_CLOEXEC); }));
  if (!fd.valid()) return false;
  while (n > 0) {
    const ssize_t got = retryOnEintr([&] { return read(fd.get(), buf, n); });
    if (got <= 0) return false;  // 0: what stands there is not the device
    buf += got;
    n -= static_cast<unsigned int>(got);
  }
  return true;
}

bool randomAlphaNumericString(std::string& out, unsigned int length) {
  std::string text;
  while (text.size() < length) {
    const std::size_t missing = length - text.size();
    // One byte in 32 is not fair: with twice as many to spare, one block is enough nearly always.
    std::vector<unsigned char> block(std::min(missing + missing / 16 + 16, kMaxRandomBlock));
    if (!randomBytes(block.data(), static_cast<unsigned int>(block.size()))) return false;
    for (const unsigned char byte : block) {
      if (byte < kFairBytes && text.size() < length) text += kAlphaNumeric[byte % kAlphaNumerics];
    }
  }
  out = std::move(text);
  return true;
}

}  // namespace vexo::utils
