#include "vexo_utils/fileutils.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <glob.h>
#include <libgen.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "internal/files.h"
#include "internal/log.h"
#include "internal/path_watch.h"
#include "internal/retry.h"
#include "internal/unique_fd.h"
#include "vexo_utils/string_utils.h"
#include "vexo_utils/timer.h"

using vexo::utils::internal::Folder;
using vexo::utils::internal::nextEntry;
using vexo::utils::internal::openAt;
using vexo::utils::internal::PathWatch;
using vexo::utils::internal::readToEnd;
using vexo::utils::internal::retryOnEintr;
using vexo::utils::internal::UniqueFd;

namespace {

constexpr long long kSlowPollMs = 500;

struct Free {
  void operator()(char* memory) const { free(memory); }
};
using CString = std::unique_ptr<char, Free>;

bool sync(int fd) {
  return retryOnEintr([&] { return fsync(fd); }) == 0;
}

bool syncParentOf(const char* path, int dirfd) {
  const CString copy(strdup(path));  // dirname(3) changes what it is given
  return copy != nullptr && syncDir(dirname(copy.get()), dirfd);
}

UniqueFd openToRead(const std::string& path, int dirfd) {
  UniqueFd fd = openAt(dirfd, path.c_str(), O_RDONLY);
  if (!fd.valid()) VEXO_LOG_ERROR_ERRNO("Unable to open '%s'", path.c_str());
  return fd;
}

}  // namespace

// ---- paths as text ----

std::string dirName(std::string path) {
  if (path.size() > 1 && path.back() == '/') path.pop_back();
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  path.resize(std::max<std::size_t>(slash, 1));
  return path;
}

std::string baseName(std::string path) {
  return path.erase(0, path.rfind('/') + 1);  // npos + 1 is 0
}

std::string dirname_safe(const std::string& path) {
  std::string copy = path;
  return dirname(copy.data());
}

std::string basename_safe(const std::string& path) {
  std::string copy = path;
  return basename(copy.data());  // that of libgen.h; the one of string.h gives "" for "a/"
}

std::string normalizePath(const std::string& path) {
  if (path.empty()) return "";
  std::string whole = path;
  if (path.front() != '/') {
    const CString workingDirectory(getcwd(nullptr, 0));
    if (workingDirectory == nullptr) {
      VEXO_LOG_ERROR_ERRNO("Failed to getcwd()");
      return "";
    }
    whole = std::string(workingDirectory.get()) + "/" + path;
  }
  std::string result;  // each piece with a "/" before it
  std::vector<std::string> pieces;
  vexo::utils::split(whole, "/", pieces);
  for (const std::string& piece : pieces) {
    if (piece.empty() || piece == ".") continue;
    if (piece != "..") {
      result += "/" + piece;
    } else if (!result.empty()) {
      result.erase(result.rfind('/'));
    }
  }
  return result.empty() ? "/" : result;
}

std::string resolvePath(const std::string& path) {
  const CString resolved(realpath(path.c_str(), nullptr));
  if (resolved == nullptr) {
    VEXO_LOG_ERROR_ERRNO("Failed to resolve '%s'", path.c_str());
    return "";
  }
  return resolved.get();
}

// ---- looking at files ----

bool fileExists(const char* path, bool followLinks, int dirfd) {
  if (path == nullptr) return false;
  return faccessat(dirfd, path, F_OK, followLinks ? 0 : AT_SYMLINK_NOFOLLOW) != -1;
}

bool isDir(const std::string& path, int dirfd) {
  struct stat st {};
  return fstatat(dirfd, path.c_str(), &st, 0) == 0 && S_ISDIR(st.st_mode);
}

bool isFile(const std::string& path, int dirfd) {
  struct stat st {};
  return fstatat(dirfd, path.c_str(), &st, 0) == 0 && S_ISREG(st.st_mode);
}

bool isDirRW(const std::string& path) {
  struct statvfs fileSystem {};
  if (retryOnEintr([&] { return statvfs(path.c_str(), &fileSystem); }) != 0) return false;
  return isDir(path, AT_FDCWD) && (fileSystem.f_flag & ST_RDONLY) == 0;
}

bool fileStat(const std::string& path, struct stat& st, int dirfd) {
  struct stat found {};
  if (fstatat(dirfd, path.c_str(), &found, 0) != 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to get stat of '%s'", path.c_str());
    return false;
  }
  st = found;
  return true;
}

bool lastModTime(const std::string& path, uint64_t& out, int dirfd) {
  struct stat st {};
  if (!fileStat(path, st, dirfd)) {
    VEXO_LOG_ERROR("Failed");
    return false;
  }
  out = static_cast<uint64_t>(st.st_mtim.tv_sec) * 1'000'000'000 +
        static_cast<uint64_t>(st.st_mtim.tv_nsec);
  return true;
}

bool fileSize(const std::string& path, uint64_t& out, int dirfd) {
  struct stat st {};
  if (!fileStat(path, st, dirfd)) {
    VEXO_LOG_ERROR("Failed");
    return false;
  }
  out = static_cast<uint64_t>(st.st_size);
  return true;
}

// ---- reading ----

std::optional<std::string> readFromFile(const std::string& path, int dirfd) {
  const UniqueFd fd = openToRead(path, dirfd);
  if (!fd.valid()) return std::nullopt;
  std::optional<std::string> text = readToEnd(fd.get());
  if (!text) VEXO_LOG_ERROR_ERRNO("Unable to read '%s'", path.c_str());
  return text;
}

bool forEachLine(const std::string& path,
                 const std::function<bool(const std::string& line)>& onLine, int dirfd) {
  if (!onLine) {
    errno = EINVAL;
    VEXO_LOG_ERROR_ERRNO("Unable to read '%s'", path.c_str());
    return false;
  }
  const UniqueFd fd = openToRead(path, dirfd);
  if (!fd.valid()) return false;
  std::string line;
  char block[4096];
  for (;;) {
    const ssize_t got = retryOnEintr([&] { return read(fd.get(), block, sizeof block); });
    if (got < 0) {
      VEXO_LOG_ERROR_ERRNO("Unable to read '%s'", path.c_str());
      return false;
    }
    if (got == 0) break;
    const char* const end = block + got;
    const char* rest = block;
    for (const char* feed; (feed = std::find(rest, end, '\n')) != end; rest = feed + 1) {
      line.append(rest, feed);
      if (!onLine(line)) return true;
      line.clear();
    }
    line.append(rest, end);
  }
  if (!line.empty()) onLine(line);
  return true;
}

bool listFolder(const std::string& path, std::vector<std::string>& out, int dirfd) {
  const Folder folder(opendirat(dirfd, path.c_str(), O_RDONLY | O_DIRECTORY));
  if (folder == nullptr) return false;
  std::vector<std::string> names;
  while (const dirent* entry = nextEntry(folder.get())) names.emplace_back(entry->d_name);
  if (errno != 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to read '%s'", path.c_str());
    return false;
  }
  std::sort(names.begin(), names.end());
  out.swap(names);
  return true;
}

void glob(const char* pattern, std::vector<std::string>& out) {
  out.clear();
  if (pattern == nullptr) return;
  glob64_t found{};
  if (glob64(pattern, GLOB_TILDE, nullptr, &found) == 0) {
    out.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
  }
  globfree64(&found);
}

DIR* opendirat(int dirfd, const char* path, int flags) {
  errno = EFAULT;
  UniqueFd fd = path != nullptr ? openAt(dirfd, path, flags) : UniqueFd();
  if (!fd.valid()) {
    VEXO_LOG_ERROR_ERRNO("Failed to openat '%s'", path != nullptr ? path : "(null)");
    return nullptr;
  }
  DIR* folder = fdopendir(fd.get());
  if (folder == nullptr) {
    VEXO_LOG_ERROR_ERRNO("Failed to fdopendir %d", fd.get());
    return nullptr;
  }
  (void)fd.release();  // the stream's now
  return folder;
}

// ---- making changes durable ----

bool syncDir(const char* path, int dirfd) {
  if (path == nullptr) return false;
  const UniqueFd fd = openAt(dirfd, path, O_RDONLY | O_DIRECTORY);
  return fd.valid() && sync(fd.get());
}

bool syncFile(const char* path, bool syncParent, int dirfd) {
  if (path == nullptr) return false;
  const UniqueFd fd = openAt(dirfd, path, O_RDONLY);
  if (!fd.valid() || !sync(fd.get())) return false;
  return !syncParent || syncParentOf(path, dirfd);
}

// ---- creating ----

bool touchFile(const std::string& path, bool create, int dirfd) {
  const bool set = utimensat(dirfd, path.c_str(), nullptr, 0) == 0;
  if (!set && (errno != ENOENT || !create)) {
    VEXO_LOG_WARNING_ERRNO("Couldn't open() path: %s", path.c_str());
    return false;
  }
  if (!openAt(dirfd, path.c_str(), O_RDWR | O_CREAT, 0666).valid()) {
    VEXO_LOG_ERROR_ERRNO("Couldn't open() path: %s", path.c_str());
    return false;
  }
  return true;
}

bool mkdirP(const std::string& path, bool syncParent, unsigned int mode, int dirfd) {
  if (path.empty()) return false;
  std::string prefix = path.front() == '/' ? "/" : "";
  std::vector<std::string> pieces;
  vexo::utils::split(path, "/", pieces);
  for (const std::string& piece : pieces) {
    if (piece.empty()) continue;
    prefix += piece;
    struct stat st {};
    if (fstatat(dirfd, prefix.c_str(), &st, 0) == 0) {
      if (!S_ISDIR(st.st_mode)) return false;
    } else {
      errno = 0;
      if (mkdirat(dirfd, prefix.c_str(), mode) != 0) {
        // Another process was faster; or a link that leads nowhere, which is no folder.
        if (errno != EEXIST || !isDir(prefix, dirfd)) return false;
      }
      if (syncParent && !syncParentOf(prefix.c_str(), dirfd)) return false;
    }
    prefix += '/';
  }
  return true;
}

bool openTmpFStream(const std::string& pattern, NamedFStream& stream) {
  std::string name = pattern.c_str();  // what mkostemp sees, should there be a NUL in it
  const UniqueFd fd(mkostemp64(name.data(), O_CLOEXEC));
  if (!fd.valid()) {
    VEXO_LOG_ERROR_ERRNO("error: failed to create temporary file");
    return false;
  }
  if (stream.is_open()) stream.close();
  stream.name = name;
  stream.open(name, std::ios::in | std::ios::out);  // sets the fail bit if it fails
  return true;
}

// ---- waiting ----

bool waitForFiles(const std::vector<std::string>& paths, unsigned int timeoutMs) {
  const auto isEmpty = [](const std::string& path) { return path.empty(); };
  if (std::any_of(paths.begin(), paths.end(), isEmpty)) return false;
  const auto isMissing = [](const std::string& path) {
    return !fileExists(path.c_str(), true, AT_FDCWD);
  };
  const auto allExist = [&] { return std::none_of(paths.begin(), paths.end(), isMissing); };
  if (allExist()) return true;
  const long long start = nowMs();
  PathWatch watch;
  for (;;) {
    for (const std::string& path : paths) watch.add(path);
    if (allExist()) return true;
    long long left = kSlowPollMs;
    if (timeoutMs != UINT_MAX) left = std::min(left, start + timeoutMs - nowMs());
    if (left <= 0) return false;
    watch.wait(static_cast<int>(left));
  }
}
