#include "vexo_utils/FdReaderWriter.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "log_recorder.h"

namespace vexo::utils {
namespace {

using test::kError;
using test::kWarning;
using test::logged;

constexpr int kNobodys = 12345;  // a descriptor that only the tests' own functions see

// ---- every typed operation: what it writes, how it is read back, by way of which others ----

struct Row {
  std::string bytes;
  std::string path;  // the signed operations that it goes through, and the buffer's counts
  std::function<bool(IWriter&)> write;
  std::function<bool(IReader&)> readsBack;
};

std::string fromHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

template <typename T>
using Given = std::common_type_t<T>;  // takes no part in finding T

template <typename T>
Row number(const char* path, bool (IWriter::*write)(T, bool), bool (IReader::*read)(T*, bool),
           bool bigEndian, Given<T> value, const char* hex, std::optional<Given<T>> back = {}) {
  return {fromHex(hex), path, [=](IWriter& to) { return (to.*write)(value, bigEndian); },
          [=](IReader& from) {
            T got = 0x55;
            return (from.*read)(&got, bigEndian) && got == back.value_or(value);
          }};
}

template <typename T>
Row number8(bool (IWriter::*write)(T), bool (IReader::*read)(T*), Given<T> value, const char* hex) {
  return {fromHex(hex), "I8(1)", [=](IWriter& to) { return (to.*write)(value); },
          [=](IReader& from) {
            T got = 0x55;
            return (from.*read)(&got) && got == value;
          }};
}

std::vector<Row> rows() {
  using W = IWriter;
  using R = IReader;
  constexpr bool kBig = true;
  constexpr bool kLittle = false;
  constexpr int64_t k64 = 0x0123456789ABCDEF;
  return {
      number8(&W::WriteI8, &R::ReadI8, -2, "fe"),
      number8(&W::WriteUI8, &R::ReadUI8, 254, "fe"),
      number("I16(2)", &W::WriteI16, &R::ReadI16, kBig, -2, "fffe"),
      number("I16(2)", &W::WriteI16, &R::ReadI16, kLittle, -2, "feff"),
      number("I16(2)", &W::WriteUI16, &R::ReadUI16, kBig, 0xFE01, "fe01"),
      number("I16(2)", &W::WriteUI16, &R::ReadUI16, kLittle, 0xFE01, "01fe"),
      number("I24(3)", &W::WriteI24, &R::ReadI24, kBig, 0x12345678, "345678", 0x345678),
      number("I24(3)", &W::WriteI24, &R::ReadI24, kLittle, 0x12345678, "785634", 0x345678),
      number("I24(3)", &W::WriteI24, &R::ReadI24, kBig, -1, "ffffff", 0xFFFFFF),
      number("I24(3)", &W::WriteI24, &R::ReadI24, kLittle, -1, "ffffff"),
      number("I24(3)", &W::WriteI24, &R::ReadI24, kBig, 0x800000, "800000"),
      number("I24(3)", &W::WriteI24, &R::ReadI24, kLittle, -0x800000, "000080"),
      number("I24(3)", &W::WriteUI24, &R::ReadUI24, kBig, 0x800000, "800000"),
      number("I24(3)", &W::WriteUI24, &R::ReadUI24, kLittle, 0x800000, "000080", 0xFF800000),
      number("I32(4)", &W::WriteI32, &R::ReadI32, kBig, -0x01020304, "fefdfcfc"),
      number("I32(4)", &W::WriteI32, &R::ReadI32, kLittle, -0x01020304, "fcfcfdfe"),
      number("I32(4)", &W::WriteUI32, &R::ReadUI32, kBig, 0x89ABCDEF, "89abcdef"),
      number("I32(4)", &W::WriteUI32, &R::ReadUI32, kLittle, 0x89ABCDEF, "efcdab89"),
      number("I64(8)", &W::WriteI64, &R::ReadI64, kBig, -k64, "fedcba9876543211"),
      number("I64(8)", &W::WriteI64, &R::ReadI64, kLittle, k64, "efcdab8967452301"),
      number("I64(8)", &W::WriteUI64, &R::ReadUI64, kBig, ~0ULL - k64, "fedcba9876543210"),
      number("I64(8)", &W::WriteUI64, &R::ReadUI64, kLittle, k64, "efcdab8967452301"),
      {fromHex("34567892"), "I24(3)I8(1)",
       [](W& to) { return to.WriteSI32(static_cast<int32_t>(0x92345678)); },
       [](R& from) {
         int32_t low = 0;
         int8_t top = 0;
         return from.ReadI24(&low, true) && low == 0x345678 && from.ReadI8(&top) && top == -0x6E;
       }},
      {std::string("a\0b", 3), "(3)", [](W& to) { return to.WriteString(std::string("a\0b", 3)); },
       [](R& from) {
         uint8_t text[3] = {};
         return from.ReadBuffer(text, 3) && std::memcmp(text, "a\0b", 3) == 0;
       }},
  };
}

// A memory whose transfers are cut short, and fail with EINTR and EAGAIN, at places that the seed
// decides.
class Unsteady {
 public:
  Unsteady(unsigned seed, FdReaderWriter& served) : random(seed) {
    served.setReadFunc([this](int fd, void* to, unsigned count) {
      const int share = shareOf(fd, count, 1);
      if (share > 0) at += bytes.copy(static_cast<char*>(to), static_cast<unsigned>(share), at);
      return share;
    });
    served.setWriteFunc([this](int fd, const void* from, unsigned count) {
      const int share = shareOf(fd, count, 0);
      if (share > 0) bytes.append(static_cast<const char*>(from), static_cast<unsigned>(share));
      return share;
    });
  }

  std::string bytes;
  int failure = -1;

 private:
  int shareOf(int fd, unsigned count, unsigned least) {
    EXPECT_EQ(fd, kNobodys);
    EXPECT_EQ(errno, 0);
    if (random() % 3 == 0) {
      errno = failure = random() % 2 == 0 ? EINTR : EAGAIN;
      return -1;
    }
    errno = EDOM;  // a success may leave anything there
    return static_cast<int>(least + random() % (count + 1 - least));
  }

  std::mt19937 random;
  std::size_t at = 0;
};

// Overrides whatever others forward to, and tells which of it was called.
class Tracing : public FdReaderWriter {
 public:
  using Base = FdReaderWriter;
  using Base::Base;
  bool ReadI8(int8_t* v) override { return note("I8") && Base::ReadI8(v); }
  bool ReadI16(int16_t* v, bool big) override { return note("I16") && Base::ReadI16(v, big); }
  bool ReadI24(int32_t* v, bool big) override { return note("I24") && Base::ReadI24(v, big); }
  bool ReadI32(int32_t* v, bool big) override { return note("I32") && Base::ReadI32(v, big); }
  bool ReadI64(int64_t* v, bool big) override { return note("I64") && Base::ReadI64(v, big); }
  bool WriteI8(int8_t v) override { return note("I8") && Base::WriteI8(v); }
  bool WriteI16(int16_t v, bool big) override { return note("I16") && Base::WriteI16(v, big); }
  bool WriteI24(int32_t v, bool big) override { return note("I24") && Base::WriteI24(v, big); }
  bool WriteI32(int32_t v, bool big) override { return note("I32") && Base::WriteI32(v, big); }
  bool WriteI64(int64_t v, bool big) override { return note("I64") && Base::WriteI64(v, big); }
  bool ReadBuffer(uint8_t* dst, uint64_t count) override {
    return note("(" + std::to_string(count) + ")") && Base::ReadBuffer(dst, count);
  }
  bool WriteBuffer(const uint8_t* src, uint64_t count) override {
    return note("(" + std::to_string(count) + ")") && Base::WriteBuffer(src, count);
  }
  std::string takeTrace() { return std::exchange(trace, ""); }
  int error() const { return lastError; }

 private:
  bool note(const std::string& step) {
    trace += step;
    return true;
  }
  std::string trace;
};

TEST(FdReaderWriter, TransfersEveryValueInSpiteOfShortAndInterruptedCalls) {
  const std::vector<Row> all = rows();
  for (unsigned seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE(seed);
    Tracing readerWriter(kNobodys);
    Unsteady memory(seed, readerWriter);
    std::string expected;
    for (const Row& row : all) {
      EXPECT_TRUE(row.write(readerWriter));
      EXPECT_EQ(readerWriter.takeTrace(), row.path);
      ASSERT_EQ(memory.bytes, expected += row.bytes);
    }
    for (const Row& row : all) {
      ASSERT_TRUE(row.readsBack(readerWriter)) << row.path;
      EXPECT_EQ(readerWriter.takeTrace(), row.path);
    }
    EXPECT_EQ(readerWriter.error(), memory.failure);
  }
}

// ---- results of the replaced functions ----

TEST(FdReaderWriter, OnlyMinusOneAndTheEndOfDataAreFailures) {
  enum Way { kRead, kWrite };
  struct {
    Way way;
    std::vector<std::pair<int, int>> calls;  // results and errno
    bool done;
    int lastError;
    int level;
    const char* text;
  } const rows[] = {
      {kRead, {{-1, EINTR}, {-1, EINTR}, {4, 0}}, true, EINTR, 0, ""},
      {kRead,
       {{1, 0}, {-1, EAGAIN}, {0, 0}},
       false,
       EAGAIN,
       kWarning,
       "Unable to read 4 bytes. EOF"},
      {kRead,
       {{3, 0}, {-1, EIO}},
       false,
       EIO,
       kError,
       "Unable to read 4 bytes. (5) Input/output error"},
      {kRead, {{-2, EIO}}, true, -1, 0, ""},
      {kWrite, {{0, 0}, {2, 0}, {0, 0}, {2, 0}}, true, -1, 0, ""},
      {kWrite,
       {{3, 0}, {-1, EINTR}, {-1, EIO}},
       false,
       EIO,
       kError,
       "Unable to write 4 bytes to file"},
      {kWrite, {{-2, EIO}}, true, -1, 0, ""},
  };
  for (const auto& row : rows) {
    Tracing readerWriter(kNobodys);
    std::size_t next = 0;
    const auto follow = [&](int, const void*, unsigned) {
      errno = row.calls.at(next).second;
      return row.calls[next++].first;
    };
    readerWriter.setReadFunc(follow);
    readerWriter.setWriteFunc(follow);
    uint8_t bytes[4] = {};
    EXPECT_EQ(
        row.way == kRead ? readerWriter.ReadBuffer(bytes, 4) : readerWriter.WriteBuffer(bytes, 4),
        row.done);
    EXPECT_EQ(next, row.calls.size());
    EXPECT_EQ(readerWriter.error(), row.lastError);
    EXPECT_TRUE(row.done || logged(row.level, row.text, row.calls.back().second));
  }
}

TEST(FdReaderWriter, CountsHave32Bits) {
  std::vector<unsigned> asked;
  const auto transfer = [&](int, const void*, unsigned count) {
    asked.push_back(count);
    return INT_MAX;
  };
  FdReaderWriter readerWriter(kNobodys);
  readerWriter.setReadFunc(transfer);
  readerWriter.setWriteFunc(transfer);
  uint8_t byte = 0;
  const std::vector<unsigned> expected = {0xFFFFFFFF, 0x80000000, 1};
  EXPECT_TRUE(readerWriter.ReadBuffer(&byte, 0xFFFFFFFF));
  EXPECT_EQ(std::exchange(asked, {}), expected);
  EXPECT_TRUE(readerWriter.WriteBuffer(&byte, 0xFFFFFFFF));
  EXPECT_EQ(std::exchange(asked, {}), expected);

  EXPECT_FALSE(readerWriter.ReadBuffer(&byte, 0x100000000));
  EXPECT_TRUE(logged(kError, "Can't read more than 4GB of data at once", 0));
  EXPECT_FALSE(readerWriter.WriteBuffer(&byte, 0x100000000));
  EXPECT_TRUE(logged(kError, "Can't write more than 4GB of data at once", 0));
  EXPECT_TRUE(readerWriter.ReadBuffer(nullptr, 0));
  EXPECT_TRUE(readerWriter.WriteString(""));
  EXPECT_TRUE(asked.empty());
}

TEST(FdReaderWriter, OnlyMinusOneIsNoDescriptor) {
  Tracing readerWriter;
  EXPECT_EQ(readerWriter.info(), "file descriptor: -1");
  EXPECT_EQ(readerWriter.error(), -1);
  EXPECT_FALSE(readerWriter.ReadBuffer(nullptr, 0));
  EXPECT_FALSE(readerWriter.WriteString(""));
  EXPECT_FALSE(readerWriter.Flush());
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(logged(kError, "Invalid descriptor", 0));

  readerWriter.SetFD(-2);
  EXPECT_FALSE(readerWriter.WriteSI32(1));
  EXPECT_TRUE(logged(kError, "Unable to write 3 bytes to file", EBADF));
  EXPECT_FALSE(readerWriter.Flush());  // silently

  readerWriter.setReadFunc(nullptr);
  int8_t value = 0;
  EXPECT_THROW(readerWriter.ReadI8(&value), std::bad_function_call);
}

TEST(FdReaderWriter, UsesTheSystemsCallsAndLeavesTheDescriptorOpen) {
  const int fd = open("/tmp", O_RDWR | O_TMPFILE, 0600);
  ASSERT_GE(fd, 0);
  {
    FdReaderWriter concrete(fd);
    IReaderWriter& readerWriter = concrete;
    EXPECT_EQ(readerWriter.info(), "file descriptor: " + std::to_string(fd));
    EXPECT_TRUE(readerWriter.WriteUI32(0x01020304, true));
    EXPECT_TRUE(readerWriter.Flush());
    ASSERT_EQ(lseek(fd, 0, SEEK_SET), 0);
    uint32_t value = 0;
    EXPECT_TRUE(readerWriter.ReadUI32(&value, true));
    EXPECT_EQ(value, 0x01020304U);
    ASSERT_EQ(lseek(fd, 3, SEEK_SET), 3);
    EXPECT_FALSE(readerWriter.ReadUI24(&value, true));
    EXPECT_EQ(value, 4U);  // what came before the end, in a zero
    EXPECT_TRUE(logged(kWarning, "Unable to read 3 bytes. EOF", 0));

    int synced = -1;
    concrete.setSyncFunc([&](int which) { return synced = which; });
    EXPECT_TRUE(readerWriter.Flush());
    EXPECT_EQ(synced, fd);
    concrete.setSyncFunc([](int) { return -1; });
    EXPECT_FALSE(readerWriter.Flush());
  }
  EXPECT_EQ(close(fd), 0);
}

}  // namespace
}  // namespace vexo::utils
