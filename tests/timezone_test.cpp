#include "vexo_utils/timezone.h"

#include <filesystem>
#include <map>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "files.h"
#include "log_recorder.h"
#include "mounted.h"
#include "vexo_utils/exec.h"

namespace vexo::utils {
namespace {

namespace fs = std::filesystem;
using namespace test;
using Files = std::map<std::string, std::string>;

const std::string kDatabase = "/usr/share/zoneinfo/";

// What is in /etc that a time zone could have to do with: contents, and where links lead.
Files zoneInEtc() {
  Files all;
  for (const fs::directory_entry& entry : fs::directory_iterator("/etc")) {
    const std::string name = entry.path().filename();
    if (name.rfind("TZ", 0) != 0 && name.rfind("localtime", 0) != 0) continue;
    all[name] = entry.is_symlink() ? fs::read_symlink(entry).string() : readFile(entry.path());
  }
  return all;
}

TEST(TimeZone, IsTheOneOfNewProcesses) {
  if (!fs::exists(kDatabase + "Europe/Berlin")) GTEST_SKIP() << "no zone database here";
  unsetenv("TZ");
  umask(077);
  fs::create_symlink("../Asia/Kathmandu", kDatabase + "Europe/Mountain");
  const std::string rows[][4] = {
      {"Europe/Berlin", "Europe/Berlin", "CET-1CEST,M3.5.0,M10.5.0/3\n", "23:13 CET\n"},
      {"Asia/../America/Lima", "America/Lima", "<-05>5\n", "17:13 -05\n"},
      {"Europe/Mountain", "Asia/Kathmandu", "<+0545>-5:45\n", "03:58 +0545\n"}};
  for (const auto& [file, zone, rule, expectedDate] : rows) {
    EXPECT_TRUE(setTimeZone(kDatabase + file));
    EXPECT_EQ(zoneInEtc(), (Files{{"TZ", rule}, {"localtime", kDatabase + zone}}));
    EXPECT_EQ(fs::status("/etc/TZ").permissions(), fs::perms{0644});
    std::string date;
    sysExec(nullptr, &date, nullptr, 0, 0, 0, "/bin/date", 3, "-d", "@1700000000", "+%H:%M %Z");
    EXPECT_EQ(date, expectedDate);
  }
}

TEST(TimeZone, NoTraceOfAFailure) {
  const std::string zone = kDatabase + "Zone";
  const std::string folder = kDatabase + "folder";
  fs::create_directories(folder);
  for (const std::string& file : {zone, std::string("/tmp/zone")}) writeFile(file, "X0\n");
  fs::create_directory_symlink("/tmp", folder + "/out");
  const struct {
    std::string zone;
    std::string error;
    int number;
    const char* inTheWay = "";
  } rows[] = {{zone + "s", "Failed to resolve path: " + zone + "s", ENOENT},
              {"/usr/share/zoneinfo", "Illegal path: /usr/share/zoneinfo", 0},
              {folder + "/../../../../tmp/zone", "Illegal path: /tmp/zone", 0},
              {folder + "/out/zone", "Illegal path: /tmp/zone", 0},
              {folder, "Failed to read TZ string", 0},
              {zone, "Failed to rename sym link", EISDIR, "/etc/TZ"},
              {zone, "Failed to rename sym link", EISDIR, "/etc/localtime"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.error);
    const Mounted etc("/etc");
    writeFile("/etc/TZ", "old");
    fs::create_symlink("old", "/etc/localtime");
    if (fs::remove(row.inTheWay)) fs::create_directory(row.inTheWay);
    Files expected = zoneInEtc();
    EXPECT_FALSE(setTimeZone(row.zone));
    EXPECT_TRUE(logged(kError, row.error, row.number));
    if (expected["localtime"].empty()) expected["TZ"] = "X0\n";  // the second of two renamings
    EXPECT_EQ(zoneInEtc(), expected);
  }
}

TEST(TimeZone, RulesAreCutAt128Bytes) {
  const std::string zone = kDatabase + "Long";
  fs::create_directories(kDatabase);
  for (const std::string& rule : {std::string(127, 'a') + "\n", std::string(128, 'b')}) {
    writeFile(zone, "TZif\n" + rule + (rule.back() == 'b' ? "too long" : ""));
    EXPECT_TRUE(setTimeZone(zone));
    EXPECT_EQ(readFile("/etc/TZ"), rule);
  }
}

}  // namespace
}  // namespace vexo::utils
