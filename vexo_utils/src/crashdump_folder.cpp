#include "internal/crashdump_folder.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "internal/files.h"
#include "internal/log.h"
#include "vexo_utils/crashdumps.h"
#include "vexo_utils/fileutils.h"

using vexo::utils::internal::openAt;
using vexo::utils::internal::UniqueFd;

namespace {

constexpr char kTmp[] = "/tmp";
constexpr char kRoot[] = "crashdumps";  // in kTmp
constexpr mode_t kMode = 0755;

constexpr long kDefaultCount = 1;
constexpr long kMaxCount = 100;

constexpr std::size_t kDigits = 10;
constexpr long long kMaxNumber = INT_MAX;

bool isFolderName(std::string_view app) {
  return !app.empty() && app != "." && app != ".." && app.find('/') == std::string_view::npos;
}

long foldersToKeep() {
  const char* text = getenv("CRASH_DUMPS_COUNT");
  if (text == nullptr) return kDefaultCount;
  char* end = nullptr;
  const long count = strtol(text, &end, 10);
  if (end == text || *end != '\0' || count <= 0) {
    VEXO_LOG_WARNING(
        "CRASH_DUMPS_COUNT env variable is not a number or less or equal to 0. Using the default "
        "value of 1");
    return kDefaultCount;
  }
  if (count > kMaxCount) {
    VEXO_LOG_WARNING(
        "CRASH_DUMPS_COUNT env variable is bigger than allowed max (100). Capping to 100");
    return kMaxCount;
  }
  return count;
}

// In a folder that belongs to somebody else, that one could put a link where a dump is to go.
bool isTrusted(int folder) {
  struct stat st {};
  if (fstat(folder, &st) != 0) return false;
  if (st.st_uid == 0 || st.st_uid == geteuid()) return true;
  errno = EPERM;
  return false;
}

// Makes the folder if it is missing, and opens it.
UniqueFd enter(int parent, const char* name) {
  if (!mkdirP(name, false, kMode, parent)) return {};
  UniqueFd folder = openAt(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
  if (!folder.valid() || !isTrusted(folder.get())) return {};
  return folder;
}

UniqueFd enterBase(const char* app) {
  if (!mkdirP(kTmp, false, kMode, AT_FDCWD)) return {};
  const UniqueFd tmp = openAt(AT_FDCWD, kTmp, O_RDONLY | O_DIRECTORY);
  if (!tmp.valid()) return {};
  const UniqueFd root = enter(tmp.get(), kRoot);
  if (!root.valid()) return {};
  return enter(root.get(), app);
}

// The names of the dump folders, the oldest first. False: it cannot be read, logged.
bool scan(int base, const std::string& path, std::vector<std::string>& names) {
  dirent** list = nullptr;
  const int count =
      scandirat(base, ".", &list, CrashDumpHandler::crash_dump_folder_filer, alphasort);
  if (count < 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to scan folder `%s`", path.c_str());
    return false;
  }
  for (int i = 0; i < count; ++i) {
    names.emplace_back(list[i]->d_name);
    free(list[i]);
  }
  free(list);
  return true;
}

// Makes room for one more among `count`.
void evict(int base, const std::string& path, const std::vector<std::string>& names, long count) {
  const std::size_t staying = std::min(static_cast<std::size_t>(count) - 1, names.size());
  const std::size_t superfluous = names.size() - staying;
  for (std::size_t i = 0; i < superfluous; ++i) {
    if (rmRf(names[i], base)) continue;
    VEXO_LOG_WARNING("Unable to evict folder `%s`", (path + "/" + names[i]).c_str());
  }
}

std::string folderName(long long number) {
  char text[kDigits + 1];
  snprintf(text, sizeof text, "%010d", static_cast<int>(number));
  return text;
}

// A number that is taken by something else, or by another start at the same time, is passed over.
UniqueFd makeNext(int base, long long number, std::string& name) {
  for (; number <= kMaxNumber; ++number) {
    name = folderName(number);
    if (mkdirat(base, name.c_str(), kMode) == 0) {
      return openAt(base, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    }
    if (errno != EEXIST) return {};
  }
  errno = ERANGE;
  return {};
}

}  // namespace

namespace vexo::utils::internal {

UniqueFd makeCrashDumpFolder(const char* app, std::string& folder) {
  if (app == nullptr || !isFolderName(app)) {
    errno = EINVAL;
    return {};
  }
  const long count = foldersToKeep();
  const std::string path = std::string(kTmp) + "/" + kRoot + "/" + app;
  const UniqueFd base = enterBase(app);
  if (!base.valid()) return {};
  std::vector<std::string> names;
  if (!scan(base.get(), path, names)) return {};
  evict(base.get(), path, names, count);
  const long long last = names.empty() ? 0 : strtoll(names.back().c_str(), nullptr, 10);
  std::string name;
  UniqueFd made = makeNext(base.get(), last + 1, name);
  if (made.valid()) folder = path + "/" + name;
  return made;
}

}  // namespace vexo::utils::internal

bool CrashDumpHandler::GetCrashDumpFolder(const char* app, std::string& folder) {
  return vexo::utils::internal::makeCrashDumpFolder(app, folder).valid();
}

int CrashDumpHandler::crash_dump_folder_filer(const dirent* entry) {
  const std::string_view name = entry->d_name;
  if (entry->d_type != DT_DIR || name.size() != kDigits) return 0;
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  if (!std::all_of(name.begin(), name.end(), isDigit)) return 0;
  return strtoll(entry->d_name, nullptr, 10) <= kMaxNumber ? 1 : 0;
}
