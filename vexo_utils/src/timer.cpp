#include "vexo_utils/timer.h"

#include <cstdio>
#include <cstdlib>
#include <optional>

#include <unistd.h>

#include "internal/files.h"
#include "internal/log.h"

using vexo::utils::internal::readFile;

namespace {

constexpr char kTimesyncFile[] = "/etc/last_timesync_monotonic_ts";

// tv_sec has 32 bits on the target: every product below is made in 64.
long long scaled(const timespec& time, long long perSecond) {
  return time.tv_sec * perSecond + time.tv_nsec / (1'000'000'000 / perSecond);
}

}  // namespace

timespec moment() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time;
}

long long nowMs() {
  return scaled(moment(), 1000);
}

long long nowUs() {
  return scaled(moment(), 1'000'000);
}

long long nowNs() {
  return scaled(moment(), 1'000'000'000);
}

long long momentsDiffMs(const timespec& from, const timespec& to) {
  const long long seconds = static_cast<long long>(to.tv_sec) - from.tv_sec;
  const auto nanoseconds = static_cast<int>(to.tv_nsec - from.tv_nsec);
  return static_cast<long long>(static_cast<double>(seconds * 1000) + nanoseconds / 1'000'000.0);
}

void checkNotInTimeMs(unsigned long long startMs, unsigned long long limitMs,
                      const std::string& name) {
  if (startMs == 0) return;
  const unsigned long long elapsed = static_cast<unsigned long long>(nowMs()) - startMs;
  if (elapsed <= limitMs) return;
  VEXO_LOG_WARNING("%s: choked for %llu ms (check for %llu ms)", name.c_str(), elapsed, limitMs);
}

void sleepMs(unsigned long long ms) {
  usleep(static_cast<unsigned>(ms) * 1000U);
}

void sleepUs(unsigned long long us) {
  usleep(static_cast<unsigned>(us));
}

long long nowWallMs() {
  const timeval time = vexo::utils::now();
  return time.tv_sec * 1000LL + time.tv_usec / 1000;
}

int nowWallLocalMin() {
  const time_t current = time(nullptr);
  tzset();
  tm local{};
  if (localtime_r(&current, &local) == nullptr) {
    std::puts("Error extracting time stuff");
    return 0;
  }
  return local.tm_hour * 60 + local.tm_min;
}

int getOffsetUTC(unsigned long long wallMs) {
  const auto current = static_cast<time_t>(wallMs / 1000);
  tzset();
  tm local{};
  tm utc{};
  if (localtime_r(&current, &local) == nullptr || gmtime_r(&current, &utc) == nullptr) return 0;
  // mktime takes the UTC fields for local ones; with the local daylight flag, what comes out is off
  // by exactly the offset, daylight saving included.
  utc.tm_isdst = local.tm_isdst;
  const time_t shifted = mktime(&utc);
  if (shifted == -1) return 0;
  return static_cast<int>(difftime(current, shifted));
}

bool isTimeSyncedLately(unsigned long long maxAgeSec) {
  if (access(kTimesyncFile, F_OK) != 0) return false;
  const std::optional<std::string> text = readFile(kTimesyncFile);
  if (!text) {
    VEXO_LOG_ERROR("Failed to open timesync timestamp");
    return false;
  }
  const unsigned long long syncedMs = std::strtoull(text->c_str(), nullptr, 10);
  if (syncedMs == 0) {
    VEXO_LOG_ERROR("Timesync timestamp file contents invalid: '%s'", text->c_str());
    return false;
  }
  return maxAgeSec * 1000 + syncedMs >= static_cast<unsigned long long>(nowMs());
}

std::string timeToString(int seconds) {
  char text[40];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", seconds / 3600, seconds / 60 % 60,
                seconds % 60);
  return text;
}

namespace vexo::utils {

timeval now() {
  timeval time{};
  gettimeofday(&time, nullptr);
  return time;
}

}  // namespace vexo::utils
