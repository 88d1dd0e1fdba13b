#include "vexo_utils/timer.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include <gtest/gtest.h>

#include "files.h"
#include "internal/log.h"
#include "log_recorder.h"
#include "wait.h"

namespace {

using namespace vexo::test;

TEST(Timer, ClocksAgreeOnTheMoment) {
  const timespec before = moment();
  const long long ns = nowNs();
  const long long us = nowUs();
  const long long ms = nowMs();
  const timespec after = moment();
  EXPECT_LE(before.tv_sec * 1'000'000'000LL + before.tv_nsec, ns);
  EXPECT_TRUE(ns / 1000 <= us && us / 1000 <= ms);
  EXPECT_LE(ms, after.tv_sec * 1000LL + after.tv_nsec / 1'000'000);
  const timeval wall = vexo::utils::now();
  EXPECT_LE(wall.tv_sec * 1000LL + wall.tv_usec / 1000, nowWallMs());
}

TEST(Timer, DifferencesAndDurations) {
  EXPECT_EQ(momentsDiffMs({1, 999'999'999}, {2, 0}), 0);  // cut toward zero
  EXPECT_EQ(momentsDiffMs({3, 1'500'000}, {1, 0}), -2001);
  EXPECT_EQ(momentsDiffMs({2'147'483'647, 0}, {-2'147'483'647, 0}), -4'294'967'294'000);
  EXPECT_EQ(timeToString(3599), "00:59:59");
  EXPECT_EQ(timeToString(360'001), "100:00:01");
  EXPECT_EQ(timeToString(-3661), "-1:-1:-1");
}

TEST(Timer, SleepsWrapAtTheirWidth) {
  // Each product is 0 in 32 bits; without the wrap these would sleep for days.
  sleepMs(1ULL << 29);
  sleepMs(1ULL << 32);
  sleepUs(1ULL << 32);
  const long long start = nowUs();
  sleepUs(2000);
  sleepMs(2);
  EXPECT_GE(nowUs() - start, 4000);
}

TEST(Timer, LocalTimeFollowsTheZone) {
  const unsigned long long winter = 1'705'320'000'000;  // 2024-01-15 12:00 UTC
  const unsigned long long summer = 1'721'044'800'999;  // 2024-07-15 12:00 UTC, and a fraction
  struct {
    const char* zone;
    int winter, summer;
  } const rows[] = {{"CET-1CEST,M3.5.0,M10.5.0/3", 3600, 7200},
                    {"NST3:30NDT,M3.2.0,M11.1.0", -12600, -9000},
                    {"XXX-14", 50400, 50400}};
  for (const auto& row : rows) {
    setenv("TZ", row.zone, 1);
    const int minute = nowWallLocalMin();
    const long long seconds = nowWallMs() / 1000;
    const int offset = getOffsetUTC(static_cast<unsigned long long>(seconds) * 1000);
    EXPECT_LE(((seconds + offset) / 60 - minute + 1440) % 1440, 1)
        << row.zone;  // it may have ended
    EXPECT_EQ(getOffsetUTC(winter), row.winter) << row.zone;
    EXPECT_EQ(getOffsetUTC(summer), row.summer) << row.zone;
  }
  unsetenv("TZ");
}

TEST(Timer, SynchronisedLately) {
  const std::string path = "/etc/last_timesync_monotonic_ts";
  EXPECT_FALSE(isTimeSyncedLately(1'000'000'000));
  // A reading that the clock has not passed yet is recent.
  const unsigned long long later = static_cast<unsigned long long>(nowMs()) + 1'000'000;
  writeFile(path, std::to_string(later) + "\n");
  EXPECT_TRUE(isTimeSyncedLately(0));
  writeFile(path, "  1 garbage");
  EXPECT_FALSE(isTimeSyncedLately(0));
  EXPECT_TRUE(isTimeSyncedLately(later / 1000));
  for (const std::string text : {"", "abc"}) {
    writeFile(path, text);
    EXPECT_TRUE(refused(isTimeSyncedLately(1'000'000'000),
                        "Timesync timestamp file contents invalid: '" + text + "'"));
  }
  std::filesystem::remove(path);
  std::filesystem::create_directory(path);
  EXPECT_TRUE(refused(isTimeSyncedLately(1'000'000'000), "Failed to open timesync timestamp"));
}

TEST(Timer, WarnsOfWhatTookTooLong) {
  const auto now = static_cast<unsigned long long>(nowMs());
  checkNotInTimeMs(0, 0, "not armed");
  checkNotInTimeMs(now - 100, 1'000'000, "in time");
  checkNotInTimeMs(1, 0, "since boot");
  // The elapsed time is in the text: look for the warning at any of those that it may have been.
  bool found = false;
  for (auto ms = now - 1; !found && ms <= static_cast<unsigned long long>(nowMs()); ++ms) {
    const std::string text =
        "since boot: choked for " + std::to_string(ms) + " ms (check for 0 ms)";
    found = logged(kWarning, text);
  }
  EXPECT_TRUE(found);
}

TEST(Timer, LimitsOfRepetition) {
  using namespace vexo::utils;
  RateLimit never(0);
  RateLimit always(~0ULL);
  PeriodPrint uncounted(1, 0);
  PeriodPrint everyThird(1, 2);
  PeriodPrint rare(1'000'000'007, 0);  // the second is no multiple of it
  for (int round = 0; round < 6; ++round) {
    EXPECT_TRUE(never.isReady() && uncounted.isReady());
    EXPECT_FALSE(always.isReady() || rare.isReady());
    EXPECT_EQ(everyThird.isReady(), round % 3 == 2);
  }
  RateLimit brief(20);
  ASSERT_TRUE(brief.isReady());
  const long long accepted = nowMs();
  EXPECT_TRUE(eventually([&] { return brief.isReady(); }));
  EXPECT_GE(nowMs() - accepted, 20);
}

TEST(Log, KeepsErrnoAndReadsItBeforeTheArguments) {
  const auto clobber = [] {
    errno = EIO;
    return "argument";
  };
  errno = ENOENT;
  VEXO_LOG_ERROR_ERRNO("with %s", clobber());
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(logged(kError, "with argument", ENOENT));
  VEXO_LOG_ERROR("with %s", clobber());
  EXPECT_EQ(errno, ENOENT);
  EXPECT_TRUE(logged(kError, "with argument", 0));
}

}  // namespace
