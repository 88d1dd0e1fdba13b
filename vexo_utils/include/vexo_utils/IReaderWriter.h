// IReader, IWriter, IReaderWriter: numbers, texts and raw bytes, read and written one after the
// other, whatever they come from or go to.
//
// Order:     `bigEndian` true is network order, most significant byte first; false the reverse.
// Results:   true when all of the value was transferred. After a failure the destination may hold
//            the bytes that came before it, and what was written before it stays written.
// Pointers:  never null, unless the count is 0.
// Threads:   one at a time for an object.
#pragma once

#include <string>

#include <stdint.h>

#include <vexo_utils/export.h>

namespace vexo::utils {

class VEXO_UTILS_API IReader {
 public:
  virtual ~IReader() = default;

  // What is read from, for log messages.
  virtual std::string info() const = 0;

  // ReadI24 gives a signed number only in little-endian order (bytes FF FF FF are -1); in
  // big-endian order the same bytes are 16777215. ReadUI24 gives the same 32 bits, so that a
  // little-endian number of 0x800000 and above has a top byte of 0xFF.
  virtual bool ReadI8(int8_t* value) = 0;
  virtual bool ReadI16(int16_t* value, bool bigEndian) = 0;
  virtual bool ReadI24(int32_t* value, bool bigEndian) = 0;
  virtual bool ReadI32(int32_t* value, bool bigEndian) = 0;
  virtual bool ReadI64(int64_t* value, bool bigEndian) = 0;
  virtual bool ReadUI8(uint8_t* value) = 0;
  virtual bool ReadUI16(uint16_t* value, bool bigEndian) = 0;
  virtual bool ReadUI24(uint32_t* value, bool bigEndian) = 0;
  virtual bool ReadUI32(uint32_t* value, bool bigEndian) = 0;
  virtual bool ReadUI64(uint64_t* value, bool bigEndian) = 0;

  // Exactly `count` bytes.
  virtual bool ReadBuffer(uint8_t* dst, uint64_t count) = 0;
};

class VEXO_UTILS_API IWriter {
 public:
  virtual ~IWriter() = default;

  // What is written to, for log messages.
  virtual std::string info() const = 0;

  // The 24-bit writes drop the top byte. WriteSI32 writes the layout of extended 24+8-bit time
  // stamps: the low 24 bits big-endian, then the top byte (0x12345678 is 34 56 78 12).
  virtual bool WriteI8(int8_t value) = 0;
  virtual bool WriteI16(int16_t value, bool bigEndian) = 0;
  virtual bool WriteI24(int32_t value, bool bigEndian) = 0;
  virtual bool WriteI32(int32_t value, bool bigEndian) = 0;
  virtual bool WriteSI32(int32_t value) = 0;
  virtual bool WriteI64(int64_t value, bool bigEndian) = 0;
  virtual bool WriteUI8(uint8_t value) = 0;
  virtual bool WriteUI16(uint16_t value, bool bigEndian) = 0;
  virtual bool WriteUI24(uint32_t value, bool bigEndian) = 0;
  virtual bool WriteUI32(uint32_t value, bool bigEndian) = 0;
  virtual bool WriteUI64(uint64_t value, bool bigEndian) = 0;

  // The characters, without a length before or a zero behind them.
  virtual bool WriteString(const std::string& text) = 0;
  // All `count` bytes.
  virtual bool WriteBuffer(const uint8_t* src, uint64_t count) = 0;

  // Brings what was written to where it lasts.
  virtual bool Flush() = 0;
};

// The inheritance is virtual: who implements both has one IReader and one IWriter.
class VEXO_UTILS_API IReaderWriter : public virtual IReader, public virtual IWriter {
 public:
  // Of both at once, so that a call through this interface is not ambiguous.
  std::string info() const override = 0;
};

}  // namespace vexo::utils
