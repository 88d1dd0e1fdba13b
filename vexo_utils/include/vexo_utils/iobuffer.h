// IOBuffer: a queue of bytes between a descriptor and its parser. Bytes are appended at one end and
// taken from the other; the unread ones lie in one piece.
//
// The numbers: of `Size` bytes of space, those at [Consumed, Published) are unread. What is
// appended goes to Published; when there is no room, the space is made larger in whole pages, or
// the unread bytes are counted from 0 again, which costs the same however many there are.
//
// Threads:   one at a time for an object.
// Ownership: owns its memory, borrows descriptors.
// Memory:    private anonymous pages, also after fork(2): each process has its own contents. They
//            are at most 1 MiB more than the greatest Size since the buffer was last drained, or
//            twice that Size if it is above 1 MiB; up to 2 MiB more where the kernel has large
//            pages. Drained, it keeps at most 1 MiB beyond Size that the kernel cannot take
//            back. Address space: up to 16 MiB more.
// Pointers:  what Unread gives holds until the next call that is not const. Nothing that is
//            appended may lie in the buffer itself.
// Failure:   false, logged at error level with errno; the unread bytes stay as they are. A lack of
//            memory, and more than 4 GiB less one byte in one buffer, ends the process
//            (forceCrash) after "Unable to allocate memory: (ERRNO) TEXT".
// Waiting:   EINTR is tried again. The calls block as the descriptor does, but for ReadFromTCPFd.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <vexo_utils/export.h>

namespace vexo::utils {

class VEXO_UTILS_API IOBuffer {
 public:
  // The name is for the log. No memory is taken before the first byte.
  explicit IOBuffer(const std::string& name);
  IOBuffer(const IOBuffer&) = delete;
  IOBuffer& operator=(const IOBuffer&) = delete;
  virtual ~IOBuffer();

  // Exchanges what is in the buffers, with the space and the offsets; names and limits stay.
  void Swap(IOBuffer& other);

  // ---- what is in it ----

  const unsigned char* Unread() const { return buffer + consumed; }  // null before the first use
  unsigned int UnreadSize() const { return published - consumed; }
  unsigned int Size() const { return size; }
  unsigned int Published() const { return published; }
  unsigned int Consumed() const { return consumed; }

  // Whether the unread bytes are the same; names, sizes and offsets may differ.
  bool operator==(const IOBuffer& other) const;
  bool operator!=(const IOBuffer& other) const;

  // ---- space ----

  // A buffer that drains with a Size above this is cut to it, with the warning "IOB: free space
  // limit exceeded. Shrinking `NAME` buffer space: SIZE -> LIMIT". 8 MiB at first; 0: never.
  void SetFreeSpaceLimit(unsigned int limit) { freeSpaceLimit = limit; }

  // Makes room for `n` more bytes behind Published. Always true.
  bool EnsureSize(unsigned int n);

  // Counts the unread bytes from 0 again if at least as many have been consumed. Always true.
  bool MoveData();

  // If all has been read: counts from 0 again, and cuts the space to the limit.
  void Recycle();

  // ---- appending ----

  // One read(2) of at most `len` bytes. `got`: how many, 0 at the end of the data, -1 on failure;
  // untouched when `len` is 0, which is true. An empty non-blocking descriptor is a failure.
  // False: "Unable to read LEN bytes from fd".
  bool ReadFromFd(int fd, unsigned int len, int& got);

  // The same with recv(2), without waiting: true with `got` 0 also when there is nothing to read.
  // False: "recv() failed"; nothing is logged when `len` is 0.
  bool ReadFromTCPFd(int fd, unsigned int len, int& got);

  // Appends one datagram. `from` is its sender's address, cut if it is no IPv4 one; of a socket
  // that gives a shorter one, later calls fill in no more than that.
  // False: "Unable to read data from UDP socket", also when a non-blocking one has none.
  bool ReadFromUDPFd(int fd, int& got, sockaddr_in& from);

  // False: "Unable to append N bytes from a null pointer".
  bool ReadFromBuffer(const unsigned char* data, unsigned int len);

  // Appends the pieces one behind the other, without the first `skip` bytes of the whole. True at
  // once when `count` is below 1. False, with nothing appended: a piece is a null pointer, or all
  // are ("Unable to append N pieces from a null pointer").
  bool ReadFromBuffer(const iovec* vec, int count, unsigned int skip);

  bool ReadFromRepeat(unsigned char value, unsigned int count);

  // ---- taking ----

  // One write(2) of at most `maxLen` unread bytes, which counts those as consumed that were taken:
  // `sent`, 0 when the descriptor takes none now (EAGAIN) and on failure. When the other end has
  // been closed, the write raises SIGPIPE, which ends the process unless it ignores the signal.
  // False: "Unable to send N bytes of data data. Size advertised by network layer was MAXLEN.
  // Permanent error.", N being all that is unread.
  bool WriteToFd(int fd, unsigned int maxLen, int& sent);

  // Drops `n` unread bytes. It must not be more than there are: this is not checked, and the
  // buffer cannot be used afterwards. Always true.
  bool Ignore(unsigned int n);
  bool IgnoreAll();

  // ---- for the log ----

  // The numbers and a dump of the bytes at the offsets from `start` to `limit` (0: to Published),
  // never beyond Size. 16 to a line: "OFFSET  HEX HEX ...  TEXT", the offset being the first
  // byte's, in decimal, rounded down to a multiple of 16.
  std::string ToString(unsigned int start, unsigned int limit) const;
  operator std::string() const;

  // The same of any bytes, as the contents of a buffer "temp for DumpBuffer".
  static std::string DumpBuffer(const unsigned char* data, unsigned int len);

 private:
  void offerSpare();
  void setWindow(uint64_t newSize);
  void growMapping(uint64_t wanted);
  bool resizeMapping(uint64_t wanted);
  bool appendPiece(const iovec& piece, std::size_t skipped);

  std::string name;
  uint32_t freeSpaceLimit = 0x800000;
  unsigned char* buffer = nullptr;  // the window [buffer, buffer + size) of the mapping
  uint32_t size = 0;
  uint32_t published = 0;
  uint32_t consumed = 0;
  socklen_t addressLength = sizeof(sockaddr_in);
  uint32_t pageSize;
  unsigned char* mapping = nullptr;
  std::size_t capacity = 0;  // of the mapping, in bytes
  uint64_t reached = 0;      // how much of it may have been filled
};

// Handles the signal by doing nothing, which is a place for printing statistics of allocations.
// System calls that it interrupts are not restarted. On failure, "IOB: Unable to install the
// allocation stats print handler" and the end of the process (forceCrash).
VEXO_UTILS_API void InstallAllocStatsPrintSigHdlr(int signal);

}  // namespace vexo::utils
