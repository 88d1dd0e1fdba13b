#include "vexo_utils/shm_posix_utils.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include "internal/log.h"
#include "internal/retry.h"
#include "internal/unique_fd.h"
#include "vexo_utils/timer.h"

namespace vexo::utils {

using internal::retryOnEintr;
using internal::UniqueFd;

namespace {

// On the 32-bit device this layout is what other programs know.
constexpr bool kIs32Bit = sizeof(void*) == 4;
static_assert(!kIs32Bit || offsetof(ShmpBuf_t, attr) == 32);
static_assert(!kIs32Bit || offsetof(ShmpBuf_t, size) == 40);
static_assert(!kIs32Bit || sizeof(ShmpBuf_t) == 44);

enum Role : int { kNobody = 0, kReader = 1, kWriter = 2 };

bool isUsable(int flags) {
  if (flags >= kNobody && flags <= kWriter) return true;
  VEXO_LOG_ERROR("Invalid flag %d", flags);
  if (flags > kWriter) forceCrash();
  return false;
}

UniqueFd openBlock(const char* name, int flags) {
  errno = EINVAL;
  UniqueFd block(name != nullptr ? shm_open(name, flags, 0666) : -1);
  if (!block.valid()) VEXO_LOG_ERROR_ERRNO("shm_open %s failed", name != nullptr ? name : "(null)");
  return block;
}

std::size_t pageSize() {
  return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// A private page lies before the block and keeps the length of both for shmpDestroy: the size in
// the block is what others can change, and could make it unmap what is not its own.
ShmpBuf_t* mapBlock(int fd, uint64_t blockSize) {
  const std::size_t page = pageSize();
  if (blockSize > PTRDIFF_MAX - page) {
    errno = ENOMEM;
    return nullptr;
  }
  const auto length = static_cast<std::size_t>(page + blockSize);
  void* start = mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (start == MAP_FAILED) return nullptr;
  char* block = static_cast<char*>(start) + page;
  constexpr int kAccess = PROT_READ | PROT_WRITE;
  if (mprotect(start, page, kAccess) != 0 ||
      mmap(block, length - page, kAccess, MAP_SHARED | MAP_FIXED, fd, 0) == MAP_FAILED) {
    const int savedErrno = errno;
    munmap(start, length);
    errno = savedErrno;
    return nullptr;
  }
  std::memcpy(start, &length, sizeof length);
  return reinterpret_cast<ShmpBuf_t*>(block);
}

void unmapBlock(ShmpBuf_t* buf) {
  char* start = reinterpret_cast<char*>(buf) - pageSize();
  std::size_t length = 0;
  std::memcpy(&length, start, sizeof length);
  if (munmap(start, length) != 0) VEXO_LOG_ERROR_ERRNO("munmap failed");
}

bool isPossible(const ShmpBuf_t* buf, const char* local, int offset, int len) {
  if (buf != nullptr && local != nullptr && offset >= 0 && len >= 0) return true;
  VEXO_LOG_ERROR("Invalid shared memory access");
  return false;
}

// `error`: what the lock call returned.
bool isLocked(int error) {
  if (error == 0) return true;
  errno = error;
  VEXO_LOG_ERROR_ERRNO("Failed to lock shared memory");
  return false;
}

timespec fromNow(unsigned int ms) {
  timespec at = moment();
  at.tv_sec += static_cast<time_t>(ms / 1000);
  at.tv_nsec += static_cast<long>(ms % 1000) * 1'000'000;
  if (at.tv_nsec >= 1'000'000'000) {
    ++at.tv_sec;
    at.tv_nsec -= 1'000'000'000;
  }
  return at;
}

char* dataOf(ShmpBuf_t* buf) {
  return reinterpret_cast<char*>(buf + 1);
}

void writeLocked(ShmpBuf_t* buf, const char* src, int offset, int len) {
  std::memcpy(dataOf(buf) + offset, src + offset, static_cast<std::size_t>(len));
  pthread_rwlock_unlock(&buf->lock);
}

void readLocked(ShmpBuf_t* buf, char* dst, int offset, int len) {
  std::memcpy(dst + offset, dataOf(buf) + offset, static_cast<std::size_t>(len));
  pthread_rwlock_unlock(&buf->lock);
}

}  // namespace

ShmpBuf_t* shmpInit(const char* name, unsigned int size, int flags) {
  if (!isUsable(flags) || flags == kNobody) return nullptr;
  const UniqueFd fd = openBlock(name, flags == kWriter ? O_RDWR | O_CREAT : O_RDWR);
  if (!fd.valid()) return nullptr;
  const uint64_t blockSize = uint64_t{size} + sizeof(ShmpBuf_t);
  const auto setSize = [&] { return ftruncate(fd.get(), static_cast<off_t>(blockSize)); };
  if (flags == kWriter && retryOnEintr(setSize) != 0) {
    VEXO_LOG_ERROR_ERRNO("ftruncate failed");
    return nullptr;
  }
  ShmpBuf_t* buf = mapBlock(fd.get(), blockSize);
  if (buf == nullptr) {
    VEXO_LOG_ERROR_ERRNO("mmap %zu size failed", static_cast<std::size_t>(size));
    return nullptr;
  }
  if (flags == kReader) return buf;
  pthread_rwlockattr_init(&buf->attr);
  pthread_rwlockattr_setpshared(&buf->attr, PTHREAD_PROCESS_SHARED);
  pthread_rwlock_init(&buf->lock, &buf->attr);
  buf->size = size;
  return buf;
}

void shmpDestroy(ShmpBuf_t* buf, const char* name, int flags) {
  if (!isUsable(flags) || flags == kNobody) return;
  if (buf == nullptr) {
    VEXO_LOG_ERROR("Invalid shared memory access");
    return;
  }
  if (flags == kWriter) {
    pthread_rwlock_destroy(&buf->lock);
    pthread_rwlockattr_destroy(&buf->attr);
  }
  unmapBlock(buf);
  if (flags == kReader) return;
  VEXO_LOG_WARNING("shm %s has been destroyed. The data remains in shm may not be the lastest",
                   name != nullptr ? name : "(null)");
}

void shmpWrite(ShmpBuf_t* buf, const char* src, int offset, int len) {
  if (!isPossible(buf, src, offset, len)) return;
  if (isLocked(pthread_rwlock_wrlock(&buf->lock))) writeLocked(buf, src, offset, len);
}

void shmpRead(ShmpBuf_t* buf, char* dst, int offset, int len) {
  if (!isPossible(buf, dst, offset, len)) return;
  if (isLocked(pthread_rwlock_rdlock(&buf->lock))) readLocked(buf, dst, offset, len);
}

bool shmpWriteTimed(ShmpBuf_t* buf, const char* src, int offset, int len, unsigned int timeoutMs) {
  if (!isPossible(buf, src, offset, len)) return false;
  const timespec limit = fromNow(timeoutMs);
  if (!isLocked(pthread_rwlock_clockwrlock(&buf->lock, CLOCK_MONOTONIC, &limit))) return false;
  writeLocked(buf, src, offset, len);
  return true;
}

bool shmpReadTimed(ShmpBuf_t* buf, char* dst, int offset, int len, unsigned int timeoutMs) {
  if (!isPossible(buf, dst, offset, len)) return false;
  const timespec limit = fromNow(timeoutMs);
  if (!isLocked(pthread_rwlock_clockrdlock(&buf->lock, CLOCK_MONOTONIC, &limit))) return false;
  readLocked(buf, dst, offset, len);
  return true;
}

}  // namespace vexo::utils
