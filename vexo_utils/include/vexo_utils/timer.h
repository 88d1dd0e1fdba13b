// Clocks, sleeping, durations as text, and two throttles for log lines of busy loops.
//
// Two clocks, never to be mixed: the monotonic one (CLOCK_MONOTONIC, counts from boot, never set)
// measures intervals; the wall clock (may jump when it is set) is for display.
//
// Units:     as each name says; fractions of a unit are cut off, never rounded.
// Threads:   all functions may be called from any thread, except that getOffsetUTC and
//            nowWallLocalMin call tzset(3): not while another thread changes TZ. A RateLimit or a
//            PeriodPrint belongs to one thread.
// Failure:   the clocks are taken to work; what can fail says so below.
#pragma once

#include <string>

#include <sys/time.h>
#include <time.h>

#include <vexo_utils/export.h>

// ---- monotonic clock ----

VEXO_UTILS_API timespec moment();
VEXO_UTILS_API long long nowMs();
VEXO_UTILS_API long long nowUs();
VEXO_UTILS_API long long nowNs();

// Milliseconds from `from` to `to`; negative when they are reversed.
VEXO_UTILS_API long long momentsDiffMs(const timespec& from, const timespec& to);

// Logs the warning "NAME: choked for N ms (check for LIMIT ms)" when more than `limitMs` passed
// since `startMs`, a reading of nowMs() taken before the guarded work. startMs 0: never armed,
// nothing is done.
VEXO_UTILS_API void checkNotInTimeMs(unsigned long long startMs, unsigned long long limitMs,
                                     const std::string& name);

// ---- sleeping ----

// usleep(3) of 32-bit width, ended early by a signal. Only for short periods: sleepMs takes the low
// 32 bits of `ms` times 1000, again cut to 32 bits, so that above 4294967 ms it wraps and sleeps
// for less. sleepUs takes the low 32 bits of `us`.
VEXO_UTILS_API void sleepMs(unsigned long long ms);
VEXO_UTILS_API void sleepUs(unsigned long long us);

// ---- wall clock ----

// Milliseconds since the epoch.
VEXO_UTILS_API long long nowWallMs();

// Minutes since local midnight, 0 to 1439. When the local time cannot be told: 0, and the line
// "Error extracting time stuff" on standard output.
VEXO_UTILS_API int nowWallLocalMin();

// Local time minus UTC, in seconds, at `wallMs` (milliseconds since the epoch); positive east of
// Greenwich, daylight saving included. 0 when it cannot be told.
VEXO_UTILS_API int getOffsetUTC(unsigned long long wallMs);

// True when the time service has synchronised the wall clock within the last `maxAgeSec` seconds.
// It leaves the monotonic milliseconds of its last success as decimal text in
// /etc/last_timesync_monotonic_ts. No such file: false, silently. A file that cannot be read
// ("Failed to open timesync timestamp") or holds no number above 0, as strtoull(3)
// reads it, to which "-1" is a large one ("Timesync timestamp file contents invalid: '...'"):
// false, logged as an error.
VEXO_UTILS_API bool isTimeSyncedLately(unsigned long long maxAgeSec);

// ---- text ----

// "HH:MM:SS"; hours are not taken modulo 24 (90000 is "25:00:00"). Each number has at least two
// digits; a negative input gives negative numbers.
VEXO_UTILS_API std::string timeToString(int seconds);

namespace vexo::utils {

// The wall clock as gettimeofday(2) gives it.
VEXO_UTILS_API timeval now();

// Lets one call through per interval, counted from the last call that was let through.
class RateLimit {
 public:
  // 0 ms never limits.
  explicit RateLimit(unsigned long long intervalMs) : interval(intervalMs) {}

  // True when more than the interval has passed since isReady was last true. The first call is
  // ready as soon as the system is up for longer than the interval.
  bool isReady() {
    if (interval == 0) return true;
    const auto current = static_cast<unsigned long long>(nowMs());
    if (last + interval >= current) return false;
    last = current;
    return true;
  }

 private:
  unsigned long long interval;  // ms
  unsigned long long last = 0;  // nowMs() of the last ready answer
};

// For a loop that runs many times a second (once per video frame): ready once in each second of the
// monotonic clock that is a multiple of the period.
class PeriodPrint {
 public:
  // `periodSec` 0 is always ready. `minRefused` is how many calls must have been refused before the
  // next ready answer: about the loop's calls per second, else several calls within one second are
  // ready (with 0, all of them).
  PeriodPrint(long periodSec, unsigned int minRefused) : period(periodSec), count(minRefused) {}

  // True in such a second, when enough calls have been refused since the last time.
  bool isReady() {
    if (period == 0) return true;
    if (moment().tv_sec % period == 0 && counter >= count) {
      counter = 0;
      return true;
    }
    ++counter;
    return false;
  }

 private:
  long period;  // s
  unsigned int count;
  unsigned long long counter = 0;  // calls refused since the last ready answer
};

}  // namespace vexo::utils
