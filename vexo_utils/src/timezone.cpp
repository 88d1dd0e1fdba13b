#include "vexo_utils/timezone.h"

#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal/log.h"
#include "internal/retry.h"
#include "internal/unique_fd.h"
#include "vexo_utils/exec.h"
#include "vexo_utils/fileutils.h"
#include "vexo_utils/string_utils.h"

namespace vexo::utils {

using internal::retryOnEintr;
using internal::UniqueFd;

namespace {

constexpr char kDatabase[] = "/usr/share/zoneinfo/";
constexpr char kRuleFile[] = "/etc/TZ";
constexpr char kLink[] = "/etc/localtime";
constexpr unsigned kMaxRule = 128;       // bytes; the rules of real zones have less than 50
constexpr mode_t kReadableByAll = 0644;  // mkstemp(3) makes files that only root can read

// A name beside the one that is to be replaced; it is removed again unless it took that one's
// place.
class Temporary {
 public:
  explicit Temporary(const std::string& target) : name(target + "-XXXXXX") {}
  ~Temporary() { remove(); }
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;

  UniqueFd makeFile() {
    UniqueFd fd(mkostemp(name.data(), O_CLOEXEC));
    exists = fd.valid();
    if (!exists) VEXO_LOG_ERROR_ERRNO("Failed to make temp file");
    return fd;
  }

  // The name of a file becomes a symbolic link's.
  bool makeLink(const std::string& target) {
    if (!makeFile().valid()) return false;
    if (!remove() || symlink(target.c_str(), name.c_str()) != 0) {
      VEXO_LOG_ERROR_ERRNO("Failed to create sym link");
      return false;
    }
    exists = true;
    return true;
  }

  bool replace(const char* target) {
    if (rename(name.c_str(), target) != 0) {
      VEXO_LOG_ERROR_ERRNO("Failed to rename sym link");
      return false;
    }
    exists = false;
    return true;
  }

 private:
  bool remove() {
    if (exists) exists = unlink(name.c_str()) != 0;
    return !exists;
  }

  std::string name;
  bool exists = false;
};

bool resolve(const std::string& zoneFile, std::string& zone) {
  std::array<char, PATH_MAX> resolved{};
  if (realpath(zoneFile.c_str(), resolved.data()) == nullptr) {
    VEXO_LOG_ERROR_ERRNO("Failed to resolve path: %s", zoneFile.c_str());
    return false;
  }
  zone = resolved.data();
  if (!startsWith(zone, kDatabase)) {
    VEXO_LOG_ERROR("Illegal path: %s", zone.c_str());
    return false;
  }
  return true;
}

bool readRule(const std::string& zone, std::string& rule) {
  const std::vector<std::string> lastLine{"-n", "1", zone};
  const int status = sysExec(nullptr, &rule, nullptr, 0, kMaxRule, 0, "/bin/tail", lastLine);
  if (status == 0 && !rule.empty()) return true;
  if (!fileExists(zone.c_str(), true, AT_FDCWD)) {
    VEXO_LOG_ERROR("%s doesn't exists", zone.c_str());
  } else {
    VEXO_LOG_ERROR("Failed to read TZ string");
  }
  return false;
}

bool writeAll(int fd, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t put =
        retryOnEintr([&] { return write(fd, text.data() + done, text.size() - done); });
    if (put < 0) return false;
    done += static_cast<std::size_t>(put);
  }
  return true;
}

// Synced, or a power cut after the renaming could leave an empty file.
bool makeRuleFile(Temporary& file, const std::string& rule) {
  const UniqueFd fd = file.makeFile();
  if (!fd.valid()) return false;
  if (writeAll(fd.get(), rule) && fchmod(fd.get(), kReadableByAll) == 0 &&
      retryOnEintr([&] { return fsync(fd.get()); }) == 0) {
    return true;
  }
  VEXO_LOG_ERROR_ERRNO("Failed to write TZ string");
  return false;
}

}  // namespace

bool setTimeZone(const std::string& zoneFile) {
  std::string zone;
  std::string rule;
  if (!resolve(zoneFile, zone) || !readRule(zone, rule)) return false;
  Temporary link(kLink);
  Temporary ruleFile(kRuleFile);
  return link.makeLink(zone) && makeRuleFile(ruleFile, rule) && ruleFile.replace(kRuleFile) &&
         link.replace(kLink);
}

}  // namespace vexo::utils
