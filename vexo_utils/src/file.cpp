#include "vexo_utils/file.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <iterator>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "internal/log.h"
#include "internal/retry.h"

namespace vexo::utils {

using internal::retryOnEintr;

namespace {

constexpr int kFlagsOfMode[] = {O_RDONLY, O_RDWR, O_RDWR | O_CREAT | O_TRUNC,
                                O_RDWR | O_CREAT | O_APPEND};
constexpr mode_t kPermissions = 0666;
constexpr uint64_t kTooLargeForAString = 0xFFFFFFFF;

// False when there is no memory for it.
bool resize(std::string& text, uint64_t size) {
  try {
    text.resize(static_cast<std::size_t>(size));
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace

// ---- lifecycle ----

File::File() {
  lastError = 0;
}

File::~File() {
  Close();
}

bool File::Initialize(const std::string& newPath, FILE_OPEN_MODE mode, unsigned int extraFlags) {
  std::string wanted = newPath;  // it may be a reference to the path that Close empties
  Close();
  path = std::move(wanted);
  if (mode >= std::size(kFlagsOfMode)) {
    VEXO_LOG_ERROR("Invalid open mode");
    return false;
  }
  appendMode = mode == FILE_OPEN_APPEND;
  const int flags = kFlagsOfMode[mode] | static_cast<int>(extraFlags);
  const int fd = retryOnEintr([&] { return open(path.c_str(), flags, kPermissions); });
  if (fd == -1) {
    VEXO_LOG_ERROR_ERRNO("Unable to open file %s with mode `%x`", path.c_str(),
                         static_cast<unsigned int>(flags));
    return false;
  }
  SetFD(fd);
  if (!Fstat()) {
    VEXO_LOG_ERROR_ERRNO("fstat() failed");
    return false;
  }
  knownSize = static_cast<uint64_t>(statBuffer.st_size);
  return true;
}

void File::Close() {
  if (descriptor != -1) close(std::exchange(descriptor, -1));
  lastError = 0;
  knownSize = 0;
  path.clear();
  appendMode = false;
}

std::string& File::GetPath() {
  return path;
}

bool File::IsOpen() {
  return descriptor != -1 && lastError == 0;
}

std::string File::info() const {
  return "file: " + path;
}

// ---- size and cursor ----

uint64_t File::Size() {
  if (descriptor == -1) {
    VEXO_LOG_WARNING("File not opened");
    return 0;
  }
  if (appendMode) return knownSize;
  struct stat status {};
  if (fstat(descriptor, &status) != 0 || status.st_size < 0) {
    VEXO_LOG_WARNING_ERRNO("File stats read failure");
    return 0;
  }
  knownSize = static_cast<uint64_t>(status.st_size);
  return knownSize;
}

bool File::WriteBuffer(const uint8_t* src, uint64_t count) {
  if (!FdReaderWriter::WriteBuffer(src, count)) return false;
  knownSize += count;
  return true;
}

uint64_t File::Cursor() {
  if (descriptor == -1) {
    VEXO_LOG_WARNING("File not opened");
    return 0;
  }
  const off_t position = lseek(descriptor, 0, SEEK_CUR);
  if (position == -1) {
    VEXO_LOG_ERROR_ERRNO("Unable to get the current location");
    return 0;
  }
  return static_cast<uint64_t>(position);
}

bool File::SeekBegin() {
  if (descriptor == -1) {
    VEXO_LOG_ERROR("File not opened");
    return false;
  }
  if (lseek(descriptor, 0, SEEK_SET) == -1) {
    VEXO_LOG_ERROR_ERRNO("Unable to seek to the beginning of file");
    return false;
  }
  return true;
}

bool File::SeekEnd() {
  if (descriptor == -1) {
    VEXO_LOG_ERROR("File not opened");
    return false;
  }
  if (lseek(descriptor, 0, SEEK_END) == -1) {
    VEXO_LOG_ERROR_ERRNO("Unable to seek to the end of file");
    return false;
  }
  return true;
}

bool File::SeekAhead(int64_t count) {
  if (descriptor == -1) {
    VEXO_LOG_ERROR("File not opened");
    return false;
  }
  if (count < 0) {
    VEXO_LOG_ERROR("Invalid count");
    return false;
  }
  // Each is below 2^63, so that the unsigned sum cannot wrap.
  if (Cursor() + static_cast<uint64_t>(count) > knownSize) {
    VEXO_LOG_ERROR("End of file will be reached");
    return false;
  }
  if (lseek(descriptor, count, SEEK_CUR) == -1) {
    VEXO_LOG_ERROR_ERRNO("Unable to seek ahead %lld bytes", static_cast<long long>(count));
    return false;
  }
  return true;
}

bool File::SeekBehind(int64_t count) {
  if (descriptor == -1) {
    VEXO_LOG_ERROR("File not opened");
    return false;
  }
  if (count < 0) {
    VEXO_LOG_ERROR("Invalid count");
    return false;
  }
  if (Cursor() < static_cast<uint64_t>(count)) {
    VEXO_LOG_ERROR("End of file will be reached");
    return false;
  }
  if (lseek(descriptor, -count, SEEK_CUR) == -1) {
    VEXO_LOG_ERROR_ERRNO("Unable to seek behind %lld bytes", static_cast<long long>(count));
    return false;
  }
  return true;
}

bool File::SeekTo(uint64_t position) {
  if (descriptor == -1) {
    VEXO_LOG_ERROR("File not opened");
    return false;
  }
  if (position > knownSize) {
    VEXO_LOG_ERROR("End of file will be reached");
    return false;
  }
  if (lseek(descriptor, static_cast<off_t>(position), SEEK_SET) == -1) {
    VEXO_LOG_ERROR_ERRNO("Unable to seek to position %llu",
                         static_cast<unsigned long long>(position));
    return false;
  }
  return true;
}

bool File::IsEOF() {
  if (descriptor == -1) {
    VEXO_LOG_WARNING("File not opened");
    return true;
  }
  const uint64_t position = Cursor();
  if (!SeekEnd()) return true;
  const uint64_t end = Cursor();
  if (!SeekTo(position)) return true;
  return position == end;
}

// ---- looks ahead ----

bool File::PeekI8(int8_t* value) {
  return ReadI8(value) && SeekBehind(1);
}

bool File::PeekI16(int16_t* value, bool bigEndian) {
  return ReadI16(value, bigEndian) && SeekBehind(2);
}

bool File::PeekI24(int32_t* value, bool bigEndian) {
  return ReadI24(value, bigEndian) && SeekBehind(3);
}

bool File::PeekI32(int32_t* value, bool bigEndian) {
  return ReadI32(value, bigEndian) && SeekBehind(4);
}

bool File::PeekI64(int64_t* value, bool bigEndian) {
  return ReadI64(value, bigEndian) && SeekBehind(8);
}

bool File::PeekUI8(uint8_t* value) {
  return PeekI8(reinterpret_cast<int8_t*>(value));
}

bool File::PeekUI16(uint16_t* value, bool bigEndian) {
  return PeekI16(reinterpret_cast<int16_t*>(value), bigEndian);
}

bool File::PeekUI24(uint32_t* value, bool bigEndian) {
  return PeekI24(reinterpret_cast<int32_t*>(value), bigEndian);
}

bool File::PeekUI32(uint32_t* value, bool bigEndian) {
  return PeekI32(reinterpret_cast<int32_t*>(value), bigEndian);
}

bool File::PeekUI64(uint64_t* value, bool bigEndian) {
  return PeekI64(reinterpret_cast<int64_t*>(value), bigEndian);
}

bool File::PeekBuffer(uint8_t* dst, uint64_t count) {
  return ReadBuffer(dst, count) && SeekBehind(static_cast<int64_t>(count));
}

// ---- status ----

bool File::Fstat() {
  if (fstat(descriptor, &statBuffer) == 0) return true;
  VEXO_LOG_WARNING_ERRNO("fstat error (%s)", std::strerror(errno));
  return false;
}

int64_t File::CreationMs() {
  return freshMs(statBuffer.st_ctim);
}

int64_t File::ModificationMs() {
  return freshMs(statBuffer.st_mtim);
}

int64_t File::AccessMs() {
  return freshMs(statBuffer.st_atim);
}

// `time` is one of the stat buffer's, which is filled first.
int64_t File::freshMs(const timespec& time) {
  if (!Fstat()) {
    VEXO_LOG_ERROR_ERRNO("fstat() failed");
    return 0;
  }
  return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
}

// ---- the whole file ----

bool File::ReadStringAll(std::string& out) {
  out.clear();
  const uint64_t size = Size();  // asked for once: the file may grow while it is read
  if (size >= kTooLargeForAString) {
    VEXO_LOG_ERROR("ReadAll can only be done on files smaller than 2^32 bytes (4GB)");
    return false;
  }
  if (size == 0) return true;
  if (!SeekBegin()) {
    VEXO_LOG_ERROR("Unable to seek to begin");
    return false;
  }
  if (!resize(out, size) || !ReadBuffer(reinterpret_cast<uint8_t*>(out.data()), size)) {
    VEXO_LOG_ERROR("Unable to read data");
    out.clear();
    return false;
  }
  return true;
}

bool File::ReadStringAll(const std::string& path, std::string& out) {
  File file;
  const bool opened = file.Initialize(path, FILE_OPEN_READ, 0);
  out.clear();  // not earlier: it may be the path
  return opened && file.ReadStringAll(out);
}

}  // namespace vexo::utils
