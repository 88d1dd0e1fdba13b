#include "vexo_utils/memorymap.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "files.h"
#include "log_recorder.h"
#include "vexo_utils/fileutils.h"

namespace vexo::utils {
namespace {

using test::kError;
using test::logged;

std::size_t linesOf(const MemoryMap& map) {
  return static_cast<std::size_t>(std::count(map.text().begin(), map.text().end(), '\n'));
}

TEST(MemoryMap, TellsWhatIsWhere) {
  MemoryMap map;
  for (const int pid : {0, getpid()}) {
    ASSERT_TRUE(map.GetMemoryMap(pid));
    EXPECT_EQ(static_cast<std::size_t>(map.end() - map.begin()), linesOf(map));
    const auto code = reinterpret_cast<std::uintptr_t>(&linesOf);
    const auto* entry = std::find_if(map.begin(), map.end(), [&](const MemoryMap::Entry& other) {
      return other.start <= code && code < other.end;
    });
    ASSERT_NE(entry, map.end());
    EXPECT_STREQ(entry->permissions, "r-xp");
    EXPECT_EQ(baseName(std::string(entry->path)), "memorymap_test");
    EXPECT_NE(entry->inode, 0U);
  }
  EXPECT_FALSE(map.GetMemoryMap(-1));
  EXPECT_TRUE(map.text().empty() && map.begin() == map.end());
}

TEST(MemoryMap, TakesAnyLineAndReportsWhatIsNone) {
  const std::string good = "00010000-00011000 r-xp 00000000 00:00 0 \n";
  std::string large;
  for (int i = 0; i < 10000; ++i) large += good;
  ASSERT_EQ(mount("tmpfs", "/proc", "tmpfs", 0, nullptr), 0);
  mkdir("/proc/7", 0755);
  mkdir("/proc/8", 0755);
  test::writeFile("/proc/8/maps", large);
  test::writeFile("/proc/7/maps", good +
                                      "7fff00000000-ffffffffffffffff rw-s ffffffffff000 103:1f "
                                      "18446744073709551615     /a b/c (deleted)\n"
                                      "10000-20000 rwxps 0 0:0 0\n\n"
                                      "10000-20000 r 0 0:0 18446744073709551616\n"
                                      "10000-20000 r 0 0:0 0/path\n"
                                      "10000-20000 r 0 0:0 5");
  MemoryMap map;
  MemoryMap cut;
  const bool read = map.GetMemoryMap(7) && cut.GetMemoryMap(8);
  umount("/proc");
  ASSERT_TRUE(read);
  for (const char* line : {"10000-20000 rwxps 0 0:0 0", "", "10000-20000 r 0 0:0 0/path",
                           "10000-20000 r 0 0:0 18446744073709551616"}) {
    const std::string text = "The following memory map line could not be parsed `";
    EXPECT_TRUE(logged(kError, text + line + "`"));
  }
  ASSERT_EQ(map.end() - map.begin(), 3);
  EXPECT_EQ(map.begin()[0].path, "");
  EXPECT_EQ(map.begin()[2].inode, 5U);
  const MemoryMap::Entry& wide = map.begin()[1];
  EXPECT_EQ(wide.start, 0x7fff00000000U);
  EXPECT_EQ(wide.end, UINT64_MAX);
  EXPECT_EQ(wide.offset, 0xffffffffff000U);
  EXPECT_EQ(wide.major, 0x103U);
  EXPECT_EQ(wide.minor, 0x1fU);
  EXPECT_EQ(wide.inode, UINT64_MAX);
  EXPECT_EQ(wide.path, "/a b/c (deleted)");
  EXPECT_EQ(cut.text().size(), 256 * 1024 / good.size() * good.size());
  EXPECT_EQ(static_cast<std::size_t>(cut.end() - cut.begin()), linesOf(cut));
}

}  // namespace
}  // namespace vexo::utils
