// UniqueFd: owns one file descriptor and closes it.
#pragma once

#include <cerrno>
#include <utility>

#include <unistd.h>

namespace vexo::utils::internal {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }

  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

  // The caller takes over; nothing is closed.
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }

  // Closes what is held and holds `fd` instead. errno stays as it was, so that an early return can
  // still be reported. close(2) is not repeated: Linux has freed the descriptor even on EINTR.
  void reset(int fd = -1) {
    const int old = std::exchange(fd_, fd);
    if (old < 0) return;
    const int savedErrno = errno;
    close(old);
    errno = savedErrno;
  }

 private:
  int fd_ = -1;
};

}  // namespace vexo::utils::internal
