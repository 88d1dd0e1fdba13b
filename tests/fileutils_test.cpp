#include "vexo_utils/fileutils.h"

#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "files.h"
#include "in_child.h"
#include "leftovers.h"
#include "log_recorder.h"
#include "process_state.h"
#include "vexo_utils/timer.h"
#include "wait.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using vexo::test::kError;
using vexo::test::kWarning;
using vexo::test::logged;
using vexo::test::readFile;
using vexo::test::writeFile;

using Strings = std::vector<std::string>;

constexpr char kHere[] = "/tmp/here";  // two file systems
constexpr char kThere[] = "/tmp/there";
const std::string kLongName(256, 'n');
const std::string kLongPath(4096, 'p');

// A file system of its own, as long as the scope.
class Mounted {
 public:
  explicit Mounted(std::string where, const char* options = "size=64m") : at(std::move(where)) {
    fs::create_directories(at);
    EXPECT_EQ(mount("tmpfs", at.c_str(), "tmpfs", 0, options), 0) << at;
  }
  ~Mounted() {
    EXPECT_EQ(umount(at.c_str()), 0) << at;  // nothing in it is left open
    fs::remove(at);
  }
  Mounted(const Mounted&) = delete;
  Mounted& operator=(const Mounted&) = delete;

  void makeReadOnly() const {
    EXPECT_EQ(mount(nullptr, at.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  }

 private:
  std::string at;
};

class Opened {
 public:
  Opened(const std::string& path, int flags) : fd(open(path.c_str(), flags | O_CLOEXEC, 0644)) {}
  ~Opened() { close(fd); }
  Opened(const Opened&) = delete;
  Opened& operator=(const Opened&) = delete;

  const int fd;
};

std::string pattern(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i % 251);
  return text;
}

unsigned modeOf(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

// Every test starts with an empty folder as its working directory.
class FileUtilsTest : public testing::Test {
 protected:
  void SetUp() override {
    origin = fs::current_path();
    fs::create_directory(kWork);
    fs::current_path(kWork);
    umask(022);
  }
  void TearDown() override {
    fs::current_path(origin);
    fs::remove_all(kWork);
  }

  static constexpr char kWork[] = "/tmp/work";
  fs::path origin;
};

// ---- paths as text ----

TEST_F(FileUtilsTest, PathsInParts) {
  struct {
    std::string path;
    std::string dir;
    std::string base;
    std::string safeDir;
    std::string safeBase;
    std::string normal;
  } const rows[] = {
      {"/a/b", "/a", "b", "/a", "b", "/a/b"},
      {"/a/b/", "/a", "", "/a", "b", "/a/b"},
      {"/a/b//", "/a/b", "", "/a", "b", "/a/b"},
      {"/file", "/", "file", "/", "file", "/file"},
      {"file", ".", "file", ".", "file", "/tmp/work/file"},
      {"a/", ".", "", ".", "a", "/tmp/work/a"},
      {"/", "/", "", "/", "/", "/"},
      {"", ".", "", ".", ".", ""},
      {"..", ".", "..", ".", "..", "/tmp"},
      {"a//b", "a/", "b", "a", "b", "/tmp/work/a/b"},
      {"/a/./b/..//c/.", "/a/./b/..//c", ".", "/a/./b/..//c", ".", "/a/c"},
      {"../../../../x", "../../../..", "x", "../../../..", "x", "/x"},
      {"/..a/...", "/..a", "...", "/..a", "...", "/..a/..."},
      {"/line\n/feed", "/line\n", "feed", "/line\n", "feed", "/line\n/feed"},
      {kLongPath, ".", kLongPath, ".", kLongPath, "/tmp/work/" + kLongPath},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(dirName(row.path), row.dir);
    EXPECT_EQ(baseName(row.path), row.base);
    EXPECT_EQ(dirname_safe(row.path), row.safeDir);
    EXPECT_EQ(basename_safe(row.path), row.safeBase);
    EXPECT_EQ(normalizePath(row.path), row.normal);
  }
}

TEST_F(FileUtilsTest, PathsThatAreResolved) {
  fs::create_directories("far/deep");
  fs::create_directory_symlink("far/deep", "link");
  EXPECT_EQ(resolvePath("link/.."), "/tmp/work/far");
  EXPECT_EQ(normalizePath("link/.."), "/tmp/work");
  for (const std::string& path : {std::string(), std::string("missing"), kLongName}) {
    EXPECT_EQ(resolvePath(path), "");
    const int error = path == kLongName ? ENAMETOOLONG : ENOENT;
    EXPECT_TRUE(logged(kError, "Failed to resolve '" + path + "'", error));
  }
  fs::remove_all(kWork);
  EXPECT_EQ(normalizePath("a"), "");
  EXPECT_TRUE(logged(kError, "Failed to getcwd()", ENOENT));
}

// ---- looking at files ----

TEST_F(FileUtilsTest, Kinds) {
  fs::create_directory("sub");
  writeFile("sub/file", "");
  fs::create_symlink("file", "sub/link");
  fs::create_symlink("missing", "sub/dangling");
  const Opened sub("sub", O_RDONLY | O_DIRECTORY);
  struct {
    std::string path;
    bool dir, file, exists, entry;
  } const rows[] = {
      {".", true, false, true, true},          {"file", false, true, true, true},
      {"link", false, true, true, true},       {"dangling", false, false, false, true},
      {"", false, false, false, false},        {"file/", false, false, false, false},
      {"/dev/null", false, false, true, true}, {kLongPath, false, false, false, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(isDir(row.path, sub.fd), row.dir);
    EXPECT_EQ(isFile(row.path, sub.fd), row.file);
    EXPECT_EQ(fileExists(row.path.c_str(), true, sub.fd), row.exists);
    EXPECT_EQ(fileExists(row.path.c_str(), false, sub.fd), row.entry);
  }
  EXPECT_FALSE(fileExists(nullptr, true, AT_FDCWD));
  EXPECT_FALSE(fileExists("file", true, -1));

  const Mounted readOnly(kThere);
  EXPECT_TRUE(isDirRW(kThere));
  readOnly.makeReadOnly();
  for (const char* path : {kThere, "sub/file", "missing", ""}) EXPECT_FALSE(isDirRW(path));
}

TEST_F(FileUtilsTest, SizesAndTimes) {
  writeFile("file", "");
  ASSERT_EQ(truncate("file", (6LL << 30) + 1), 0);
  const timespec times[2] = {{0, UTIME_OMIT}, {1'700'000'000, 123'456'789}};
  utimensat(AT_FDCWD, "file", times, 0);
  uint64_t value = 0;
  EXPECT_TRUE(fileSize("file", value, AT_FDCWD));
  EXPECT_EQ(value, (6ULL << 30) + 1);
  EXPECT_TRUE(lastModTime("file", value, AT_FDCWD));
  EXPECT_EQ(value, 1'700'000'000'123'456'789ULL);

  value = 7;
  struct stat st {};
  st.st_size = 7;
  EXPECT_FALSE(fileStat("missing", st, AT_FDCWD));
  EXPECT_FALSE(fileSize("missing", value, AT_FDCWD));
  EXPECT_FALSE(lastModTime("missing", value, AT_FDCWD));
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(logged(kError, "Failed to get stat of 'missing'", ENOENT));
  }
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(logged(kError, "Failed"));
  EXPECT_EQ(value, 7U);
  EXPECT_EQ(st.st_size, 7);
}

// ---- reading ----

TEST_F(FileUtilsTest, WholeFilesAndLines) {
  const std::string longLine(10'000, 'x');
  struct {
    std::string text;
    Strings lines;
  } const rows[] = {
      {"", {}},
      {"\n", {""}},
      {"a\nb", {"a", "b"}},
      {"a\r\n\n" + std::string("\0z", 2) + "\n", {"a\r", "", std::string("\0z", 2)}},
      {longLine + "\n" + longLine, {longLine, longLine}},
      {std::string(4095, 'x') + "\ny\n", {std::string(4095, 'x'), "y"}},
      {std::string(4096, 'x') + "\ny", {std::string(4096, 'x'), "y"}},
  };
  for (const auto& row : rows) {
    writeFile("file", row.text);
    EXPECT_EQ(readFromFile("file", AT_FDCWD), row.text);
    Strings lines;
    const auto keep = [&](const std::string& line) {
      lines.push_back(line);
      return true;
    };
    EXPECT_TRUE(forEachLine("file", keep, AT_FDCWD));
    EXPECT_EQ(lines, row.lines);
    lines.clear();
    EXPECT_TRUE(forEachLine(
        "file", [&](const std::string& l) { return !keep(l); }, AT_FDCWD));
    EXPECT_EQ(lines.size(), row.lines.empty() ? 0U : 1U);
  }
  EXPECT_THAT(readFromFile("/proc/self/comm", AT_FDCWD),
              testing::Optional(std::string("fileutils_test\n")));

  const auto ignore = [](const std::string&) { return true; };
  EXPECT_FALSE(forEachLine("file", nullptr, AT_FDCWD));
  EXPECT_TRUE(logged(kError, "Unable to read 'file'", EINVAL));
  for (const std::string path : {"missing", "/tmp"}) {
    EXPECT_EQ(readFromFile(path, AT_FDCWD), std::nullopt);
    EXPECT_FALSE(forEachLine(path, ignore, AT_FDCWD));
    for (int i = 0; i < 2; ++i) {
      EXPECT_TRUE(path == "/tmp" ? logged(kError, "Unable to read '/tmp'", EISDIR)
                                 : logged(kError, "Unable to open 'missing'", ENOENT));
    }
  }
}

TEST_F(FileUtilsTest, Folders) {
  for (const char* name : {"b", "a", ".hidden", "*", "line\nfeed"}) writeFile(name, "");
  Strings names{"before"};
  EXPECT_TRUE(listFolder(".", names, AT_FDCWD));
  EXPECT_THAT(names, ElementsAre("*", ".hidden", "a", "b", "line\nfeed"));
  glob("?", names);
  EXPECT_THAT(names, ElementsAre("*", "a", "b"));
  glob("~root", names);
  EXPECT_THAT(names, ElementsAre(getpwnam("root")->pw_dir));
  for (const char* none : {"x*", "", static_cast<const char*>(nullptr)}) {
    names = {"before"};
    glob(none, names);
    EXPECT_THAT(names, IsEmpty());
  }

  names = {"before"};
  EXPECT_FALSE(listFolder("a", names, AT_FDCWD));
  EXPECT_TRUE(logged(kError, "Failed to openat 'a'", ENOTDIR));
  EXPECT_THAT(names, ElementsAre("before"));
  EXPECT_EQ(opendirat(AT_FDCWD, nullptr, 0), nullptr);
  EXPECT_TRUE(logged(kError, "Failed to openat '(null)'", EFAULT));
  const int next = Opened("a", O_RDONLY).fd;
  EXPECT_EQ(opendirat(AT_FDCWD, "a", O_RDONLY), nullptr);
  EXPECT_TRUE(logged(kError, "Failed to fdopendir " + std::to_string(next), ENOTDIR));
  DIR* folder = opendirat(AT_FDCWD, ".", 0);
  ASSERT_NE(folder, nullptr);
  EXPECT_EQ(fcntl(dirfd(folder), F_GETFD), FD_CLOEXEC);
  closedir(folder);
}

// ---- durable changes, creating ----

TEST_F(FileUtilsTest, Syncing) {
  fs::create_directory("sub");
  writeFile("sub/file", "x");
  const Opened sub("sub", O_RDONLY | O_DIRECTORY);
  EXPECT_TRUE(syncDir("sub", AT_FDCWD));
  EXPECT_TRUE(syncDir(".", sub.fd));
  EXPECT_FALSE(syncDir("file", sub.fd));
  EXPECT_FALSE(syncDir(nullptr, sub.fd));
  for (const bool parent : {false, true}) {
    EXPECT_TRUE(syncFile("file", parent, sub.fd));
    EXPECT_TRUE(syncFile("/tmp/work/sub/file", parent, -1));
    for (const char* path : {"missing", "", static_cast<const char*>(nullptr)}) {
      EXPECT_FALSE(syncFile(path, parent, sub.fd));
    }
  }
  EXPECT_TRUE(syncFile("/proc/self/comm", false, AT_FDCWD) == false);  // cannot be synced
}

TEST_F(FileUtilsTest, Touching) {
  umask(027);
  EXPECT_FALSE(touchFile("new", false, AT_FDCWD));
  EXPECT_TRUE(logged(kWarning, "Couldn't open() path: new", ENOENT));
  EXPECT_FALSE(fs::exists("new"));
  EXPECT_TRUE(touchFile("new", true, AT_FDCWD));
  EXPECT_EQ(modeOf("new"), 0640U);

  const timespec old[2] = {{1, 0}, {1, 0}};
  utimensat(AT_FDCWD, "new", old, 0);
  EXPECT_TRUE(touchFile("new", false, AT_FDCWD));
  uint64_t time = 0;
  EXPECT_TRUE(lastModTime("new", time, AT_FDCWD));
  EXPECT_GT(time, 2'000'000'000U);

  for (const auto& [path, error] : {std::pair{"/tmp/work", EISDIR}, {"no/file", ENOENT}}) {
    EXPECT_FALSE(touchFile(path, true, AT_FDCWD));
    EXPECT_TRUE(logged(kError, std::string("Couldn't open() path: ") + path, error));
  }
  EXPECT_FALSE(touchFile("new/file", true, AT_FDCWD));
  EXPECT_TRUE(logged(kWarning, "Couldn't open() path: new/file", ENOTDIR));
}

TEST_F(FileUtilsTest, MakingFolders) {
  const Opened work(kWork, O_RDONLY | O_DIRECTORY);
  EXPECT_TRUE(mkdirP("/tmp/work/a//b/", false, 0750, -1));
  EXPECT_EQ(modeOf("a"), 0750U);
  EXPECT_EQ(modeOf("a/b"), 0750U);
  EXPECT_TRUE(mkdirP("a/b/../c", true, 0700, work.fd));
  EXPECT_TRUE(fs::is_directory("a/c"));
  EXPECT_EQ(modeOf("a"), 0750U);  // stays as it is
  fs::create_directory_symlink("a", "link");
  for (const char* there : {"/", "//", ".", "link/d"})
    EXPECT_TRUE(mkdirP(there, true, 0, AT_FDCWD));

  writeFile("file", "");
  fs::create_symlink("missing", "dangling");
  for (const std::string& path :
       {std::string(), std::string("file"), std::string("file/a"), std::string("dangling"),
        std::string("dangling/a"), "new/" + std::string(256, 'n'), "/" + kLongPath}) {
    EXPECT_FALSE(mkdirP(path, false, 0755, AT_FDCWD)) << path;
  }
  EXPECT_TRUE(fs::is_directory("new"));
  const Mounted readOnly(kThere);
  readOnly.makeReadOnly();
  EXPECT_FALSE(mkdirP("/tmp/there/a", false, 0755, AT_FDCWD));
  {
    const vexo::test::DescriptorLimit none(0);
    EXPECT_TRUE(mkdirP("unsynced", false, 0755, AT_FDCWD));
    EXPECT_FALSE(mkdirP("synced", true, 0755, AT_FDCWD));
  }
}

TEST_F(FileUtilsTest, TemporaryFiles) {
  NamedFStream stream;
  for (int i = 0; i < 2; ++i) {  // the second time it has a file open
    ASSERT_TRUE(openTmpFStream("/tmp/work/t.XXXXXX", stream));
    ASSERT_TRUE(stream.good());
    stream << "text " << i << std::flush;
    EXPECT_EQ(readFile(stream.name), "text " + std::to_string(i));
    EXPECT_EQ(modeOf(stream.name), 0600U);
  }
  Strings names;
  glob("t.??????", names);
  EXPECT_EQ(names.size(), 2U);
  const std::string kept = stream.name;
  for (const auto& [bad, error] : {std::pair{"t.XXXXX", EINVAL}, {"no/t.XXXXXX", ENOENT}}) {
    EXPECT_FALSE(openTmpFStream(bad, stream));
    EXPECT_TRUE(logged(kError, "error: failed to create temporary file", error));
  }
  EXPECT_EQ(stream.name, kept);
  EXPECT_TRUE(stream.is_open());
  stream.close();
  const vexo::test::DescriptorLimit one(1);  // none for the stream
  EXPECT_TRUE(openTmpFStream("t.XXXXXX", stream));
  EXPECT_TRUE(stream.fail());
}

// ---- copying ----

TEST_F(FileUtilsTest, CopiesContentOwnerAndMode) {
  for (const std::size_t size : {0U, 1U, 4096U, 10'000U, 300'000U}) {
    SCOPED_TRACE(size);
    writeFile("src", pattern(size));
    fs::permissions("src", fs::perms(06751));
    ASSERT_EQ(chown("src", 12, 34), 0);  // takes the set-ID bits away
    ASSERT_EQ(chmod("src", 06751), 0);
    writeFile("dst", std::string(500'000, 'o'));
    const Opened work(kWork, O_RDONLY | O_DIRECTORY);
    EXPECT_TRUE(copyFile("src", "dst", AT_FDCWD, work.fd));
    EXPECT_EQ(readFile("dst"), pattern(size));
    struct stat st {};
    ASSERT_EQ(stat("dst", &st), 0);
    EXPECT_EQ(st.st_mode & 07777U, 06751U);
    EXPECT_EQ(st.st_uid, 12U);
    EXPECT_EQ(st.st_gid, 34U);
  }
}

TEST_F(FileUtilsTest, CopiesDescriptorsAsIfFromTheBeginning) {
  writeFile("src", pattern(10'000));
  writeFile("dst", std::string(12'000, 'o'));
  const Opened src("src", O_RDONLY);
  const Opened dst("dst", O_WRONLY);
  lseek(src.fd, 5, SEEK_SET);
  lseek(dst.fd, 7, SEEK_SET);
  EXPECT_TRUE(copyFile(src.fd, dst.fd));
  EXPECT_EQ(readFile("dst"), pattern(10'000) + std::string(2000, 'o'));
  EXPECT_EQ(lseek(src.fd, 0, SEEK_CUR), 5);
  EXPECT_EQ(lseek(dst.fd, 0, SEEK_CUR), 7);

  EXPECT_FALSE(copyFile(-1, dst.fd));
  EXPECT_FALSE(copyFile(src.fd, -1));
  EXPECT_FALSE(copyFile(INT_MAX, dst.fd));
  EXPECT_TRUE(logged(kError, "Unable to fstat()", EBADF));
  EXPECT_FALSE(copyFile(dst.fd, dst.fd));  // not open to read
  EXPECT_TRUE(logged(kError, "Failed to splice() from src to pipe", EBADF));
  EXPECT_FALSE(copyFile(src.fd, src.fd));  // not open to write
  EXPECT_TRUE(logged(kError, "Failed to splice() from pipe to dst", EBADF));
  const Opened append("dst", O_WRONLY | O_APPEND);
  EXPECT_FALSE(copyFile(src.fd, append.fd));
  EXPECT_TRUE(logged(kError, "Failed to splice() from pipe to dst", EINVAL));
  const vexo::test::DescriptorLimit one(1);
  EXPECT_FALSE(copyFile(src.fd, dst.fd));
  EXPECT_TRUE(logged(kError, "Failed to pipe()", EMFILE));
}

TEST_F(FileUtilsTest, CopyOfWhatEndsEarlyFails) {
  const char* shorter = "/sys/devices/system/cpu/possible";  // says that it has 4096 bytes
  struct stat st {};
  if (stat(shorter, &st) != 0 || st.st_size == 0) GTEST_SKIP() << "no such sysfs";
  EXPECT_FALSE(copyFile(shorter, "dst", AT_FDCWD, AT_FDCWD));
  EXPECT_TRUE(logged(kError, "Failed to splice() from src to pipe", 0));
  EXPECT_EQ(readFile("dst"), readFile(shorter));
}

TEST_F(FileUtilsTest, CopyThatIsRefusedLosesNothing) {
  writeFile("src", "source");
  writeFile("dst", "before");
  fs::create_hard_link("src", "twin");
  fs::create_symlink("src", "link");
  fs::create_directory("sub");
  ASSERT_EQ(mkfifo("fifo", 0600), 0);
  struct {
    std::string src;
    std::string dst;
    std::string message;
    int error;
  } const rows[] = {
      {"missing", "dst", "Unable to access 'missing'", ENOENT},
      {"", "dst", "Unable to access ''", ENOENT},
      {kLongName, "dst", "Unable to access '" + kLongName + "'", ENAMETOOLONG},
      {"sub", "dst", "Unable to open 'sub'", EISDIR},
      {"fifo", "dst", "Unable to open 'fifo'", EINVAL},
      {"src", "sub", "Unable to open 'sub'", EISDIR},
      {"src", "", "Unable to open ''", ENOENT},
      {"src", "no/dst", "Unable to open 'no/dst'", ENOENT},
      {"src", kLongName, "Unable to open '" + kLongName + "'", ENAMETOOLONG},
      {"src", "src", "Unable to open 'src'", EINVAL},
      {"src", "sub/../src", "Unable to open 'sub/../src'", EINVAL},
      {"src", "twin", "Unable to open 'twin'", EINVAL},
      {"src", "link", "Unable to open 'link'", EINVAL},
      {"link", "src", "Unable to open 'src'", EINVAL},
  };
  for (const auto& row : rows) {
    EXPECT_FALSE(copyFile(row.src.c_str(), row.dst.c_str(), AT_FDCWD, AT_FDCWD));
    EXPECT_TRUE(logged(kError, row.message, row.error));
  }
  EXPECT_FALSE(copyFile(nullptr, "dst", AT_FDCWD, AT_FDCWD));
  EXPECT_FALSE(copyFile("src", nullptr, AT_FDCWD, AT_FDCWD));
  for (const int room : {0, 1}) {
    const vexo::test::DescriptorLimit limit(room);
    EXPECT_FALSE(copyFile("src", "dst", AT_FDCWD, AT_FDCWD));
    const char* which = room == 0 ? "Unable to open 'src'" : "Unable to open 'dst'";
    EXPECT_TRUE(logged(kError, which, EMFILE));
  }
  EXPECT_EQ(readFile("src"), "source");
  EXPECT_EQ(readFile("dst"), "before");
}

// Returns what was wrong. Not in the test's process, which stays root.
int copyAsNobody() {
  if (setgid(65534) != 0 || setuid(65534) != 0) return 0;
  umask(0);
  if (!copyFile("setid", "mine", AT_FDCWD, AT_FDCWD)) return 1;
  if (!logged(kWarning, "Failed to fchown", EPERM)) return 2;
  if (modeOf("mine") != 0755) return 3;
  if (!copyFile("setid", "foreign", AT_FDCWD, AT_FDCWD)) return 4;
  if (!logged(kWarning, "Failed to fchown", EPERM)) return 5;
  if (!logged(kWarning, "Failed to fchmod", EPERM)) return 6;
  return readFile("foreign") == "text" ? 0 : 7;
}

TEST_F(FileUtilsTest, CopyWithoutTheOwnerHasNoSetIdBits) {
  writeFile("setid", "text");
  ASSERT_EQ(chmod("setid", 06755), 0);
  writeFile("foreign", "");
  ASSERT_EQ(chmod("foreign", 0666), 0);
  ASSERT_EQ(chmod(".", 0777), 0);
  EXPECT_EQ(vexo::test::inChild(copyAsNobody), 0);
}

TEST_F(FileUtilsTest, CopiesTrees) {
  fs::create_directories("src/sub");
  writeFile("src/sub/file", "text");
  EXPECT_TRUE(cpR("src", "dst"));
  EXPECT_EQ(readFile("dst/sub/file"), "text");
  fs::rename("src", "-t");  // no option
  EXPECT_TRUE(cpR("-t", "-u"));
  EXPECT_EQ(readFile("-u/sub/file"), "text");
  writeFile("a b;c", "quoted");
  EXPECT_TRUE(cpR("a b;c", "-u"));
  EXPECT_EQ(readFile("-u/a b;c"), "quoted");
  // What cp says about it is not for the test's output.
  const int standardError = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  EXPECT_FALSE(cpR("missing", "dst"));
  dup2(standardError, STDERR_FILENO);
  close(standardError);
}

// ---- moving ----

class TwoFileSystemsTest : public FileUtilsTest {
 protected:
  const Mounted here{kHere};
  const Mounted there{kThere};
};

TEST_F(TwoFileSystemsTest, MovesWithinAndAcross) {
  writeFile("/tmp/here/file", pattern(100'000));
  ASSERT_EQ(chmod("/tmp/here/file", 0741), 0);
  struct stat first {};
  struct stat st {};
  stat("/tmp/here/file", &first);
  const Opened folder(kHere, O_RDONLY | O_DIRECTORY);
  EXPECT_TRUE(renameFile("file", "/tmp/here/moved", folder.fd, AT_FDCWD));
  stat("/tmp/here/moved", &st);
  EXPECT_EQ(st.st_ino, first.st_ino);  // no copy

  writeFile("/tmp/there/moved", std::string(200'000, 'o'));
  EXPECT_TRUE(renameFile("moved", "/tmp/there/moved", folder.fd, AT_FDCWD));
  EXPECT_FALSE(fs::exists("/tmp/here/moved"));
  EXPECT_EQ(readFile("/tmp/there/moved"), pattern(100'000));
  EXPECT_EQ(modeOf("/tmp/there/moved"), 0741U);

  fs::create_directory("/tmp/here/sub");
  EXPECT_TRUE(renameFile("/tmp/here/sub", "/tmp/here/dir", AT_FDCWD, AT_FDCWD));
  EXPECT_TRUE(fs::is_directory("/tmp/here/dir"));
}

TEST_F(TwoFileSystemsTest, MoveThatFailsKeepsTheSource) {
  const std::string text = pattern(100'000);
  writeFile("/tmp/here/file", text);
  fs::create_directory("/tmp/here/sub");
  const auto expectFailure = [&](const char* from, const char* to, const std::string& cause,
                                 int error) {
    SCOPED_TRACE(cause);
    EXPECT_FALSE(renameFile(from, to, AT_FDCWD, AT_FDCWD));
    EXPECT_TRUE(logged(kError, cause, error));
    const std::string names = std::string("'") + from + "' -> '" + to + "'";
    EXPECT_TRUE(logged(kError, "Could not copy file (fallback to rename) " + names));
    EXPECT_EQ(readFile("/tmp/here/file"), text);
  };
  {
    const Mounted full("/tmp/full", "size=32k");
    expectFailure("/tmp/here/file", "/tmp/full/file", "Failed to splice() from pipe to dst",
                  ENOSPC);
  }
  expectFailure("/tmp/here/sub", "/tmp/there/sub", "Unable to open '/tmp/here/sub'", EISDIR);
  expectFailure("/tmp/here/file", "/tmp/there", "Unable to open '/tmp/there'", EISDIR);
  {
    const vexo::test::DescriptorLimit three(3);  // both files and half a pipe
    expectFailure("/tmp/here/file", "/tmp/there/file", "Failed to pipe()", EMFILE);
  }
  // Another way to the same file: the kernel does not rename across, though it is one file system.
  fs::create_directory("/tmp/again");
  ASSERT_EQ(mount(kHere, "/tmp/again", nullptr, MS_BIND, nullptr), 0);
  expectFailure("/tmp/here/file", "/tmp/again/file", "Unable to open '/tmp/again/file'", EINVAL);
  umount("/tmp/again");
  fs::remove("/tmp/again");

  for (const auto& [from, to, error] :
       {std::tuple<const char*, const char*, int>{"/tmp/here/missing", "/tmp/here/x", ENOENT},
        {"/tmp/here/file", "/tmp/here/no/x", ENOENT},
        {"/tmp/here/file", "/tmp/here/sub", EISDIR},
        {"", "", ENOENT},
        {"/tmp/here/file", nullptr, EFAULT},
        {nullptr, "x", EFAULT}}) {
    EXPECT_FALSE(renameFile(from, to, AT_FDCWD, AT_FDCWD));
    const auto shown = [](const char* path) {
      return std::string(path != nullptr ? path : "(null)");
    };
    const std::string names = "'" + shown(from) + "' -> '" + shown(to) + "'";
    EXPECT_TRUE(logged(kError, "Could not rename file " + names, error));
  }
  EXPECT_EQ(readFile("/tmp/here/file"), text);

  there.makeReadOnly();
  EXPECT_FALSE(renameFile("/tmp/here/file", "/tmp/there/file", AT_FDCWD, AT_FDCWD));
  vexo::test::forgetLog();  // the kernel may name either reason
  EXPECT_EQ(readFile("/tmp/here/file"), text);
}

TEST_F(TwoFileSystemsTest, MoveOfWhatCannotBeRemoved) {
  writeFile("/tmp/here/file", "text");
  // A mount of its own: it can be copied, not removed.
  ASSERT_EQ(mount("/tmp/here/file", "/tmp/here/file", nullptr, MS_BIND, nullptr), 0);
  EXPECT_FALSE(renameFile("/tmp/here/file", "/tmp/there/file", AT_FDCWD, AT_FDCWD));
  EXPECT_TRUE(
      logged(kError, "Could not delete src file (fallback to rename) '/tmp/here/file'", EBUSY));
  EXPECT_EQ(readFile("/tmp/here/file"), "text");
  EXPECT_EQ(readFile("/tmp/there/file"), "text");
  umount("/tmp/here/file");
}

// ---- removing ----

TEST_F(FileUtilsTest, RemovesTreesAndNothingElse) {
  fs::create_directories("outside/sub");
  writeFile("outside/sub/file", "kept");
  fs::create_directories("tree/sub/.hidden/..more");
  for (int i = 0; i < 10'000; ++i) writeFile("tree/sub/" + std::to_string(i), "");
  writeFile("tree/line\nfeed", "");
  fs::create_directory_symlink("/tmp/work/outside", "tree/sub/link");
  fs::create_directory_symlink("../outside/sub", "tree/link");
  fs::create_symlink("/missing", "tree/dangling");
  ASSERT_EQ(mkfifo("tree/fifo", 0600), 0);
  fs::create_directory_symlink("outside", "link");
  fs::create_directory_symlink("outside", "slashed");
  const Opened work(kWork, O_RDONLY | O_DIRECTORY);
  EXPECT_TRUE(rmRf("tree/", work.fd));
  EXPECT_TRUE(rmRf("link", AT_FDCWD));
  EXPECT_TRUE(rmRf("slashed//", AT_FDCWD));  // also a link
  Strings names;
  EXPECT_TRUE(listFolder(".", names, AT_FDCWD));
  EXPECT_THAT(names, ElementsAre("outside"));
  EXPECT_EQ(readFile("outside/sub/file"), "kept");
  for (const std::string& path :
       {std::string(), std::string("missing"), kLongPath, std::string("outside/sub/file/")}) {
    EXPECT_FALSE(rmRf(path, AT_FDCWD));
  }
  EXPECT_EQ(readFile("outside/sub/file"), "kept");
}

TEST_F(FileUtilsTest, RemovesTheRestOfWhatItMustLeave) {
  fs::create_directories("tree/a/busy");
  fs::create_directories("tree/b/c");
  for (const char* file : {"tree/a/1", "tree/a/2", "tree/b/c/3"}) writeFile(file, "");
  {
    const Mounted busy("/tmp/work/tree/a/busy");
    writeFile("tree/a/busy/inside", "");
    EXPECT_FALSE(rmRf("tree", AT_FDCWD));
    Strings names;
    glob("tree/*", names);
    EXPECT_THAT(names, ElementsAre("tree/a"));
    glob("tree/a/*", names);
    EXPECT_THAT(names, ElementsAre("tree/a/busy"));
  }
  EXPECT_TRUE(rmRf("tree", AT_FDCWD));
}

// `depth` folders, one in the other, with a file in the last.
void makeDeepTree(int depth) {
  int at = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (int i = 0; i < depth; ++i) {
    mkdirat(at, "d", 0755);
    const int below = openat(at, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(std::exchange(at, below));
  }
  close(openat(at, "file", O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
  close(at);
}

TEST_F(FileUtilsTest, RemovesDeepTrees) {
  makeDeepTree(5000);  // a longer path than any call takes
  {
    const vexo::test::DescriptorLimit some(100);
    EXPECT_FALSE(rmRf("d", AT_FDCWD));
    EXPECT_TRUE(logged(kError, "Failed to openat 'd'", EMFILE));
  }
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit before = limit;
  limit.rlim_cur = limit.rlim_max = std::max<rlim_t>(limit.rlim_max, 6000);
  if (setrlimit(RLIMIT_NOFILE, &limit) == 0) {
    EXPECT_TRUE(rmRf("d", AT_FDCWD));
    setrlimit(RLIMIT_NOFILE, &before);
  }
}

TEST_F(FileUtilsTest, IsNotLedOutsideByASwappedLink) {
  fs::create_directory("outside");
  writeFile("outside/file", "kept");
  std::atomic<bool> stop = false;
  std::thread swapper([&] {
    while (!stop) {
      syscall(SYS_renameat2, AT_FDCWD, "tree/sub", AT_FDCWD, "link", 2 /* RENAME_EXCHANGE */);
    }
  });
  for (int i = 0; i < 300; ++i) {
    fs::create_directories("tree");
    mkdir("tree/sub", 0755);
    writeFile("tree/sub/file", "");
    [[maybe_unused]] const int made = symlink("outside", "link");
    rmRf("tree", AT_FDCWD);
  }
  stop = true;
  swapper.join();
  EXPECT_EQ(readFile("outside/file"), "kept");
  vexo::test::forgetLog();  // folders that were links when they were opened
}

// ---- waiting ----

TEST_F(FileUtilsTest, WaitsUntilAllExist) {
  writeFile("here", "");
  EXPECT_TRUE(waitForFiles({}, 0));
  EXPECT_TRUE(waitForFiles({"here", "/tmp/work/here"}, 0));
  EXPECT_FALSE(waitForFiles({"here", "missing"}, 0));
  EXPECT_FALSE(waitForFiles({"missing/deep/below"}, 20));
  EXPECT_FALSE(waitForFiles({"here", ""}, UINT_MAX));

  struct {
    Strings paths;
    std::function<void()> make;
  } const rows[] = {
      {{"a"}, [] { writeFile("a", ""); }},
      {{"/tmp/work/b/c/d", "e/"},
       [] {
         fs::create_directory("e");
         fs::create_directories("b/c");
         fs::remove_all("b");
         fs::create_directories("b/c");
         writeFile("b/c/d", "");
       }},
      {{"moved/in"},
       [] {
         fs::create_directory("elsewhere");
         writeFile("elsewhere/in", "");
         fs::rename("elsewhere", "moved");
       }},
      {{"dangling"},  // nothing happens in its folder: the slow poll finds it
       [] {
         fs::create_directory("other");
         fs::create_symlink("other/target", "dangling");
         writeFile("other/target", "");
       }},
  };
  for (const auto& row : rows) {
    std::thread maker([&] {
      const auto waits = [] {
        for (const auto& [fd, target] : vexo::test::openDescriptors()) {
          if (target == "anon_inode:inotify") return true;
        }
        return false;
      };
      EXPECT_TRUE(vexo::test::eventually(waits));
      row.make();
    });
    EXPECT_TRUE(waitForFiles(row.paths, UINT_MAX));
    maker.join();
  }

  const vexo::test::DescriptorLimit none(0);  // and so no inotify
  signal(SIGALRM, [](int) { mkdir("slow", 0755); });
  const itimerval soon{{}, {0, 20'000}};
  setitimer(ITIMER_REAL, &soon, nullptr);
  EXPECT_TRUE(waitForFiles({"slow"}, UINT_MAX));
  signal(SIGALRM, SIG_DFL);
}

}  // namespace
