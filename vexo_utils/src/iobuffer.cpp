#include "vexo_utils/iobuffer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include "internal/log.h"
#include "internal/retry.h"

namespace vexo::utils {

namespace {

using internal::retryOnEintr;

constexpr unsigned int kLargestDatagram = 65536;
constexpr unsigned int kDumpWidth = 16;

// The window slides over what was consumed until copying the unread bytes to the start of the
// mapping costs little: one for each kFew consumed, or, to bound the memory, one for each from
// kMostDead on. The pages have to be private, since callers fork: a ring that is mapped twice,
// which would never copy, is shared.
constexpr uint64_t kFew = 8;
constexpr uint64_t kMostDead = 1 << 20;

// Address space beyond what is asked for, so that growing and sliding seldom need the kernel.
constexpr uint64_t kMostSpare = 16 << 20;
// What a drained buffer keeps of the pages there that it has filled.
constexpr uint64_t kKeptSpare = 1 << 20;

// From here on pages are asked for in large ones, where the kernel has them: filling a large
// buffer is mostly page faults.
constexpr uint64_t kHugePagesFrom = 4 << 20;

uint64_t roundedUp(uint64_t bytes, uint64_t unit) {
  return (bytes + unit - 1) / unit * unit;
}

[[noreturn]] void failAllocation(int error) {
  errno = error;
  VEXO_LOG_ERROR_ERRNO("Unable to allocate memory: (%d) %s", error, std::strerror(error));
  forceCrash();
}

// Appends "OFFSET  HEX HEX ...  TEXT\n".
void appendDumpLine(std::string& text, uint32_t offset, const unsigned char* bytes,
                    std::size_t count) {
  // Not by isprint(3), which asks the locale.
  const auto printable = [](unsigned char byte) { return byte >= ' ' && byte <= '~'; };
  std::array<char, 16> label{};
  std::snprintf(label.data(), label.size(), "%08u ", offset / kDumpWidth * kDumpWidth);
  text += label.data();
  for (std::size_t i = 0; i < count; ++i) {
    constexpr char kDigits[] = "0123456789abcdef";
    text += ' ';
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0xF];
  }
  text.append(3 * (kDumpWidth - count) + 2, ' ');
  for (std::size_t i = 0; i < count; ++i) {
    text += printable(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
  }
  text += '\n';
}

}  // namespace

IOBuffer::IOBuffer(const std::string& bufferName)
    : name(bufferName), pageSize(static_cast<uint32_t>(getpagesize())) {}

IOBuffer::~IOBuffer() {
  if (mapping != nullptr) munmap(mapping, capacity);
}

void IOBuffer::Swap(IOBuffer& other) {
  std::swap(buffer, other.buffer);
  std::swap(size, other.size);
  std::swap(published, other.published);
  std::swap(consumed, other.consumed);
  std::swap(mapping, other.mapping);
  std::swap(capacity, other.capacity);
  std::swap(reached, other.reached);
}

bool IOBuffer::operator==(const IOBuffer& other) const {
  return UnreadSize() == other.UnreadSize() &&
         (UnreadSize() == 0 || std::memcmp(Unread(), other.Unread(), UnreadSize()) == 0);
}

bool IOBuffer::operator!=(const IOBuffer& other) const {
  return !(*this == other);
}

// ---- space ----

bool IOBuffer::EnsureSize(unsigned int n) {
  if (size - published >= n) return true;
  if (size - published + consumed >= n) {
    MoveData();
    if (size - published >= n) return true;
  }
  const uint64_t newSize = roundedUp(uint64_t{n} + UnreadSize(), pageSize);
  if (newSize > UINT32_MAX) failAllocation(ENOMEM);
  setWindow(newSize);
  return true;
}

bool IOBuffer::MoveData() {
  if (consumed > 0 && consumed >= UnreadSize()) setWindow(size);
  return true;
}

void IOBuffer::Recycle() {
  if (published != consumed) return;
  published = 0;
  consumed = 0;
  if (freeSpaceLimit != 0 && freeSpaceLimit < size) {
    VEXO_LOG_WARNING("IOB: free space limit exceeded. Shrinking `%s` buffer space: %u -> %u",
                     name.c_str(), size, freeSpaceLimit);
    size = freeSpaceLimit;
    if (!resizeMapping(size)) failAllocation(errno);
    reached = size;
  }
  buffer = mapping;
  if (reached > size + kKeptSpare) offerSpare();
}

// Lets the kernel take the pages beyond the space. Those that it has not taken when they are next
// filled need no page fault.
void IOBuffer::offerSpare() {
  unsigned char* const spare = mapping + roundedUp(size, pageSize);
  const auto length = static_cast<std::size_t>(mapping + reached - spare);
  if (madvise(spare, length, MADV_FREE) != 0) madvise(spare, length, MADV_DONTNEED);  // Linux < 4.5
  reached = size;
}

// Makes the first unread byte the first of the window, and the window `newSize` bytes long.
void IOBuffer::setWindow(uint64_t newSize) {
  const uint32_t live = UnreadSize();
  uint64_t dead = static_cast<uint64_t>(buffer - mapping) + consumed;
  if (dead > 0 && (dead >= kFew * live || (dead >= kMostDead && dead >= live))) {
    std::memcpy(mapping, mapping + dead, live);
    dead = 0;
  }
  if (dead + newSize > capacity) growMapping(dead + newSize);
  reached = std::max(reached, dead + newSize);
  buffer = mapping + dead;
  size = static_cast<uint32_t>(newSize);
  published = live;
  consumed = 0;
}

// Makes the mapping at least `wanted` bytes long, with some to spare if there is room for that.
void IOBuffer::growMapping(uint64_t wanted) {
  if (!resizeMapping(wanted + std::min(wanted, kMostSpare)) && !resizeMapping(wanted)) {
    failAllocation(errno);
  }
  if (capacity >= kHugePagesFrom) madvise(mapping, capacity, MADV_HUGEPAGE);
}

bool IOBuffer::resizeMapping(uint64_t wanted) {
  const uint64_t bytes = roundedUp(wanted, pageSize);
  if (bytes > SIZE_MAX) {
    errno = ENOMEM;
    return false;
  }
  const auto length = static_cast<std::size_t>(bytes);
  void* const place = mapping != nullptr ? mremap(mapping, capacity, length, MREMAP_MAYMOVE)
                                         : mmap(nullptr, length, PROT_READ | PROT_WRITE,
                                                MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (place == MAP_FAILED) return false;
  mapping = static_cast<unsigned char*>(place);
  capacity = length;
  return true;
}

// ---- appending ----

bool IOBuffer::ReadFromFd(int fd, unsigned int len, int& got) {
  if (len == 0) return true;
  EnsureSize(len);
  got = static_cast<int>(retryOnEintr([&] { return read(fd, buffer + published, len); }));
  if (got < 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to read %zu bytes from fd", std::size_t{len});
    return false;
  }
  published += static_cast<uint32_t>(got);
  return true;
}

bool IOBuffer::ReadFromTCPFd(int fd, unsigned int len, int& got) {
  if (len == 0) return false;
  EnsureSize(len);
  got = static_cast<int>(
      retryOnEintr([&] { return recv(fd, buffer + published, len, MSG_DONTWAIT); }));
  if (got < 0) {
    if (errno != EINPROGRESS && errno != EAGAIN) {
      VEXO_LOG_ERROR_ERRNO("recv() failed");
      return false;
    }
    got = 0;
  }
  published += static_cast<uint32_t>(got);
  return true;
}

bool IOBuffer::ReadFromUDPFd(int fd, int& got, sockaddr_in& from) {
  EnsureSize(kLargestDatagram);
  // The last call may have left the length of a larger address than `from` can hold.
  addressLength = std::min<socklen_t>(addressLength, sizeof from);
  got = static_cast<int>(retryOnEintr([&] {
    return recvfrom(fd, buffer + published, kLargestDatagram, 0, reinterpret_cast<sockaddr*>(&from),
                    &addressLength);
  }));
  if (got < 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to read data from UDP socket");
    return false;
  }
  published += static_cast<uint32_t>(got);
  return true;
}

bool IOBuffer::ReadFromBuffer(const unsigned char* data, unsigned int len) {
  if (len == 0) return true;
  if (data == nullptr) {
    VEXO_LOG_ERROR("Unable to append %u bytes from a null pointer", len);
    return false;
  }
  if (size - published < len) EnsureSize(len);
  std::memcpy(buffer + published, data, len);
  published += len;
  return true;
}

bool IOBuffer::ReadFromBuffer(const iovec* vec, int count, unsigned int skip) {
  if (count < 1) return true;
  if (vec == nullptr) {
    VEXO_LOG_ERROR("Unable to append %d pieces from a null pointer", count);
    return false;
  }
  const uint32_t before = UnreadSize();
  std::size_t left = skip;
  for (const iovec* piece = vec; piece != vec + count; ++piece) {
    const std::size_t skipped = std::min(left, piece->iov_len);
    left -= skipped;
    if (!appendPiece(*piece, skipped)) {
      published = consumed + before;
      return false;
    }
  }
  return true;
}

// Without its first `skipped` bytes.
bool IOBuffer::appendPiece(const iovec& piece, std::size_t skipped) {
  const std::size_t length = piece.iov_len - skipped;
  if (length > UINT32_MAX) failAllocation(ENOMEM);
  const auto* bytes = static_cast<const unsigned char*>(piece.iov_base);
  if (bytes != nullptr) bytes += skipped;
  return ReadFromBuffer(bytes, static_cast<unsigned int>(length));
}

bool IOBuffer::ReadFromRepeat(unsigned char value, unsigned int count) {
  if (count == 0) return true;
  EnsureSize(count);
  std::memset(buffer + published, value, count);
  published += count;
  return true;
}

// ---- taking ----

bool IOBuffer::WriteToFd(int fd, unsigned int maxLen, int& sent) {
  sent = 0;
  if (maxLen == 0) return true;
  const unsigned int most = std::min(UnreadSize(), maxLen);
  const ssize_t written = retryOnEintr([&] { return write(fd, Unread(), most); });
  if (written < 0) {
    if (errno == EAGAIN) return true;
    VEXO_LOG_ERROR_ERRNO(
        "Unable to send %u bytes of data data. Size advertised by network layer was %zu. Permanent "
        "error.",
        UnreadSize(), std::size_t{maxLen});
    return false;
  }
  sent = static_cast<int>(written);
  consumed += static_cast<uint32_t>(written);
  Recycle();
  return true;
}

bool IOBuffer::Ignore(unsigned int n) {
  consumed += n;
  if (consumed == published) Recycle();
  return true;
}

bool IOBuffer::IgnoreAll() {
  consumed = published;
  Recycle();
  return true;
}

// ---- for the log ----

std::string IOBuffer::ToString(unsigned int start, unsigned int limit) const {
  std::array<char, 80> line{};
  std::snprintf(line.data(), line.size(), "Size: %u\nPublished: %u\nConsumed: %u\nAddress: %p\n",
                size, published, consumed, static_cast<void*>(buffer));
  std::string text = line.data();
  if (limit != 0) text += "Limited to " + std::to_string(limit) + " bytes\n";
  const uint32_t end = limit == 0 ? published : std::min(limit, size);
  for (uint32_t at = start; at < end;) {
    const uint32_t count = std::min(kDumpWidth, end - at);
    appendDumpLine(text, at, buffer + at, count);
    at += count;
  }
  return text;
}

IOBuffer::operator std::string() const {
  return ToString(0, 0);
}

std::string IOBuffer::DumpBuffer(const unsigned char* data, unsigned int len) {
  IOBuffer temporary("temp for DumpBuffer");
  temporary.ReadFromBuffer(data, len);
  return temporary.ToString(0, 0);
}

void InstallAllocStatsPrintSigHdlr(int signal) {
  struct sigaction action {};
  action.sa_sigaction = [](int, siginfo_t*, void*) {};
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  if (sigaction(signal, &action, nullptr) == 0) return;
  VEXO_LOG_ERROR_ERRNO("IOB: Unable to install the allocation stats print handler");
  forceCrash();
}

}  // namespace vexo::utils
