// FdReaderWriter: IReaderWriter over a file descriptor, by three functions that can be replaced.
//
// A derived class that overrides a signed operation changes its unsigned one too, which forwards to
// it; one that overrides ReadBuffer or WriteBuffer changes all typed ones, each of which makes one
// call of it (WriteSI32: two).
//
// Threads:   one at a time for an object.
// Ownership: the descriptor stays the caller's and is never closed. A copy uses the same one.
// Waiting:   EINTR and EAGAIN are tried again at once. On a non-blocking descriptor with nothing
//            to give or take, this keeps the processor busy until there is something.
// Failure:   false, logged. The object stays usable. "Invalid descriptor": it is -1, the one value
//            that means none.
#pragma once

#include <functional>
#include <string>

#include <stdint.h>
#include <unistd.h>

#include <vexo_utils/IReaderWriter.h>
#include <vexo_utils/export.h>

namespace vexo::utils {

class VEXO_UTILS_API FdReaderWriter : public IReaderWriter {
 public:
  // -1: none yet.
  explicit FdReaderWriter(int fd = -1) { SetFD(fd); }
  ~FdReaderWriter() override;

  // The descriptor from now on; the one before is left as it is.
  void SetFD(int fd);
  int GetFD() const;

  // What is called in the place of read(2), write(2) and fsync(2), with the descriptor, the place
  // and a 32-bit count: a socket's functions, a filter, a test's. They give the number of bytes, 0
  // at the end of the data, or -1 with errno set; nothing but -1 counts as an error. An empty
  // function throws std::bad_function_call when it should be called.
  void setReadFunc(std::function<int(int, void*, unsigned int)> function);
  void setWriteFunc(std::function<int(int, const void*, unsigned int)> function);
  void setSyncFunc(std::function<int(int)> function);

  // "file descriptor: N".
  std::string info() const override;

  bool ReadI8(int8_t* value) override;
  bool ReadI16(int16_t* value, bool bigEndian) override;
  bool ReadI24(int32_t* value, bool bigEndian) override;
  bool ReadI32(int32_t* value, bool bigEndian) override;
  bool ReadI64(int64_t* value, bool bigEndian) override;
  bool ReadUI8(uint8_t* value) override;
  bool ReadUI16(uint16_t* value, bool bigEndian) override;
  bool ReadUI24(uint32_t* value, bool bigEndian) override;
  bool ReadUI32(uint32_t* value, bool bigEndian) override;
  bool ReadUI64(uint64_t* value, bool bigEndian) override;

  // At most 4 GB less one byte, else "Can't read more than 4GB of data at once". A count of 0 is
  // true without a call. False: "Unable to read N bytes. (ERRNO) TEXT", and the warning "Unable to
  // read N bytes. EOF" when the data ended before; N is the whole count.
  bool ReadBuffer(uint8_t* dst, uint64_t count) override;

  bool WriteI8(int8_t value) override;
  bool WriteI16(int16_t value, bool bigEndian) override;
  bool WriteI24(int32_t value, bool bigEndian) override;
  bool WriteI32(int32_t value, bool bigEndian) override;
  bool WriteSI32(int32_t value) override;
  bool WriteI64(int64_t value, bool bigEndian) override;
  bool WriteUI8(uint8_t value) override;
  bool WriteUI16(uint16_t value, bool bigEndian) override;
  bool WriteUI24(uint32_t value, bool bigEndian) override;
  bool WriteUI32(uint32_t value, bool bigEndian) override;
  bool WriteUI64(uint64_t value, bool bigEndian) override;
  bool WriteString(const std::string& text) override;

  // As ReadBuffer: "Can't write more than 4GB of data at once", "Unable to write N bytes to file".
  // A write function that gives 0 is called again, for as long as it does.
  bool WriteBuffer(const uint8_t* src, uint64_t count) override;

  // False when the sync function gives -1, which it has in errno and nothing logs.
  bool Flush() override;

 protected:
  int descriptor = -1;  // -1: none
  int lastError = -1;   // errno of the last -1 of a read or write, also of one that was tried again

 private:
  std::function<int(int, void*, unsigned int)> readFunc = ::read;
  std::function<int(int, const void*, unsigned int)> writeFunc = ::write;
  std::function<int(int)> syncFunc = ::fsync;
};

}  // namespace vexo::utils
