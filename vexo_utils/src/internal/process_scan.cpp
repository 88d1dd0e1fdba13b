#include "internal/process_scan.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include <dirent.h>
#include <regex.h>
#include <unistd.h>

#include "internal/files.h"
#include "internal/log.h"
#include "internal/retry.h"
#include "vexo_utils/string_utils.h"

namespace vexo::utils::internal {

namespace {

constexpr std::size_t kStep = 1024;

class NamePattern {
 public:
  explicit NamePattern(const std::string& name) {
    // c_str: a regular expression ends at the first NUL, and the "$" must not come after it.
    const std::string text = std::string("^(.*/)*") + name.c_str() + "$";
    compiled = regcomp(&pattern, text.c_str(), REG_EXTENDED | REG_NOSUB) == 0;
  }
  ~NamePattern() {
    if (compiled) regfree(&pattern);
  }
  NamePattern(const NamePattern&) = delete;
  NamePattern& operator=(const NamePattern&) = delete;

  bool valid() const { return compiled; }
  bool matches(const char* program) const { return regexec(&pattern, program, 0, nullptr, 0) == 0; }

 private:
  regex_t pattern{};
  bool compiled;
};

// The process that an entry of /proc stands for, 0 when it is none.
int pidOf(const char* entry) {
  int pid = 0;
  const char* end = entry + std::strlen(entry);
  const auto [parsed, error] = std::from_chars(entry, end, pid);
  return error == std::errc() && parsed == end ? std::max(pid, 0) : 0;
}

// Errors that concern the one process only: it has ended, or is not for us to see.
bool isGoneOrHidden(int error) {
  return error == ENOENT || error == ESRCH || error == EACCES || error == EPERM;
}

}  // namespace

std::optional<std::vector<Process>> findProcesses(const std::string& name) {
  const NamePattern pattern(name);
  if (!pattern.valid()) {
    errno = EINVAL;  // regcomp(3) does not set it
    VEXO_LOG_ERROR_ERRNO("Failed to compile regex");
    return std::nullopt;
  }
  const Folder folder(opendir("/proc/"));
  if (folder == nullptr) {
    VEXO_LOG_ERROR_ERRNO("Unable to open `/proc/`");
    return std::nullopt;
  }
  std::vector<Process> found;
  while (const dirent* entry = nextEntry(folder.get())) {
    const int pid = pidOf(entry->d_name);
    if (pid == 0) continue;
    const std::string path = std::string("/proc/") + entry->d_name + "/cmdline";
    std::optional<std::string> commandLine = readFile(path.c_str());
    if (!commandLine) {
      if (isGoneOrHidden(errno)) continue;
      VEXO_LOG_ERROR_ERRNO("Unable to read `%s`", path.c_str());
      return std::nullopt;
    }
    // The program is what comes before the first NUL.
    if (pattern.matches(commandLine->c_str())) found.push_back({pid, *std::move(commandLine)});
  }
  if (errno != 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to read `/proc/`");
    return std::nullopt;
  }
  return found;
}

std::vector<std::string> splitCommandLine(std::string commandLine) {
  if (!commandLine.empty() && commandLine.back() == '\0') commandLine.pop_back();
  std::vector<std::string> elements;
  split(commandLine, std::string(1, '\0'), elements);
  return elements;
}

std::size_t readInSteps(int fd, std::string& out, unsigned int maxSize) {
  char block[kStep];
  while (out.size() < maxSize) {
    const std::size_t step = std::min(sizeof block, maxSize - out.size());
    const ssize_t got = retryOnEintr([&] { return read(fd, block, step); });
    if (got < 0) return step;
    if (got == 0) break;
    out.append(block, static_cast<std::size_t>(got));
  }
  return 0;
}

}  // namespace vexo::utils::internal
