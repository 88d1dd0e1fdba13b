#include "vexo_utils/FdReaderWriter.h"

#include <algorithm>
#include <cerrno>
#include <climits>
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

using namespace test;

constexpr int kNobodys = 12345;  // a descriptor that only the tests' own functions see

// ---- every typed operation: what it writes, how it is read back, by way of which others ----

struct Row {
  std::string bytes;
  std::string path;  // the signed operations that it goes through, and the buffer's counts
  std::function<bool(IWriter&)> write;
  std::function<bool(IReader&)> readsBack;
};

template <typename T>
using Given = std::common_type_t<T>;  // takes no part in finding T

// In both byte orders; `bytes` are those of the big-endian one.
template <typename T>
void add(std::vector<Row>& rows, const char* path, bool (IWriter::*write)(T, bool),
         bool (IReader::*read)(T*, bool), Given<T> value, std::string bytes,
         std::optional<Given<T>> backBig = {}, std::optional<Given<T>> backLittle = {}) {
  for (const bool big : {true, false}) {
    const T back = (big ? backBig : backLittle).value_or(value);
    rows.push_back({bytes, path, [=](IWriter& to) { return (to.*write)(value, big); },
                    [=](IReader& from) {
                      T got = 0x55;
                      return (from.*read)(&got, big) && got == back;
                    }});
    std::reverse(bytes.begin(), bytes.end());
  }
}

std::vector<Row> allRows() {
  using W = IWriter;
  using R = IReader;
  std::vector<Row> rows = {
      {"\xFE\xFD", "I8(1)I8(1)", [](W& to) { return to.WriteI8(-2) && to.WriteUI8(253); },
       [](R& from) {
         int8_t one = 0;
         uint8_t two = 0;
         return from.ReadI8(&one) && one == -2 && from.ReadUI8(&two) && two == 253;
       }},
      {"\x34\x56\x78\x92", "I24(3)I8(1)", [](W& to) { return to.WriteSI32(-0x6DCBA988); },
       [](R& from) {
         int32_t low = 0;
         int8_t top = 0;
         return from.ReadI24(&low, true) && low == 0x345678 && from.ReadI8(&top) && top == -0x6E;
       }},
      {std::string("a\0b", 3), "(3)", [](W& to) { return to.WriteString(std::string("a\0b", 3)); },
       [](R& from) {
         uint8_t text[3] = {};
         return from.ReadBuffer(text, 3) && text[0] == 'a' && text[1] == 0 && text[2] == 'b';
       }},
  };
  add(rows, "I16(2)", &W::WriteI16, &R::ReadI16, -2, "\xFF\xFE");
  add(rows, "I16(2)", &W::WriteUI16, &R::ReadUI16, 0xFE01, "\xFE\x01");
  add(rows, "I24(3)", &W::WriteI24, &R::ReadI24, 0x12345678, "\x34\x56\x78", 0x345678, 0x345678);
  add(rows, "I24(3)", &W::WriteI24, &R::ReadI24, -2, "\xFF\xFF\xFE", 0xFFFFFE);
  add(rows, "I24(3)", &W::WriteUI24, &R::ReadUI24, 0x800001, {"\x80\x00\x01", 3}, {}, 0xFF800001);
  add(rows, "I32(4)", &W::WriteI32, &R::ReadI32, -0x01020304, "\xFE\xFD\xFC\xFC");
  add(rows, "I32(4)", &W::WriteUI32, &R::ReadUI32, 0x89ABCDEF, "\x89\xAB\xCD\xEF");
  constexpr int64_t k64 = 0x0123456789ABCDEF;
  add(rows, "I64(8)", &W::WriteI64, &R::ReadI64, -k64, "\xFE\xDC\xBA\x98\x76\x54\x32\x11");
  add(rows, "I64(8)", &W::WriteUI64, &R::ReadUI64, k64, "\x01\x23\x45\x67\x89\xAB\xCD\xEF");
  return rows;
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
    EXPECT_TRUE(fd == kNobodys && errno == 0);
    const bool fails = random() % 3 == 0;
    if (fails) failure = random() % 2 == 0 ? EINTR : EAGAIN;
    errno = fails ? failure : EDOM;  // a success may leave anything there
    return fails ? -1 : static_cast<int>(least + random() % (count + 1 - least));
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
  int error() const { return lastError; }

  std::string trace;

 private:
  bool note(const std::string& step) { return !(trace += step).empty(); }
};

TEST(FdReaderWriter, TransfersEveryValueInSpiteOfShortAndInterruptedCalls) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    SCOPED_TRACE(seed);
    Tracing readerWriter(kNobodys);
    Unsteady memory(seed, readerWriter);
    std::string expected;
    std::string path;
    for (const Row& row : allRows()) {
      EXPECT_TRUE(row.write(readerWriter));
      ASSERT_EQ(memory.bytes, expected += row.bytes);
      ASSERT_EQ(readerWriter.trace, path += row.path);
    }
    for (const Row& row : allRows()) {
      ASSERT_TRUE(row.readsBack(readerWriter)) << row.path;
      ASSERT_EQ(readerWriter.trace, path += row.path);
    }
    EXPECT_EQ(readerWriter.error(), memory.failure);
  }
}

TEST(FdReaderWriter, OnlyMinusOneAndTheEndOfDataAreFailures) {
  struct {
    bool reads;
    bool done;
    std::vector<std::pair<int, int>> calls;  // results and errno
    int lastError;
    int level;
    const char* text;
  } const rows[] = {
      {true, false, {{1, 0}, {-1, EAGAIN}, {0, 0}}, EAGAIN, kWarning, "read 4 bytes. EOF"},
      {true, false, {{3, 0}, {-1, EIO}}, EIO, kError, "read 4 bytes. (5) Input/output error"},
      {true, true, {{-2, EIO}}, -1, 0, ""},
      {false, true, {{0, 0}, {2, 0}, {0, 0}, {2, 0}}, -1, 0, ""},
      {false, false, {{3, 0}, {-1, EINTR}, {-1, EIO}}, EIO, kError, "write 4 bytes to file"},
      {false, true, {{-2, EIO}}, -1, 0, ""},
  };
  for (const auto& row : rows) {
    Tracing both(kNobodys);
    auto next = row.calls.begin();
    const auto follow = [&](int, const void*, unsigned) {
      errno = next->second;
      return next++->first;
    };
    both.setReadFunc(follow);
    both.setWriteFunc(follow);
    uint8_t bytes[4] = {};
    EXPECT_EQ(row.reads ? both.ReadBuffer(bytes, 4) : both.WriteBuffer(bytes, 4), row.done);
    EXPECT_TRUE(next == row.calls.end());
    EXPECT_EQ(both.error(), row.lastError);
    const std::string text = std::string("Unable to ") + row.text;
    EXPECT_TRUE(row.done || logged(row.level, text, row.calls.back().second));
  }
}

TEST(FdReaderWriter, CountsHave32Bits) {
  std::vector<unsigned> asked;
  const auto transfer = [&](int, const void*, unsigned count) {
    asked.push_back(count);
    return INT_MAX;
  };
  FdReaderWriter both(kNobodys);
  both.setReadFunc(transfer);
  both.setWriteFunc(transfer);
  uint8_t byte = 0;
  EXPECT_TRUE(both.ReadBuffer(&byte, 0xFFFFFFFF) && both.WriteBuffer(&byte, 0xFFFFFFFF));
  EXPECT_TRUE(both.ReadBuffer(nullptr, 0) && both.WriteString(""));
  EXPECT_EQ(asked, (std::vector<unsigned>{0xFFFFFFFF, 0x80000000, 1, 0xFFFFFFFF, 0x80000000, 1}));
  EXPECT_TRUE(
      refused(both.ReadBuffer(&byte, 0x100000000), "Can't read more than 4GB of data at once", 0));
  EXPECT_TRUE(refused(both.WriteBuffer(&byte, 0x100000000),
                      "Can't write more than 4GB of data at once", 0));
}

TEST(FdReaderWriter, OnlyMinusOneIsNoDescriptor) {
  Tracing both;
  EXPECT_EQ(both.info(), "file descriptor: -1");
  EXPECT_EQ(both.error(), -1);
  EXPECT_FALSE(both.ReadBuffer(nullptr, 0) || both.WriteString("") || both.Flush());
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(logged(kError, "Invalid descriptor", 0));
  both.SetFD(-2);
  EXPECT_TRUE(refused(both.WriteSI32(1), "Unable to write 3 bytes to file", EBADF));
  EXPECT_FALSE(both.Flush());  // silently
}

TEST(FdReaderWriter, UsesTheSystemsCallsAndLeavesTheDescriptorOpen) {
  const int fd = open("/tmp", O_RDWR | O_TMPFILE, 0600);
  {
    FdReaderWriter concrete(fd);
    IReaderWriter& both = concrete;
    EXPECT_EQ(both.info(), "file descriptor: " + std::to_string(fd));
    EXPECT_TRUE(both.WriteUI32(0x01020304, true) && both.Flush());
    uint32_t value = 0x55555555;
    EXPECT_EQ(lseek(fd, 3, SEEK_SET), 3);
    EXPECT_FALSE(both.ReadUI24(&value, true));
    EXPECT_EQ(value, 4U);  // what came before the end, in a zero
    EXPECT_TRUE(logged(kWarning, "Unable to read 3 bytes. EOF", 0));
    concrete.setSyncFunc([&](int which) { return which == fd ? -1 : 0; });
    EXPECT_FALSE(both.Flush());
  }
  EXPECT_EQ(close(fd), 0);
}

}  // namespace
}  // namespace vexo::utils
