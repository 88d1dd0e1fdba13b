// Opening files, reading them to their end, listing folders. None of it logs; errno tells.
#pragma once

#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include "internal/retry.h"
#include "internal/unique_fd.h"

namespace vexo::utils::internal {

// As openat(2), close-on-exec.
inline UniqueFd openAt(int dirfd, const char* path, int flags, mode_t mode = 0) {
  return UniqueFd(retryOnEintr([&] { return openat(dirfd, path, flags | O_CLOEXEC, mode); }));
}

// Whole files are limited to what 32 bits can count.
inline constexpr unsigned long long kMaxWholeFile = UINT_MAX;

// What `fd` gives until its end; whatever fstat(2) says, as files of /proc have no size. Nothing:
// EFBIG or ENOMEM when it is too large.
inline std::optional<std::string> readToEnd(int fd) try {
  std::string text;
  char block[4096];
  for (;;) {
    const ssize_t got = retryOnEintr([&] { return read(fd, block, sizeof block); });
    if (got < 0) return std::nullopt;
    if (got == 0) return text;
    if (text.size() + static_cast<std::size_t>(got) > kMaxWholeFile) {
      errno = EFBIG;
      return std::nullopt;
    }
    text.append(block, static_cast<std::size_t>(got));
  }
} catch (const std::exception&) {  // a device without end, or no room for this much
  errno = ENOMEM;
  return std::nullopt;
}

inline std::optional<std::string> readFile(const char* path) {
  const UniqueFd fd = openAt(AT_FDCWD, path, O_RDONLY);
  if (!fd.valid()) return std::nullopt;
  return readToEnd(fd.get());
}

struct CloseFolder {
  void operator()(DIR* folder) const {
    const int savedErrno = errno;
    closedir(folder);
    errno = savedErrno;
  }
};
using Folder = std::unique_ptr<DIR, CloseFolder>;

// The next entry other than "." and ".."; null at the end, then with errno 0, or on error.
inline const dirent* nextEntry(DIR* folder) {
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(folder);
    if (entry == nullptr) return nullptr;
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) return entry;
  }
}

}  // namespace vexo::utils::internal
