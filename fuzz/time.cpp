// Time stamps as text, the format of the clock in the picture, and the time service's record.

#include <cctype>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "fuzz.h"
#include "vexo_utils/string_utils.h"
#include "vexo_utils/timer.h"

namespace {

using namespace vexo::utils;

constexpr std::size_t kLength = 29;
constexpr long long kYear1000 = -30'610'224'000;
constexpr long long kYear10000 = 253'402'300'800;
constexpr char kSynchronised[] = "/etc/last_timesync_monotonic_ts";

bool parse(const std::string& text, timeval& time) {
  const std::vector<char> bytes(text.begin(), text.end());  // without a null byte behind
  return stringToTimeval(bytes.data(), static_cast<unsigned int>(bytes.size()), &time);
}

bool areDigits(const std::string& text) {
  for (const char c : text) {
    if (std::isdigit(static_cast<unsigned char>(c)) == 0) return false;
  }
  return true;
}

// Days since 1970 in the Gregorian calendar, counted from March, when leap days come last.
long long daysSinceEpoch(long long year, int month, int day) {
  if (month < 3) --year;
  const long long fromMarch = (153 * ((month + 9) % 12) + 2) / 5 + day - 1;
  return 365 * year + year / 4 - year / 100 + year / 400 + fromMarch - 719'468;
}

// For a text with a digit in every place that may have one.
void mustBeTheTime(const std::string& text, const timeval& time) {
  const auto number = [&](std::size_t at, std::size_t length) {
    return std::atoi(text.substr(at, length).c_str());
  };
  const int offset = (number(24, 2) * 60 + number(27, 2)) * 60;
  const long long seconds = daysSinceEpoch(number(0, 4), number(5, 2), number(8, 2)) * 86400 +
                            number(11, 2) * 3600 + number(14, 2) * 60 + number(17, 2);
  MUST(time.tv_sec == seconds - (text[23] == '+' ? offset : -offset));
  MUST(time.tv_usec == number(20, 3) * 1000);
}

void checkText(const std::string& text) {
  timeval time{5, 6};
  if (!parse(text, time)) {
    MUST(time.tv_sec == 5 && time.tv_usec == 6);
    return;
  }
  MUST(text.size() == kLength && time.tv_usec % 1000 == 0 && time.tv_usec < 1'000'000);
  std::string digits = text;
  for (const std::size_t at : {26U, 23U, 19U, 16U, 13U, 10U, 7U, 4U}) digits.erase(at, 1);
  if (areDigits(digits)) mustBeTheTime(text, time);
}

void checkTime(const timeval& time) {
  const std::string text = timevalToString(&time);
  MUST(text.size() >= 10 && text.substr(text.size() - 6) == "+00:00");
  if (time.tv_sec < kYear1000 || time.tv_sec >= kYear10000) return;
  timeval back{};
  MUST(parse(text, back) && back.tv_sec == time.tv_sec);
  if (time.tv_usec >= 0 && time.tv_usec < 1'000'000) {
    MUST(back.tv_usec == time.tv_usec / 1000 * 1000);
  }
}

void checkRecord(const std::string& record) {
  vexo::fuzz::write(kSynchronised, record);
  const unsigned long long ms = std::strtoull(record.c_str(), nullptr, 10);
  const bool isPositive = ms > 0;
  const bool synchronised = isTimeSyncedLately(0);
  MUST((vexo::fuzz::errors() > 0) == !isPositive);
  // A minute ago, as this machine may be slow.
  MUST(!synchronised || ms > static_cast<unsigned long long>(nowMs()) - 60'000);
}

void checkClock(const std::string& format) {
  vexo::fuzz::write(kSynchronised, "1");
  const std::string text = generateOsdTimeString(format.c_str());
  MUST(text.size() < 256);
}

}  // namespace

FUZZ_TARGET(time) {
  vexo::fuzz::Input again = input;
  const std::string text = input.rest();
  checkText(text);
  const auto seconds = static_cast<time_t>(again.number(8));
  checkTime({seconds, static_cast<suseconds_t>(again.number(4))});
  checkRecord(text);
  checkClock(text);
}
