#include "vexo_utils/file.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "files.h"
#include "log_recorder.h"
#include "mounted.h"

namespace vexo::utils {
namespace {

namespace fs = std::filesystem;
using namespace test;

constexpr char kPath[] = "/tmp/file";
constexpr uint64_t kGiB = 1ULL << 30;

// An open file with the given contents.
class FileWith : public File {
 public:
  explicit FileWith(const std::string& contents, FILE_OPEN_MODE mode = FILE_OPEN_READ) {
    writeFile(kPath, contents);
    EXPECT_TRUE(Initialize(kPath, mode, 0));
  }
};

TEST(File, ModesOpenAsTheySay) {
  struct {
    FILE_OPEN_MODE mode;
    bool creates;
    const char* flags;
    const char* result;  // of writing "ab" to a file with "1234"
  } const rows[] = {{FILE_OPEN_READ, false, "0", "1234"},
                    {FILE_OPEN_READ_WRITE, false, "2", "ab34"},
                    {FILE_OPEN_TRUNCATE, true, "242", "ab"},
                    {FILE_OPEN_APPEND, true, "442", "1234ab"}};
  for (const auto& row : rows) {
    FileWith file("1234", row.mode);
    const bool writes = file.WriteString("ab");
    EXPECT_EQ(file.IsOpen(), writes);  // the descriptor is valid all the same
    EXPECT_EQ(readFile(kPath), row.result);
    EXPECT_TRUE(writes || logged(kError, "Unable to write 2 bytes to file", EBADF));
    EXPECT_TRUE(file.Initialize(file.GetPath(), row.mode, O_CLOEXEC) && file.IsOpen());  // again
    EXPECT_EQ(file.info(), "file: /tmp/file");
    EXPECT_EQ(fcntl(file.GetFD(), F_GETFD), FD_CLOEXEC);

    fs::remove(kPath);
    const mode_t before = umask(027);
    EXPECT_EQ(file.Initialize(kPath, row.mode, 0), row.creates);
    umask(before);
    EXPECT_EQ(file.IsOpen(), row.creates);
    EXPECT_TRUE(!row.creates || fs::status(kPath).permissions() == fs::perms(0640));
    const std::string text = "Unable to open file /tmp/file with mode `";
    EXPECT_TRUE(row.creates || logged(kError, text + row.flags + "`", ENOENT));
  }
}

TEST(File, RefusesWhatCannotBeOpened) {
  writeFile(kPath, "1234");
  File file;
  EXPECT_TRUE(file.Initialize(kPath, FILE_OPEN_APPEND, 0));
  EXPECT_TRUE(
      refused(file.Initialize(kPath, static_cast<FILE_OPEN_MODE>(4), 0), "Invalid open mode", 0));
  EXPECT_TRUE(file.GetFD() == -1 && file.GetPath() == kPath);
  EXPECT_TRUE(file.Initialize(kPath, FILE_OPEN_READ, 0));
  fs::resize_file(kPath, 2);
  EXPECT_EQ(file.Size(), 2U);  // it is no longer in append mode

  const std::string tooLong(300, 'x');
  const Mounted readOnly("/tmp/read-only");
  readOnly.makeReadOnly();
  struct {
    std::string path;
    FILE_OPEN_MODE mode;
    unsigned flags;
    const char* text;
    int error;
  } const rows[] = {{"", FILE_OPEN_READ, 0, "0", ENOENT},
                    {tooLong, FILE_OPEN_READ, 0, "0", ENAMETOOLONG},
                    {"/tmp/read-only", FILE_OPEN_READ_WRITE, 0, "2", EISDIR},
                    {"/tmp/read-only", FILE_OPEN_TRUNCATE, O_EXCL, "2c2", EEXIST},
                    {"/tmp/read-only/file", FILE_OPEN_APPEND, 0, "442", EROFS}};
  for (const auto& row : rows) {
    EXPECT_FALSE(file.Initialize(row.path, row.mode, row.flags) || file.IsOpen());
    EXPECT_TRUE(logged(kError, "Unable to open file " + row.path + " with mode `" + row.text + "`",
                       row.error));
  }
  file.Close();
  EXPECT_EQ(file.info(), "file: ");
}

// ---- size and cursor ----

TEST(File, KnownSizeGrowsByEveryWrite) {
  FileWith appended("0123456789", FILE_OPEN_APPEND);
  EXPECT_TRUE(appended.WriteString("abcde"));
  fs::resize_file(kPath, 3);
  EXPECT_EQ(appended.Size(), 15U);  // the system is not asked

  FileWith file("0123456789", FILE_OPEN_READ_WRITE);
  EXPECT_TRUE(file.WriteUI32(0, true));
  EXPECT_TRUE(file.SeekTo(14));  // written over, and counted nevertheless
  EXPECT_EQ(file.Size(), 10U);
  EXPECT_TRUE(refused(file.SeekTo(11), "End of file will be reached", 0));
}

TEST(File, SeeksStayWithinTheKnownSize) {
  FileWith file("0123456789");
  struct {
    std::function<bool()> seek;
    uint64_t cursor;
    const char* error;
  } const rows[] = {
      {[&] { return file.SeekTo(8); }, 8, nullptr},
      {[&] { return file.SeekAhead(3); }, 8, "End of file will be reached"},
      {[&] { return file.SeekAhead(INT64_MAX); }, 8, "End of file will be reached"},
      {[&] { return file.SeekAhead(-1); }, 8, "Invalid count"},
      {[&] { return file.SeekAhead(2); }, 10, nullptr},
      {[&] { return file.SeekBehind(11); }, 10, "End of file will be reached"},
      {[&] { return file.SeekBehind(INT64_MIN); }, 10, "Invalid count"},
      {[&] { return file.SeekBehind(10); }, 0, nullptr},
      {[&] { return file.SeekTo(11); }, 0, "End of file will be reached"},
      {[&] { return file.SeekTo(UINT64_MAX); }, 0, "End of file will be reached"},
      {[&] { return file.SeekEnd(); }, 10, nullptr},
      {[&] { return file.SeekBegin(); }, 0, nullptr},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.seek(), row.error == nullptr);
    EXPECT_EQ(file.IsEOF(), row.cursor == 10);
    EXPECT_EQ(file.Cursor(), row.cursor);
    EXPECT_TRUE(row.error == nullptr || logged(kError, row.error, 0));
  }
  fs::resize_file(kPath, 20);
  EXPECT_TRUE(file.SeekEnd());
  EXPECT_TRUE(file.IsEOF());  // but the way back is beyond the known size
  EXPECT_TRUE(logged(kError, "End of file will be reached"));
}

TEST(File, WithoutAFileAndWithOneThatCannotSeek) {
  File file;
  const std::pair<std::function<bool()>, const char*> seeks[] = {
      {[&] { return file.SeekBegin(); }, "Unable to seek to the beginning of file"},
      {[&] { return file.SeekEnd(); }, "Unable to seek to the end of file"},
      {[&] { return file.SeekAhead(0); }, "Unable to seek ahead 0 bytes"},
      {[&] { return file.SeekBehind(0); }, "Unable to seek behind 0 bytes"},
      {[&] { return file.SeekTo(0); }, "Unable to seek to position 0"}};
  for (const auto& [seek, text] : seeks) {
    EXPECT_TRUE(refused(seek(), "File not opened", 0));
  }
  EXPECT_TRUE(file.Size() == 0 && file.Cursor() == 0 && file.IsEOF());
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(logged(kWarning, "File not opened", 0));
  EXPECT_EQ(file.ModificationMs(), 0);
  EXPECT_TRUE(logged(kWarning, "fstat error (Bad file descriptor)", EBADF));
  EXPECT_TRUE(logged(kError, "fstat() failed"));

  ASSERT_EQ(mkfifo("/tmp/fifo", 0600), 0);
  ASSERT_TRUE(file.Initialize("/tmp/fifo", FILE_OPEN_READ_WRITE, 0));
  for (const auto& [seek, text] : seeks) {
    EXPECT_TRUE(refused(seek(), text, ESPIPE));
  }
  for (int i = 0; i < 2; ++i) {  // SeekAhead and SeekBehind asked for it
    EXPECT_TRUE(logged(kError, "Unable to get the current location", ESPIPE));
  }
}

template <typename T, typename... Order>
bool peeks(File& file, bool (File::*peek)(T*, Order...), T expected, Order... bigEndian) {
  T value = 0x55;
  return (file.*peek)(&value, bigEndian...) && value == expected && file.Cursor() == 0;
}

TEST(File, PeeksComeBack) {
  FileWith file("\xFF\x02\x03\x04\x05\x06\x07\x08");
  EXPECT_TRUE(peeks<int8_t>(file, &File::PeekI8, -1));
  EXPECT_TRUE(peeks<int16_t>(file, &File::PeekI16, -254, true));
  EXPECT_TRUE(peeks<int32_t>(file, &File::PeekI24, 0xFF0203, true));
  EXPECT_TRUE(peeks<int32_t>(file, &File::PeekI32, -0xFDFCFC, true));
  EXPECT_TRUE(peeks<int64_t>(file, &File::PeekI64, -0xFDFCFBFAF9F8F8, true));
  EXPECT_TRUE(peeks<uint8_t>(file, &File::PeekUI8, 0xFF));
  EXPECT_TRUE(peeks<uint16_t>(file, &File::PeekUI16, 0x02FF, false));
  EXPECT_TRUE(peeks<uint32_t>(file, &File::PeekUI24, 0x0302FF, false));
  EXPECT_TRUE(peeks<uint32_t>(file, &File::PeekUI32, 0x040302FF, false));
  EXPECT_TRUE(peeks<uint64_t>(file, &File::PeekUI64, 0x08070605040302FF, false));
  uint8_t bytes[8] = {};
  EXPECT_TRUE(file.PeekBuffer(bytes, 8) && bytes[7] == 8 && file.Cursor() == 0);
  EXPECT_TRUE(file.SeekTo(7));
  EXPECT_FALSE(file.PeekBuffer(bytes, 2));
  EXPECT_TRUE(logged(kWarning, "Unable to read 2 bytes. EOF"));
  EXPECT_TRUE(file.Cursor() == 8 && file.IsOpen());  // the end of the data is no error
}

TEST(File, PositionsAndTimesHave64Bits) {
  FileWith file("", FILE_OPEN_READ_WRITE);
  for (const uint64_t size : {2 * kGiB - 2, 4 * kGiB - 2, 9 * kGiB}) {
    fs::resize_file(kPath, size);
    EXPECT_EQ(file.Size(), size);
    EXPECT_TRUE(file.SeekTo(size) && file.WriteUI32(0xA1B2C3D4, true));
    EXPECT_EQ(file.Cursor(), size + 4);
    EXPECT_TRUE(file.SeekBehind(static_cast<int64_t>(size) + 4));
    EXPECT_TRUE(file.SeekAhead(static_cast<int64_t>(size)));
    uint32_t value = 0;
    EXPECT_TRUE(file.PeekUI32(&value, true) && value == 0xA1B2C3D4) << size;
    EXPECT_FALSE(file.IsEOF());
  }
  const timespec times[] = {{-2, 999'999'999}, {1'000'000'000, 1'999'999}};  // access, modification
  ASSERT_EQ(utimensat(AT_FDCWD, kPath, times, 0), 0);
  EXPECT_EQ(file.AccessMs(), -1001);
  EXPECT_EQ(file.ModificationMs(), 1'000'000'000'001);
  struct stat status {};
  ASSERT_EQ(stat(kPath, &status), 0);
  EXPECT_EQ(file.CreationMs(), status.st_ctim.tv_sec * 1000LL + status.st_ctim.tv_nsec / 1'000'000);
}

// ---- whole files ----

TEST(File, ReadsAllOfAFile) {
  const std::string binary("a\0\xFF\n", 4);
  FileWith file(binary);
  std::string text = "old";
  EXPECT_TRUE(file.SeekTo(3));
  EXPECT_TRUE(file.ReadStringAll(text));
  EXPECT_EQ(text, binary);
  text = kPath;
  EXPECT_TRUE(File::ReadStringAll(text, text));
  EXPECT_EQ(text, binary);
  EXPECT_TRUE(File().ReadStringAll(text));  // a size of 0, with a warning
  EXPECT_EQ(text, "");
  EXPECT_TRUE(logged(kWarning, "File not opened"));
  for (const uint64_t size : {4 * kGiB - 1, 5 * kGiB}) {
    fs::resize_file(kPath, size);
    EXPECT_FALSE(file.ReadStringAll(text));
    EXPECT_TRUE(
        logged(kError, "ReadAll can only be done on files smaller than 2^32 bytes (4GB)", 0));
  }
}

TEST(File, ReadsAllOfAFileThatChangesMeanwhile) {
  for (const uint64_t size : {20U, 4U}) {
    FileWith file("0123456789");
    file.setReadFunc([&](int fd, void* to, unsigned count) {
      fs::resize_file(kPath, size);
      return static_cast<int>(read(fd, to, count));
    });
    std::string text;
    EXPECT_EQ(file.ReadStringAll(text), size == 20);
    EXPECT_EQ(text, size == 20 ? "0123456789" : "");
  }
  EXPECT_TRUE(logged(kWarning, "Unable to read 10 bytes. EOF"));
  EXPECT_TRUE(logged(kError, "Unable to read data"));
}

TEST(File, AFullDiskIsReported) {
  const Mounted full("/tmp/full", "size=16k");
  File file;
  ASSERT_TRUE(file.Initialize("/tmp/full/file", FILE_OPEN_TRUNCATE, 0));
  EXPECT_TRUE(refused(file.WriteString(std::string(65536, 'x')),
                      "Unable to write 65536 bytes to file", ENOSPC));
  EXPECT_FALSE(file.IsOpen());
  EXPECT_FALSE(file.SeekTo(1));  // what was written before does not count
  EXPECT_TRUE(logged(kError, "End of file will be reached"));
  EXPECT_EQ(file.Size(), 16384U);
}

}  // namespace
}  // namespace vexo::utils
