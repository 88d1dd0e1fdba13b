#include "vexo_utils/procfs.h"

#include <climits>
#include <cstdlib>
#include <optional>

#include <fcntl.h>
#include <unistd.h>

#include "internal/log.h"
#include "internal/process_scan.h"
#include "internal/retry.h"
#include "internal/unique_fd.h"
#include "vexo_utils/string_utils.h"

using vexo::utils::internal::findProcesses;
using vexo::utils::internal::Process;
using vexo::utils::internal::readInSteps;
using vexo::utils::internal::retryOnEintr;
using vexo::utils::internal::splitCommandLine;
using vexo::utils::internal::UniqueFd;

namespace {

constexpr unsigned int kNoLimit = UINT_MAX;
constexpr unsigned int kMaxKernelCommandLine = 1024;

std::optional<std::string> kernelParameter(const std::string& key) {
  std::map<std::string, std::string> params;
  if (!ReadKernelCommandLine(params)) return std::nullopt;
  const auto found = params.find(key);
  if (found == params.end()) return std::nullopt;
  return found->second;
}

}  // namespace

int getPidsByName(const std::string& name, int* pids, int max) {
  const std::optional<std::vector<Process>> processes = findProcesses(name);
  if (!processes) return -1;
  if (pids == nullptr) return 0;
  int count = 0;
  for (const Process& process : *processes) {
    if (count >= max) break;
    pids[count++] = process.pid;
  }
  return count;
}

bool ReadProcFile(const char* path, std::string& out, unsigned int maxSize) {
  if (maxSize == 0) {
    VEXO_LOG_ERROR("Invalid maxSize parameter");
    return false;
  }
  out.clear();
  const UniqueFd fd(retryOnEintr([&] { return open(path, O_RDONLY | O_CLOEXEC); }));
  if (!fd.valid()) {
    VEXO_LOG_ERROR_ERRNO("Unable to open file `%s`", path);
    return false;
  }
  const std::size_t failed = readInSteps(fd.get(), out, maxSize);
  if (failed != 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to read %zd bytes from `%s`", static_cast<ssize_t>(failed), path);
    return false;
  }
  return true;
}

bool ReadCommandLine(std::string& exe, std::vector<std::string>& args) {
  std::string text;
  if (!ReadProcFile("/proc/self/cmdline", text, kNoLimit)) return false;
  args = splitCommandLine(std::move(text));
  exe = std::move(args.front());
  args.erase(args.begin());
  return true;
}

bool ReadKernelCommandLine(std::map<std::string, std::string>& params) {
  std::string text;
  if (!ReadProcFile("/proc/cmdline", text, kMaxKernelCommandLine)) return false;
  if (!text.empty() && text.back() == '\n') text.pop_back();
  std::vector<std::string> words;
  vexo::utils::tokenize(text, words, " ", true);
  params.clear();
  for (const std::string& word : words) {
    const std::size_t equals = word.find('=');
    params[word.substr(0, equals)] = equals != std::string::npos ? word.substr(equals + 1) : "";
  }
  return true;
}

bool ConsoleEnabled() {
  return kernelParameter("console") == "ttyS0";
}

bool GetRunMode(int& mode) {
  const std::optional<std::string> value = kernelParameter("VEXO_runmode");
  if (!value) return false;
  mode = static_cast<int>(std::strtoul(value->c_str(), nullptr, 10));
  return true;
}

bool getModulePath(std::string& path) {
  char target[PATH_MAX];  // of this link the kernel gives no more; it adds no NUL
  const ssize_t length = readlink("/proc/self/exe", target, sizeof target);
  if (length < 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to read link `/proc/self/exe`");
    return false;
  }
  path.assign(target, static_cast<std::size_t>(length));
  return true;
}

bool getModuleDir(std::string& folder) {
  std::string path;
  if (!getModulePath(path)) return false;
  const std::size_t slash = path.rfind('/');
  folder = slash == 0 ? "/" : path.substr(0, slash);
  return true;
}
