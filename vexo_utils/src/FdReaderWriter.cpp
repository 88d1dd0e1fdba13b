#include "vexo_utils/FdReaderWriter.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "internal/log.h"

namespace vexo::utils {

namespace {

constexpr uint64_t kMostAtOnce = 0xFFFFFFFF;

bool isTransient(int error) {
  return error == EAGAIN || error == EINTR;
}

template <typename Value>
uint8_t* bytesOf(Value* value) {
  return reinterpret_cast<uint8_t*>(value);
}

// The number that the first N bytes at `memory` are, unsigned.
template <std::size_t N>
uint64_t numberAt(const void* memory, bool bigEndian) {
  std::array<uint8_t, N> bytes{};
  std::memcpy(bytes.data(), memory, N);
  uint64_t number = 0;
  for (std::size_t i = 0; i < N; ++i) number = number << 8 | bytes[bigEndian ? i : N - 1 - i];
  return number;
}

// Writes the low N bytes of a number.
template <std::size_t N>
bool writeLow(IWriter& writer, int64_t number, bool bigEndian) {
  std::array<uint8_t, N> bytes{};
  for (std::size_t i = 0; i < N; ++i) {
    bytes[bigEndian ? N - 1 - i : i] = static_cast<uint8_t>(number >> (8 * i));
  }
  return writer.WriteBuffer(bytes.data(), N);
}

}  // namespace

FdReaderWriter::~FdReaderWriter() = default;

void FdReaderWriter::SetFD(int fd) {
  descriptor = fd;
}

int FdReaderWriter::GetFD() const {
  return descriptor;
}

void FdReaderWriter::setReadFunc(std::function<int(int, void*, unsigned int)> function) {
  readFunc = std::move(function);
}

void FdReaderWriter::setWriteFunc(std::function<int(int, const void*, unsigned int)> function) {
  writeFunc = std::move(function);
}

void FdReaderWriter::setSyncFunc(std::function<int(int)> function) {
  syncFunc = std::move(function);
}

std::string FdReaderWriter::info() const {
  return "file descriptor: " + std::to_string(descriptor);
}

// ---- reading: into the caller's variable, whose bytes are then put in order ----

bool FdReaderWriter::ReadI8(int8_t* value) {
  return ReadBuffer(bytesOf(value), 1);
}

bool FdReaderWriter::ReadI16(int16_t* value, bool bigEndian) {
  if (!ReadBuffer(bytesOf(value), 2)) return false;
  *value = static_cast<int16_t>(numberAt<2>(value, bigEndian));
  return true;
}

bool FdReaderWriter::ReadI24(int32_t* value, bool bigEndian) {
  *value = 0;
  if (!ReadBuffer(bytesOf(value), 3)) return false;
  const auto number = static_cast<int32_t>(numberAt<3>(value, bigEndian));
  constexpr int32_t kSign = 0x800000;
  *value = bigEndian ? number : (number ^ kSign) - kSign;
  return true;
}

bool FdReaderWriter::ReadI32(int32_t* value, bool bigEndian) {
  if (!ReadBuffer(bytesOf(value), 4)) return false;
  *value = static_cast<int32_t>(numberAt<4>(value, bigEndian));
  return true;
}

bool FdReaderWriter::ReadI64(int64_t* value, bool bigEndian) {
  if (!ReadBuffer(bytesOf(value), 8)) return false;
  *value = static_cast<int64_t>(numberAt<8>(value, bigEndian));
  return true;
}

bool FdReaderWriter::ReadUI8(uint8_t* value) {
  return ReadI8(reinterpret_cast<int8_t*>(value));
}

bool FdReaderWriter::ReadUI16(uint16_t* value, bool bigEndian) {
  return ReadI16(reinterpret_cast<int16_t*>(value), bigEndian);
}

bool FdReaderWriter::ReadUI24(uint32_t* value, bool bigEndian) {
  return ReadI24(reinterpret_cast<int32_t*>(value), bigEndian);
}

bool FdReaderWriter::ReadUI32(uint32_t* value, bool bigEndian) {
  return ReadI32(reinterpret_cast<int32_t*>(value), bigEndian);
}

bool FdReaderWriter::ReadUI64(uint64_t* value, bool bigEndian) {
  return ReadI64(reinterpret_cast<int64_t*>(value), bigEndian);
}

bool FdReaderWriter::ReadBuffer(uint8_t* dst, uint64_t count) {
  if (descriptor == -1) {
    VEXO_LOG_ERROR("Invalid descriptor");
    return false;
  }
  if (count > kMostAtOnce) {
    VEXO_LOG_ERROR("Can't read more than 4GB of data at once");
    return false;
  }
  for (uint64_t done = 0; done < count;) {
    errno = 0;
    const int got = readFunc(descriptor, dst + done, static_cast<unsigned int>(count - done));
    if (got == -1) {
      lastError = errno;
      if (isTransient(lastError)) continue;
      VEXO_LOG_ERROR_ERRNO("Unable to read %llu bytes. (%d) %s",
                           static_cast<unsigned long long>(count), lastError,
                           std::strerror(lastError));
      return false;
    }
    if (got == 0) {
      VEXO_LOG_WARNING("Unable to read %llu bytes. EOF", static_cast<unsigned long long>(count));
      return false;
    }
    done += static_cast<uint64_t>(got);
  }
  return true;
}

// ---- writing ----

bool FdReaderWriter::WriteI8(int8_t value) {
  return writeLow<1>(*this, value, false);
}

bool FdReaderWriter::WriteI16(int16_t value, bool bigEndian) {
  return writeLow<2>(*this, value, bigEndian);
}

bool FdReaderWriter::WriteI24(int32_t value, bool bigEndian) {
  return writeLow<3>(*this, value, bigEndian);
}

bool FdReaderWriter::WriteI32(int32_t value, bool bigEndian) {
  return writeLow<4>(*this, value, bigEndian);
}

bool FdReaderWriter::WriteSI32(int32_t value) {
  return WriteI24(value, true) && WriteI8(static_cast<int8_t>(value >> 24));
}

bool FdReaderWriter::WriteI64(int64_t value, bool bigEndian) {
  return writeLow<8>(*this, value, bigEndian);
}

bool FdReaderWriter::WriteUI8(uint8_t value) {
  return WriteI8(static_cast<int8_t>(value));
}

bool FdReaderWriter::WriteUI16(uint16_t value, bool bigEndian) {
  return WriteI16(static_cast<int16_t>(value), bigEndian);
}

bool FdReaderWriter::WriteUI24(uint32_t value, bool bigEndian) {
  return WriteI24(static_cast<int32_t>(value), bigEndian);
}

bool FdReaderWriter::WriteUI32(uint32_t value, bool bigEndian) {
  return WriteI32(static_cast<int32_t>(value), bigEndian);
}

bool FdReaderWriter::WriteUI64(uint64_t value, bool bigEndian) {
  return WriteI64(static_cast<int64_t>(value), bigEndian);
}

bool FdReaderWriter::WriteString(const std::string& text) {
  return WriteBuffer(reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

bool FdReaderWriter::WriteBuffer(const uint8_t* src, uint64_t count) {
  if (descriptor == -1) {
    VEXO_LOG_ERROR("Invalid descriptor");
    return false;
  }
  if (count > kMostAtOnce) {
    VEXO_LOG_ERROR("Can't write more than 4GB of data at once");
    return false;
  }
  for (uint64_t done = 0; done < count;) {
    errno = 0;
    const int put = writeFunc(descriptor, src + done, static_cast<unsigned int>(count - done));
    if (put == -1) {
      lastError = errno;
      if (isTransient(lastError)) continue;
      VEXO_LOG_ERROR_ERRNO("Unable to write %llu bytes to file",
                           static_cast<unsigned long long>(count));
      return false;
    }
    done += static_cast<uint64_t>(put);
  }
  return true;
}

bool FdReaderWriter::Flush() {
  if (descriptor == -1) {
    VEXO_LOG_ERROR("Invalid descriptor");
    return false;
  }
  return syncFunc(descriptor) != -1;
}

}  // namespace vexo::utils
