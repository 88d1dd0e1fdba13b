// File: a regular file opened by its path, with typed reads and writes (IReaderWriter.h) at a
// cursor, looks ahead, and its size and times.
//
// Threads:   one at a time for an object.
// Ownership: owns the descriptor, also one given to SetFD (which closes none before). It is not
//            close-on-exec unless the flags of Initialize say so.
// Units:     positions and sizes in bytes, times in milliseconds since the epoch.
// Failure:   false or 0, logged; the file stays open. Nothing throws. Without an open file: "File
//            not opened", a warning from Size, Cursor and IsEOF, an error from the seeks.
// Size:      the object remembers one, the known size, by which the seeks are bounded: that of the
//            file when it was opened or last asked for by Size, and every successful write adds its
//            whole count, also where it wrote over bytes that were there. Where others change the
//            file, or it was written over, call Size before seeking.
#pragma once

#include <string>

#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <vexo_utils/FdReaderWriter.h>
#include <vexo_utils/export.h>

static_assert(sizeof(off_t) == 8, "build with -D_FILE_OFFSET_BITS=64, as the library is");

namespace vexo::utils {

// How a file is opened.
enum FILE_OPEN_MODE : unsigned int {
  FILE_OPEN_READ = 0,
  FILE_OPEN_READ_WRITE = 1,  // an existing file
  FILE_OPEN_TRUNCATE = 2,    // to read and write, created or emptied
  FILE_OPEN_APPEND = 3,      // to read and write at the end, created when it is not there
};

class VEXO_UTILS_API File : public FdReaderWriter {
 public:
  // Opens nothing.
  File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  // As Close.
  ~File() override;

  // Closes what was open, then opens `path`; GetPath gives it from then on, also after a failure.
  // `extraFlags` are further flags of open(2); new files have the permissions 0666 less the umask.
  // False: "Invalid open mode", "Unable to open file PATH with mode `FLAGS`" (hexadecimal, the
  // flags of open), or "fstat() failed": the file is open then, with a known size of 0.
  bool Initialize(const std::string& path, FILE_OPEN_MODE mode, unsigned int extraFlags);

  // Closes the descriptor and forgets path and size. Nothing to do when nothing is open.
  void Close();

  // The path, "" before the first Initialize and after Close.
  std::string& GetPath();

  // False also after a read or write call has given -1, be it for EINTR and repeated, until the
  // next Close or Initialize: the descriptor is valid then, but a transfer may be incomplete.
  bool IsOpen();

  // The file's size now; of a file opened for append, the known size, without asking the system.
  // 0: the warning "File stats read failure".
  uint64_t Size();

  // 0: "Unable to get the current location".
  uint64_t Cursor();

  // Seeking exactly to the known size is allowed, further is not.
  // False: "Unable to seek to the beginning of file", "... to the end of file", "... ahead N
  // bytes", "... behind N bytes", "... to position N"; "Invalid count" when it is negative; "End of
  // file will be reached" past either end.
  bool SeekBegin();
  bool SeekEnd();
  bool SeekAhead(int64_t count);
  bool SeekBehind(int64_t count);
  bool SeekTo(uint64_t position);

  // Whether the cursor is at the file's end; beyond it, it is not. Any failure counts as the end,
  // also that of returning to a cursor beyond the known size; it is at the file's end then.
  bool IsEOF();

  // As the read of the same name, after which the cursor goes back to where it was. After a failure
  // it may be ahead, by what was read.
  bool PeekI8(int8_t* value);
  bool PeekI16(int16_t* value, bool bigEndian);
  bool PeekI24(int32_t* value, bool bigEndian);
  bool PeekI32(int32_t* value, bool bigEndian);
  bool PeekI64(int64_t* value, bool bigEndian);
  bool PeekUI8(uint8_t* value);
  bool PeekUI16(uint16_t* value, bool bigEndian);
  bool PeekUI24(uint32_t* value, bool bigEndian);
  bool PeekUI32(uint32_t* value, bool bigEndian);
  bool PeekUI64(uint64_t* value, bool bigEndian);
  bool PeekBuffer(uint8_t* dst, uint64_t count);

  // Asks for the file's status, from which the times are taken. False: the warning
  // "fstat error (TEXT)".
  bool Fstat();

  // Each asks anew. CreationMs is the last change of status: the system keeps no creation time.
  // 0: "fstat() failed".
  int64_t CreationMs();
  int64_t ModificationMs();
  int64_t AccessMs();

  // Puts the whole file into `out`, zeros included, from its beginning whatever the cursor; what is
  // appended meanwhile is left out. `out` is empty after a failure, and for files whose size is
  // given as 0, such as those of /proc, and for no open file, which are all true.
  // False: "ReadAll can only be done on files smaller than 2^32 bytes (4GB)", "Unable to seek to
  // begin", "Unable to read data" (also when there is no memory for it).
  bool ReadStringAll(std::string& out);
  // The same for a file that is opened and closed by it. False also when it cannot be opened.
  static bool ReadStringAll(const std::string& path, std::string& out);

  // "file: PATH".
  std::string info() const override;

  bool WriteBuffer(const uint8_t* src, uint64_t count) override;

 private:
  int64_t freshMs(const timespec& time);

  uint64_t knownSize = 0;
  std::string path;
  bool appendMode = false;
  struct stat statBuffer {};
};

}  // namespace vexo::utils
