#include "vexo_utils/fileutils.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include "files.h"
#include "in_child.h"
#include "internal/files.h"
#include "leftovers.h"
#include "log_recorder.h"
#include "mounted.h"
#include "process_state.h"
#include "wait.h"

namespace {

namespace fs = std::filesystem;
using namespace vexo::test;
using testing::ElementsAre;
using vexo::utils::internal::openAt;
using vexo::utils::internal::UniqueFd;
using Strings = std::vector<std::string>;

const std::string kLongName(256, 'n');
const std::string kLongPath(4096, 'p');

UniqueFd opened(const std::string& path, int flags = O_RDONLY) {
  return openAt(AT_FDCWD, path.c_str(), flags);
}

std::string pattern(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i % 251);
  return text;
}

struct stat statusOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
  return st;
}

unsigned modeOf(const std::string& path) {
  return statusOf(path).st_mode & 07777;
}

Strings list(const std::string& folder) {
  Strings names;
  EXPECT_TRUE(listFolder(folder, names, AT_FDCWD));
  return names;
}

// Every test starts with an empty folder as its working directory.
class FileUtils : public testing::Test {
 protected:
  void SetUp() override {
    origin = fs::current_path();
    fs::create_directory("/tmp/desk");
    fs::current_path("/tmp/desk");
    umask(022);
  }
  void TearDown() override {
    fs::current_path(origin);
    fs::remove_all("/tmp/desk");
  }

  fs::path origin;
};

TEST_F(FileUtils, PathsAsText) {
  struct {
    std::string path, dir, base, safeDir, safeBase, normal;
  } const rows[] = {
      {"/a/b", "/a", "b", "/a", "b", "/a/b"},
      {"/a/b/", "/a", "", "/a", "b", "/a/b"},
      {"/a/b//", "/a/b", "", "/a", "b", "/a/b"},
      {"/file", "/", "file", "/", "file", "/file"},
      {"file", ".", "file", ".", "file", "/tmp/desk/file"},
      {"/", "/", "", "/", "/", "/"},
      {"", ".", "", ".", ".", ""},
      {"a//b", "a/", "b", "a", "b", "/tmp/desk/a/b"},
      {"/a/./b/..//c/.", "/a/./b/..//c", ".", "/a/./b/..//c", ".", "/a/c"},
      {"../../../x", "../../..", "x", "../../..", "x", "/x"},
      {"/..a/...", "/..a", "...", "/..a", "...", "/..a/..."},
  };
  for (const auto& row : rows) {
    EXPECT_THAT((Strings{dirName(row.path), baseName(row.path), dirname_safe(row.path),
                         basename_safe(row.path), normalizePath(row.path)}),
                ElementsAre(row.dir, row.base, row.safeDir, row.safeBase, row.normal))
        << row.path;
  }
  fs::create_directories("far/deep");
  fs::create_directory_symlink("far/deep", "link");
  EXPECT_EQ(resolvePath("link/.."), "/tmp/desk/far");
  EXPECT_EQ(resolvePath("missing"), "");
  EXPECT_TRUE(logged(kError, "Failed to resolve 'missing'", ENOENT));
  fs::remove_all("/tmp/desk");
  EXPECT_EQ(normalizePath("a"), "");
  EXPECT_TRUE(logged(kError, "Failed to getcwd()", ENOENT));
}

TEST_F(FileUtils, KindsSizesAndTimes) {
  fs::create_directory("sub");
  writeFile("sub/file", "");
  fs::create_symlink("file", "sub/link");
  fs::create_symlink("missing", "sub/dangling");
  const UniqueFd sub = opened("sub");
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
    const char* path = row.path.c_str();
    EXPECT_TRUE(isDir(path, sub.get()) == row.dir && isFile(path, sub.get()) == row.file &&
                fileExists(path, true, sub.get()) == row.exists &&
                fileExists(path, false, sub.get()) == row.entry)
        << path;
  }
  EXPECT_FALSE(fileExists(nullptr, true, AT_FDCWD));
  const Mounted readOnly("/tmp/there");
  EXPECT_TRUE(isDirRW("/tmp/there"));
  readOnly.makeReadOnly();
  for (const char* path : {"/tmp/there", "sub/file", ""}) EXPECT_FALSE(isDirRW(path));

  fs::resize_file("sub/file", (6ULL << 30) + 1);
  const timespec times[2] = {{0, UTIME_OMIT}, {1'700'000'000, 123'456'789}};
  utimensat(sub.get(), "file", times, 0);
  uint64_t value = 0;
  EXPECT_TRUE(fileSize("file", value, sub.get()));
  EXPECT_EQ(value, (6ULL << 30) + 1);
  EXPECT_TRUE(lastModTime("file", value, sub.get()));
  EXPECT_EQ(value, 1'700'000'000'123'456'789ULL);
  EXPECT_FALSE(fileSize("no", value, AT_FDCWD) || lastModTime("no", value, AT_FDCWD));
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(logged(kError, "Failed to get stat of 'no'", ENOENT) && logged(kError, "Failed"));
  }
  EXPECT_EQ(value, 1'700'000'000'123'456'789ULL);
}

TEST_F(FileUtils, WholeFilesAndLines) {
  const std::string longLine(10'000, 'x');
  const std::pair<std::string, Strings> rows[] = {
      {"", {}},
      {"\n", {""}},
      {"a\r\n\n" + std::string("\0z", 2) + "\n", {"a\r", "", std::string("\0z", 2)}},
      {longLine + "\n" + longLine, {longLine, longLine}},
      {longLine.substr(0, 4095) + "\ny\nnot asked for", {longLine.substr(0, 4095), "y"}},
      {longLine.substr(0, 4096) + "\ny", {longLine.substr(0, 4096), "y"}},
  };
  for (const auto& [text, expected] : rows) {
    writeFile("file", text);
    EXPECT_EQ(readFromFile("file", AT_FDCWD), text);
    Strings lines;
    const auto keep = [&](const std::string& line) {
      lines.push_back(line);
      return line != "y";
    };
    EXPECT_TRUE(forEachLine("file", keep, AT_FDCWD));
    EXPECT_EQ(lines, expected);
  }
  EXPECT_EQ(readFromFile("/proc/sys/kernel/ostype", AT_FDCWD), "Linux\n");
  EXPECT_TRUE(refused(forEachLine("file", nullptr, AT_FDCWD), "Unable to read 'file'", EINVAL));
  EXPECT_EQ(readFromFile("/tmp", AT_FDCWD), std::nullopt);
  EXPECT_FALSE(forEachLine(
      "/tmp", testing::MockFunction<bool(const std::string&)>().AsStdFunction(), AT_FDCWD));
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(logged(kError, "Unable to read '/tmp'", EISDIR));
  EXPECT_EQ(readFromFile("missing", AT_FDCWD), std::nullopt);
  EXPECT_TRUE(logged(kError, "Unable to open 'missing'", ENOENT));
}

TEST_F(FileUtils, Folders) {
  for (const char* name : {"b", "a", ".hidden", "*", "line\nfeed"}) writeFile(name, "");
  EXPECT_THAT(list("."), ElementsAre("*", ".hidden", "a", "b", "line\nfeed"));
  Strings names{"before"};
  EXPECT_TRUE(refused(listFolder("a", names, AT_FDCWD), "Failed to openat 'a'", ENOTDIR));
  EXPECT_THAT(names, ElementsAre("before"));
  glob("?", names);
  EXPECT_THAT(names, ElementsAre("*", "a", "b"));
  for (const char* none : {"x*", static_cast<const char*>(nullptr)}) {
    names = {"before"};
    glob(none, names);
    EXPECT_THAT(names, ElementsAre());
  }
}

TEST_F(FileUtils, TouchesAndMakes) {
  umask(027);
  EXPECT_FALSE(touchFile("file", false, AT_FDCWD));
  EXPECT_TRUE(logged(kWarning, "Couldn't open() path: file", ENOENT));
  EXPECT_TRUE(touchFile("file", true, AT_FDCWD));
  EXPECT_EQ(modeOf("file"), 0640U);
  const timespec old[2] = {{1, 0}, {1, 0}};
  utimensat(AT_FDCWD, "file", old, 0);
  EXPECT_TRUE(touchFile("file", false, AT_FDCWD) && syncFile("file", true, AT_FDCWD));
  EXPECT_GT(statusOf("file").st_mtim.tv_sec, 1);
  EXPECT_TRUE(
      refused(touchFile("no/file", true, AT_FDCWD), "Couldn't open() path: no/file", ENOENT));
  EXPECT_FALSE(syncDir("file", AT_FDCWD) || syncFile("no", true, AT_FDCWD));

  EXPECT_TRUE(mkdirP("/tmp/desk/a//b/", false, 0750, -1));
  EXPECT_EQ(modeOf("a/b"), 0750U);
  EXPECT_TRUE(mkdirP("a/b/../c", true, 0700, opened(".").get()));
  EXPECT_TRUE(fs::is_directory("a/c") && modeOf("a") == 0750);  // stays as it is
  fs::create_directory_symlink("a", "link");
  EXPECT_TRUE(mkdirP("/", true, 0, AT_FDCWD) && mkdirP("link/d", true, 0, AT_FDCWD));
  fs::create_symlink("missing", "dangling");
  for (const std::string& path : {std::string(), std::string("file"), std::string("file/a"),
                                  std::string("dangling"), "new/" + kLongName, "/" + kLongPath}) {
    EXPECT_FALSE(mkdirP(path, false, 0755, AT_FDCWD)) << path;
  }
}

TEST_F(FileUtils, TemporaryFiles) {
  NamedFStream stream;
  for (const char* text : {"one", "two"}) {  // the second time it has a file open
    ASSERT_TRUE(openTmpFStream("/tmp/desk/t.XXXXXX", stream) && stream.good());
    stream << text << std::flush;
    EXPECT_EQ(readFile(stream.name), text);
    EXPECT_EQ(modeOf(stream.name), 0600U);
  }
  EXPECT_EQ(list(".").size(), 2U);
  EXPECT_TRUE(refused(openTmpFStream("no/t.XXXXXX", stream),
                      "error: failed to create temporary file", ENOENT));
  EXPECT_TRUE(stream.is_open());
}

// ---- copying ----

TEST_F(FileUtils, CopiesContentOwnerAndMode) {
  for (const std::size_t size : {0U, 1U, 4096U, 300'000U}) {
    writeFile("src", pattern(size));
    ASSERT_TRUE(chown("src", 12, 34) == 0 && chmod("src", 06751) == 0);
    writeFile("dst", std::string(500'000, 'o'));
    EXPECT_TRUE(copyFile("src", "dst", AT_FDCWD, opened(".").get()));
    EXPECT_TRUE(readFile("dst") == pattern(size)) << size;
    EXPECT_EQ(modeOf("dst"), 06751U);
    EXPECT_TRUE(statusOf("dst").st_uid == 12 && statusOf("dst").st_gid == 34);
  }
  // Its set-user-ID bits are not for those who cannot give the owner.
  const auto modeOfCopy = [] {
    const bool isNobody = chmod(".", 0777) == 0 && setgid(65534) == 0 && setuid(65534) == 0;
    if (!isNobody) return 0;  // this user has no other to be
    if (!copyFile("src", "mine", AT_FDCWD, AT_FDCWD)) return 1;
    return logged(kWarning, "Failed to fchown", EPERM) && modeOf("mine") == 0755 ? 0 : 2;
  };
  chmod("src", 06755);
  EXPECT_EQ(inChild(modeOfCopy), 0);
}

TEST_F(FileUtils, CopiesDescriptorsAsIfFromTheBeginning) {
  writeFile("src", pattern(10'000));
  writeFile("dst", std::string(12'000, 'o'));
  const UniqueFd src = opened("src");
  const UniqueFd dst = opened("dst", O_WRONLY);
  lseek(src.get(), 5, SEEK_SET);
  lseek(dst.get(), 7, SEEK_SET);
  EXPECT_TRUE(copyFile(src.get(), dst.get()));
  EXPECT_EQ(readFile("dst"), pattern(10'000) + std::string(2000, 'o'));
  EXPECT_TRUE(lseek(src.get(), 0, SEEK_CUR) == 5 && lseek(dst.get(), 0, SEEK_CUR) == 7);

  EXPECT_FALSE(copyFile(-1, dst.get()) || copyFile(src.get(), -1));
  EXPECT_TRUE(refused(copyFile(INT_MAX, dst.get()), "Unable to fstat()", EBADF));
  EXPECT_FALSE(copyFile(dst.get(), dst.get()));  // not open to read
  EXPECT_TRUE(logged(kError, "Failed to splice() from src to pipe", EBADF));
  const UniqueFd append = opened("dst", O_WRONLY | O_APPEND);
  EXPECT_TRUE(
      refused(copyFile(src.get(), append.get()), "Failed to splice() from pipe to dst", EINVAL));
  const char* shorter = "/sys/devices/system/cpu/possible";  // says that it has 4096 bytes
  if (!fs::exists(shorter)) GTEST_SKIP() << "no sysfs";
  EXPECT_TRUE(refused(copyFile(shorter, "dst", AT_FDCWD, AT_FDCWD),
                      "Failed to splice() from src to pipe", 0));
}

TEST_F(FileUtils, CopyThatIsRefusedLosesNothing) {
  writeFile("src", "source");
  writeFile("dst", "before");
  fs::create_hard_link("src", "twin");
  fs::create_symlink("src", "link");
  fs::create_directory("sub");
  ASSERT_EQ(mkfifo("fifo", 0600), 0);
  struct {
    std::string src, dst, message;
    int error;
  } const rows[] = {
      {"missing", "dst", "access 'missing'", ENOENT},
      {kLongName, "dst", "access '" + kLongName + "'", ENAMETOOLONG},
      {"sub", "dst", "open 'sub'", EISDIR},
      {"fifo", "dst", "open 'fifo'", EINVAL},
      {"src", "sub", "open 'sub'", EISDIR},
      {"src", "", "open ''", ENOENT},
      {"src", "sub/../src", "open 'sub/../src'", EINVAL},
      {"src", "twin", "open 'twin'", EINVAL},
      {"link", "src", "open 'src'", EINVAL},
  };
  for (const auto& row : rows) {
    EXPECT_TRUE(refused(copyFile(row.src.c_str(), row.dst.c_str(), AT_FDCWD, AT_FDCWD),
                        "Unable to " + row.message, row.error));
  }
  EXPECT_FALSE(copyFile(nullptr, "dst", AT_FDCWD, AT_FDCWD));
  EXPECT_EQ(readFile("src") + " " + readFile("dst"), "source before");
}

TEST_F(FileUtils, CopiesTrees) {
  fs::create_directories("-t/sub");  // no option
  writeFile("-t/sub/a b;c", "text");
  EXPECT_TRUE(cpR("-t", "-u"));
  EXPECT_EQ(readFile("-u/sub/a b;c"), "text");
  // What cp says about it is not for the test's output.
  const UniqueFd standardError(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
  EXPECT_FALSE(cpR("missing", "dst"));
  dup2(standardError.get(), STDERR_FILENO);
}

// ---- moving ----

TEST_F(FileUtils, MovesWithinAndAcross) {
  const Mounted there("/tmp/there");
  writeFile("file", pattern(100'000));
  ASSERT_EQ(chmod("file", 0741), 0);
  const ino_t inode = statusOf("file").st_ino;
  EXPECT_TRUE(renameFile("file", "/tmp/desk/moved", opened(".").get(), AT_FDCWD));
  EXPECT_EQ(statusOf("moved").st_ino, inode);  // no copy
  writeFile("/tmp/there/moved", std::string(200'000, 'o'));
  EXPECT_TRUE(renameFile("moved", "/tmp/there/moved", opened(".").get(), AT_FDCWD));
  EXPECT_FALSE(fs::exists("moved"));
  EXPECT_EQ(readFile("/tmp/there/moved"), pattern(100'000));
  EXPECT_EQ(modeOf("/tmp/there/moved"), 0741U);
}

TEST_F(FileUtils, MoveThatFailsKeepsTheSource) {
  const std::string text = pattern(100'000);
  writeFile("file", text);
  fs::create_directory("sub");
  fs::create_directory("/tmp/again");
  const Mounted there("/tmp/there");
  const Mounted full("/tmp/full", "size=32k");
  const Mounted again = Mounted::over("/tmp/again", "/tmp/desk");  // of one file system, two mounts
  const auto expectFailure = [&](const std::string& from, const std::string& to,
                                 const std::string& cause, int error) {
    EXPECT_TRUE(refused(renameFile(from.c_str(), to.c_str(), AT_FDCWD, AT_FDCWD), cause, error));
    const std::string names = "'" + from + "' -> '" + to + "'";
    EXPECT_TRUE(logged(kError, "Could not copy file (fallback to rename) " + names));
    EXPECT_TRUE(readFile("file") == text);
  };
  expectFailure("file", "/tmp/full/file", "Failed to splice() from pipe to dst", ENOSPC);
  expectFailure("sub", "/tmp/there/sub", "Unable to open 'sub'", EISDIR);
  expectFailure("file", "/tmp/again/file", "Unable to open '/tmp/again/file'", EINVAL);
  for (const auto& [to, shown, error] : {std::tuple{"no/x", "no/x", ENOENT},
                                         {"sub", "sub", EISDIR},
                                         {static_cast<const char*>(nullptr), "(null)", EFAULT}}) {
    EXPECT_FALSE(renameFile("file", to, AT_FDCWD, AT_FDCWD));
    const std::string names = std::string("'file' -> '") + shown + "'";
    EXPECT_TRUE(logged(kError, "Could not rename file " + names, error));
  }
  {
    const Mounted busy = Mounted::over("file", "file");  // can be copied, not removed
    EXPECT_TRUE(refused(renameFile("file", "/tmp/there/file", AT_FDCWD, AT_FDCWD),
                        "Could not delete src file (fallback to rename) 'file'", EBUSY));
  }
  there.makeReadOnly();
  EXPECT_FALSE(renameFile("file", "/tmp/there/file", AT_FDCWD, AT_FDCWD));
  forgetLog();  // the kernel may name either reason
  EXPECT_TRUE(readFile("file") == text);
}

// ---- removing ----

TEST_F(FileUtils, RemovesTreesAndNothingElse) {
  fs::create_directories("outside/sub");
  writeFile("outside/sub/file", "kept");
  fs::create_directories("tree/sub/.hidden/..more");
  for (int i = 0; i < 10'000; ++i) writeFile("tree/sub/" + std::to_string(i), "");
  writeFile("tree/line\nfeed", "");
  fs::create_directory_symlink("/tmp/desk/outside", "tree/sub/link");
  fs::create_symlink("/missing", "tree/dangling");
  ASSERT_EQ(mkfifo("tree/fifo", 0600), 0);
  fs::create_directory_symlink("outside", "link");
  fs::create_directory_symlink("outside", "slashed");
  EXPECT_TRUE(rmRf("tree/", opened(".").get()));
  EXPECT_TRUE(rmRf("link", AT_FDCWD) && rmRf("slashed//", AT_FDCWD));
  EXPECT_THAT(list("."), ElementsAre("outside"));
  for (const std::string& path : {std::string(), kLongPath, std::string("outside/sub/file/")}) {
    EXPECT_FALSE(rmRf(path, AT_FDCWD));
  }
  EXPECT_EQ(readFile("outside/sub/file"), "kept");
}

TEST_F(FileUtils, RemovesTheRestOfWhatItMustLeave) {
  fs::create_directories("tree/b/c");
  fs::create_directories("tree/a/busy");
  for (const char* file : {"tree/a/1", "tree/a/2", "tree/b/c/3"}) writeFile(file, "");
  const Mounted busy("/tmp/desk/tree/a/busy");
  EXPECT_FALSE(rmRf("tree", AT_FDCWD));
  EXPECT_THAT(list("tree"), ElementsAre("a"));
  EXPECT_THAT(list("tree/a"), ElementsAre("busy"));
}

TEST_F(FileUtils, RemovesDeepTrees) {
  UniqueFd at = opened(".");
  for (int i = 0; i < 5000; ++i) {  // a longer path than any call takes
    mkdirat(at.get(), "d", 0755);
    at = openAt(at.get(), "d", O_RDONLY | O_DIRECTORY);
  }
  openAt(at.get(), "file", O_WRONLY | O_CREAT, 0644);
  {
    const DescriptorLimit some(100);
    EXPECT_TRUE(refused(rmRf("d", AT_FDCWD), "Failed to openat 'd'", EMFILE));
  }
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit enough{6000, std::max<rlim_t>(before.rlim_max, 6000)};
  if (setrlimit(RLIMIT_NOFILE, &enough) != 0) GTEST_SKIP() << "not that many descriptors here";
  EXPECT_TRUE(rmRf("d", AT_FDCWD));
  setrlimit(RLIMIT_NOFILE, &before);
}

// ---- waiting ----

TEST_F(FileUtils, WaitsUntilAllExist) {
  writeFile("here", "");
  EXPECT_TRUE(waitForFiles({}, 0) && waitForFiles({"here", "/tmp/desk/here"}, 0));
  EXPECT_FALSE(waitForFiles({"here", "missing/deep"}, 20) || waitForFiles({"here", ""}, UINT_MAX));
  const std::pair<Strings, std::function<void()>> rows[] = {
      {{"/tmp/desk/b/c/d", "e/"},
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
         fs::create_symlink("e/target", "dangling");
         writeFile("e/target", "");
       }},
  };
  for (const auto& [paths, make] : rows) {
    std::thread maker([&make = make] {
      const auto isWatch = [](const auto& one) { return one.second == "anon_inode:inotify"; };
      EXPECT_TRUE(eventually([&] {
        const auto all = openDescriptors();
        return std::any_of(all.begin(), all.end(), isWatch);
      }));
      make();
    });
    EXPECT_TRUE(waitForFiles(paths, UINT_MAX));
    maker.join();
  }
  const DescriptorLimit none(0);  // and so no inotify
  signal(SIGALRM, [](int) { mkdir("slow", 0755); });
  const itimerval soon{{}, {0, 20'000}};
  setitimer(ITIMER_REAL, &soon, nullptr);
  EXPECT_TRUE(waitForFiles({"slow"}, UINT_MAX));
  signal(SIGALRM, SIG_DFL);
}

}  // namespace
