// Copying, moving and removing: the half of fileutils.h that changes many files or large ones.
#include <algorithm>
#include <cerrno>
#include <memory>

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "internal/files.h"
#include "internal/log.h"
#include "internal/retry.h"
#include "internal/unique_fd.h"
#include "vexo_utils/exec.h"
#include "vexo_utils/fileutils.h"
#include "vexo_utils/string_utils.h"

using vexo::utils::internal::Folder;
using vexo::utils::internal::nextEntry;
using vexo::utils::internal::openAt;
using vexo::utils::internal::retryOnEintr;
using vexo::utils::internal::UniqueFd;

// ---- copying and moving ----

namespace {

constexpr std::size_t kChunk = 4096;  // bytes that a copy has in its pipe
constexpr mode_t kModeBits = 07777;
constexpr mode_t kAccessBits = 0777;

// Empties the pipe into `fd` at `offset`.
bool drain(int pipe, int fd, loff_t& offset, std::size_t size) {
  while (size > 0) {
    errno = 0;
    const ssize_t moved = retryOnEintr(
        [&] { return splice(pipe, nullptr, fd, &offset, size, SPLICE_F_MOVE | SPLICE_F_MORE); });
    if (moved <= 0) {
      VEXO_LOG_ERROR_ERRNO("Failed to splice() from pipe to dst");
      return false;
    }
    size -= static_cast<std::size_t>(moved);
  }
  return true;
}

bool copyContent(int srcFd, int dstFd, unsigned long long remaining) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to pipe()");
    return false;
  }
  const UniqueFd readEnd(ends[0]);
  const UniqueFd writeEnd(ends[1]);
  loff_t from = 0;
  loff_t to = 0;
  while (remaining > 0) {
    const auto size = static_cast<std::size_t>(std::min<unsigned long long>(remaining, kChunk));
    errno = 0;
    const ssize_t moved = retryOnEintr([&] {
      return splice(srcFd, &from, writeEnd.get(), nullptr, size, SPLICE_F_MOVE | SPLICE_F_MORE);
    });
    if (moved <= 0) {  // 0: the source has become shorter
      VEXO_LOG_ERROR_ERRNO("Failed to splice() from src to pipe");
      return false;
    }
    if (!drain(readEnd.get(), dstFd, to, static_cast<std::size_t>(moved))) return false;
    remaining -= static_cast<unsigned long long>(moved);
  }
  return true;
}

void copyOwnerAndMode(const struct stat& st, int fd) {
  mode_t mode = st.st_mode & kModeBits;
  if (fchown(fd, st.st_uid, st.st_gid) != 0) {
    VEXO_LOG_WARNING_ERRNO("Failed to fchown");
    mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);  // they would lend the rights of another
  }
  if (fchmod(fd, mode) != 0) VEXO_LOG_WARNING_ERRNO("Failed to fchmod");
}

void logNoAccess(const char* path) {
// The quote in the format is how this message has always read; glibc ignores the flag for a text.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
  VEXO_LOG_ERROR_ERRNO("Unable to access '%'s'", path);
#pragma GCC diagnostic pop
}

// For messages.
const char* shown(const char* path) {
  return path != nullptr ? path : "(null)";
}

bool logNoOpen(const char* path) {
  VEXO_LOG_ERROR_ERRNO("Unable to open '%s'", path);
  return false;
}

bool isSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// False with errno.
bool isRegularFile(const struct stat& st) {
  if (S_ISREG(st.st_mode)) return true;
  errno = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
  return false;
}

// False with errno: what has its name now was not copied.
bool isStill(const char* path, int dirfd, const struct stat& before) {
  struct stat now {};
  if (fstatat(dirfd, path, &now, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (isSameFile(now, before)) return true;
  errno = EBUSY;
  return false;
}

// Opens a destination and empties it, unless it is the source, which would be lost.
UniqueFd openDestination(const char* path, int dirfd, const struct stat& source) {
  UniqueFd fd = openAt(dirfd, path, O_WRONLY | O_CREAT, source.st_mode & kAccessBits);
  struct stat st {};
  if (!fd.valid() || fstat(fd.get(), &st) != 0) return {};
  if (isSameFile(st, source)) {
    errno = EINVAL;
    return {};
  }
  const auto truncate = [&] { return ftruncate(fd.get(), 0); };
  if (S_ISREG(st.st_mode) && st.st_size > 0 && retryOnEintr(truncate) != 0) return {};
  return fd;
}

}  // namespace

bool copyFile(int srcFd, int dstFd) {
  if (srcFd < 0 || dstFd < 0) return false;
  struct stat st {};
  if (fstat(srcFd, &st) != 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to fstat()");
    return false;
  }
  if (!copyContent(srcFd, dstFd, static_cast<unsigned long long>(st.st_size))) return false;
  copyOwnerAndMode(st, dstFd);
  return true;
}

bool copyFile(const char* src, const char* dst, int srcDirFd, int dstDirFd) {
  if (src == nullptr || dst == nullptr) return false;
  struct stat st {};
  if (fstatat(srcDirFd, src, &st, 0) != 0) {
    logNoAccess(src);
    return false;
  }
  // Before it is opened, which has effects on devices.
  if (!isRegularFile(st)) return logNoOpen(src);
  // A FIFO that has taken its place would be waited for.
  const UniqueFd srcFd = openAt(srcDirFd, src, O_RDONLY | O_NONBLOCK);
  // Once more, of what was opened: it is what must not be emptied.
  if (!srcFd.valid() || fstat(srcFd.get(), &st) != 0 || !isRegularFile(st)) return logNoOpen(src);
  const UniqueFd dstFd = openDestination(dst, dstDirFd, st);
  if (!dstFd.valid()) return logNoOpen(dst);
  return copyFile(srcFd.get(), dstFd.get());
}

bool cpR(const std::string& src, const std::string& dst) {
  const auto operand = [](const std::string& path) {  // never an option
    return vexo::utils::startsWith(path, "-") ? "./" + path : path;
  };
  const std::vector<std::string> args{"-r", operand(src), operand(dst)};
  return vexo::utils::sysExec(nullptr, nullptr, nullptr, 0, 0, 0, "/bin/cp", args) == 0;
}

bool renameFile(const char* from, const char* to, int fromDirFd, int toDirFd) {
  errno = EFAULT;
  const bool named = from != nullptr && to != nullptr;
  if (named && renameat(fromDirFd, from, toDirFd, to) == 0) return true;
  if (!named || errno != EXDEV) {
    VEXO_LOG_ERROR_ERRNO("Could not rename file '%s' -> '%s'", shown(from), shown(to));
    return false;
  }
  struct stat before {};
  const bool seen = fstatat(fromDirFd, from, &before, AT_SYMLINK_NOFOLLOW) == 0;
  if (!seen || !copyFile(from, to, fromDirFd, toDirFd)) {
    VEXO_LOG_ERROR("Could not copy file (fallback to rename) '%s' -> '%s'", from, to);
    return false;
  }
  if (!isStill(from, fromDirFd, before) || !rmRf(from, fromDirFd)) {
    VEXO_LOG_ERROR_ERRNO("Could not delete src file (fallback to rename) '%s'", from);
    return false;
  }
  return true;
}

// ---- removing ----

namespace {

// A folder on the way from the tree's root to where the removal is.
struct Level {
  Folder folder;
  std::string name;  // in the level above
};

// Most file systems tell the type in the entry: one system call less for each file.
bool isFolder(DIR* parent, const dirent& entry) {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
  struct stat st {};
  return fstatat(dirfd(parent), entry.d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
}

Folder openLevel(int dirfd, const std::string& name) {
  return Folder(opendirat(dirfd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
}

// Not by recursion: how deep a tree is depends on others, and threads may have small stacks.
bool removeTree(const std::string& root, int rootDirFd) {
  std::vector<Level> levels;
  bool complete = true;
  const auto enter = [&](int parent, const std::string& name) {
    Folder folder = openLevel(parent, name);
    if (folder == nullptr) {
      complete = false;
    } else {
      levels.push_back({std::move(folder), name});
    }
  };
  enter(rootDirFd, root);
  while (!levels.empty()) {
    DIR* const folder = levels.back().folder.get();
    if (const dirent* entry = nextEntry(folder)) {
      if (isFolder(folder, *entry)) {
        enter(dirfd(folder), entry->d_name);
      } else if (unlinkat(dirfd(folder), entry->d_name, 0) != 0) {
        complete = false;
      }
      continue;
    }
    if (errno != 0) complete = false;
    const std::string name = std::move(levels.back().name);
    levels.pop_back();
    const int parent = levels.empty() ? rootDirFd : dirfd(levels.back().folder.get());
    if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0) complete = false;
  }
  return complete;
}

}  // namespace

bool rmRf(const std::string& path, int dirfd) {
  struct stat st {};
  if (fstatat(dirfd, path.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  // To the kernel, "link/" is the folder behind the link. Without the "/" it is the link.
  std::string name = path;
  while (name.size() > 1 && name.back() == '/') name.pop_back();
  if (fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (!S_ISDIR(st.st_mode)) return unlinkat(dirfd, name.c_str(), 0) == 0;
  return removeTree(name, dirfd);
}
