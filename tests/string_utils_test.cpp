#include "vexo_utils/string_utils.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include <gmock/gmock.h>
#include <unistd.h>

#include "files.h"
#include "log_recorder.h"
#include "vexo/host/log_sink.h"
#include "vexo/variant/CameraInfo.h"
#include "vexo_utils/timer.h"
#include "wait.h"

namespace {

using namespace vexo::test;
using namespace vexo::utils;
using testing::ElementsAre;
using testing::MatchesRegex;
using vexo::variant::CameraInfo;
using vexo::variant::Variant;
using Strings = std::vector<std::string>;

std::string joined(const Strings& parts, const std::string& sep) {
  std::string out = "before";
  join(out, sep, parts);
  return out;
}

Strings pieces(const std::string& s, const std::string& delimiter) {
  Strings out = {"before"};
  split(s, delimiter, out);
  return out;
}

Strings tokens(const std::string& s, const std::string& delimiters, bool skipEmpty) {
  Strings out;
  tokenize(s, out, delimiters, skipEmpty);
  return out;
}

std::string replaced(std::string s, const std::string& from, const std::string& to) {
  replaceAll(s, from, to);
  return s;
}

TEST(Strings, CaseIsThatOfAscii) {
  EXPECT_EQ(lowerCase("aB-[Z]\xC3\x9C\xFF"), "ab-[z]\xC3\x9C\xFF");
  EXPECT_EQ(upperCase("aB-{z}\xC3\xBC\xFF"), "AB-{Z}\xC3\xBC\xFF");
}

TEST(Strings, JoinsPartsAndArguments) {
  EXPECT_EQ(joined({}, ","), "");
  EXPECT_EQ(joined({"", "", "a"}, ", "), ", , a");
  std::string out = "before";
  join(out, ",", 3, "x", static_cast<const char*>(nullptr), "z");
  EXPECT_EQ(out, "x");
  join(out, out, 2, "a", "b", "c");
  EXPECT_EQ(out, "axb");
  for (const int count : {0, -1, INT_MIN}) {
    out = "before";
    join(out, ",", count, "x");
    EXPECT_EQ(out, "");
  }
  Strings parts = {"a", "b"};
  join(parts[1], "-", parts);
  EXPECT_EQ(parts[1], "a-b");
}

TEST(Strings, StartsAndEnds) {
  for (const char* part : {"", "ab", "abab"}) {
    EXPECT_TRUE(startsWith("abab", part) && endsWith("abab", part)) << part;
  }
  for (const char* part : {"ba", "ababa", "babab"}) {
    EXPECT_FALSE(startsWith("abab", part) || endsWith("abab", part)) << part;
  }
}

TEST(Strings, TokenizesAndSplits) {
  EXPECT_THAT(tokens("a,,b", ",", true), ElementsAre("a", "b"));
  EXPECT_THAT(tokens("a,,b", ",", false), ElementsAre("a", "", "b"));
  EXPECT_THAT(tokens(";a\xFF,", ",;\xFF", false), ElementsAre("", "a", "", ""));
  EXPECT_THAT(tokens("a,b", "", true), ElementsAre("a,b"));
  EXPECT_THAT(tokens("", ",", false), ElementsAre(""));
  EXPECT_THAT(tokens("", ",", true), ElementsAre());
  EXPECT_THAT(pieces("a,,b,", ","), ElementsAre("a", "", "b", ""));
  EXPECT_THAT(pieces("a,b", ""), ElementsAre("a,b"));
  EXPECT_THAT(pieces("", ", "), ElementsAre(""));
  EXPECT_THAT(pieces({"a\0b\0c", 5}, {"\0", 1}), ElementsAre("a", "b", "c"));

  // Both, as a string holds few bytes in itself and many elsewhere.
  for (const std::string half : {"short", "longer than what a string holds in itself"}) {
    Strings out = {half + ";" + half, ";"};
    tokenize(out[0], out, out[1], true);
    EXPECT_THAT(out, ElementsAre(half + ";" + half, ";", half, half));
    split(out[0], out[1], out);
    EXPECT_THAT(out, ElementsAre(half, half));
  }
}

// All strings of up to 6 of three bytes, with all delimiters of up to 3 of them.
TEST(Strings, CuttingAndReplacingAgree) {
  Strings all = {""};
  for (std::size_t i = 0; all[i].size() < 6; ++i) {
    for (const char c : {'a', 'b', ','}) all.push_back(all[i] + c);
  }
  for (const std::string& s : all) {
    ASSERT_EQ(tokens(s, ",b", false), pieces(replaced(s, "b", ","), ",")) << s;
    for (std::size_t i = 1; all[i].size() <= 3; ++i) {
      const Strings cut = pieces(s, all[i]);
      ASSERT_EQ(joined(cut, all[i]), s);
      ASSERT_EQ(joined(cut, "a,"), replaced(s, all[i], "a,"));
      for (const std::string& piece : cut) ASSERT_EQ(piece.find(all[i]), std::string::npos);
    }
  }
}

TEST(Strings, ReplacesWithoutSearchingAgain) {
  EXPECT_EQ(replaced("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(replaced("aaaaa", "aa", ""), "a");
  EXPECT_EQ(replaced("abc", "", "x"), "abc");
  std::string s = "abab";
  replaceAll(s, "b", s);
  EXPECT_EQ(s, "aababaabab");
  replaceAll(s, s, s);
  EXPECT_EQ(s, "aababaabab");
  replaceAll(s, s, "x");
  EXPECT_EQ(s, "x");
}

TEST(Strings, TrimsFourBytesOnly) {
  const auto trimmed = [](std::string left) {
    std::string right = left;
    std::string both = left;
    return Strings{lTrim(left), rTrim(right), trim(both), both};
  };
  EXPECT_THAT(trimmed(" \t\r\n"), ElementsAre("", "", "", ""));
  EXPECT_THAT(trimmed(" a b\t"), ElementsAre("a b\t", " a b", "a b", "a b"));
  EXPECT_THAT(trimmed("\n\v \f "), ElementsAre("\v \f ", "\n\v \f", "\v \f", "\v \f"));
  EXPECT_THAT(trimmed("\xA0 \xA0"), testing::Each("\xA0 \xA0"));
}

TEST(Strings, ShellReadsBackEveryByte) {
  EXPECT_EQ(escapeShellArg("it's"), R"('it'\''s')");
  Strings words = {"", "''", "$(exit 1)`exit 1`\\", "*\n~ \\'"};
  for (int byte = 1; byte <= UCHAR_MAX; ++byte) {
    const std::string c(1, static_cast<char>(byte));
    words.insert(words.end(), {c, "a" + c + c + "b"});
  }
  std::string command = "printf '%s\\0'";
  std::string expected;
  for (const std::string& word : words) {
    command += " " + escapeShellArg(word);
    expected += word + '\0';
  }
  FILE* const output = popen(command.c_str(), "r");
  ASSERT_NE(output, nullptr);
  std::string heard;
  for (int c = 0; (c = std::fgetc(output)) != EOF;) heard += static_cast<char>(c);
  EXPECT_EQ(pclose(output), 0);
  EXPECT_EQ(heard, expected);
}

TEST(Format, TextsOfAnyLength) {
  EXPECT_EQ(format("%s", ""), "");
  EXPECT_EQ(format("%d%c%c", -1, '\0', 'x'), std::string("-1\0x", 4));
  for (const int length : {254, 255, 256, 257, 1 << 20}) {
    const std::string text = format("%*d", length, 7);
    EXPECT_EQ(text, std::string(static_cast<std::size_t>(length - 1), ' ') + '7');
  }
}

TEST(FormatDeathTest, WhatCannotBeFormattedCrashes) {
  const auto impossible = [] {
    vexo::host::setLogSink(nullptr, nullptr);
    vexo::host::setLogLevel(kError);
    format("%lc", static_cast<wint_t>(0x20AC));  // which the C locale lacks
  };
  EXPECT_EXIT(impossible(), testing::KilledBySignal(SIGABRT), "format: Invalid state\n$");
}

TEST(TimeText, IsReadAndWritten) {
  struct {
    const char* text;
    long long seconds;
    long microseconds;
    const char* inUtc;  // null: the same
  } const rows[] = {
      {"1970-01-01T00:00:00.999+00:00", 0, 999'000, nullptr},
      {"1969-12-31T23:59:59.000+00:00", -1, 0, nullptr},
      {"2024-02-29T23:59:59.123+02:00", 1'709'243'999, 123'000, "2024-02-29T21:59:59.123+00:00"},
      {"2024-02-29T23:59:59.010-12:34", 1'709'296'439, 10'000, "2024-03-01T12:33:59.010+00:00"},
      {"2001-02-29T 1:00:60.001-29:59", 983'516'400, 1'000, "2001-03-02T07:00:00.001+00:00"},
      {"2038-01-19T03:14:07.000+00:00", 2'147'483'647, 0, nullptr},
  };
  for (const auto& row : rows) {
    timeval time{};
    ASSERT_TRUE(stringToTimeval(row.text, 29, &time)) << row.text;
    EXPECT_EQ(time.tv_sec, row.seconds) << row.text;
    EXPECT_EQ(time.tv_usec, row.microseconds) << row.text;
    EXPECT_EQ(timevalToString(&time), row.inUtc != nullptr ? row.inUtc : row.text);
  }
  timeval time{5, 5};  // which stays when time_t has 32 bits
  const bool read = stringToTimeval("2038-01-19T03:14:07.000-00:01", 29, &time);
  EXPECT_EQ(read, sizeof(time_t) == 8);
  EXPECT_EQ(static_cast<long long>(time.tv_sec), read ? 2'147'483'707 : 5);
}

TEST(TimeText, RefusesOtherForms) {
  const std::string good = "2024-02-29T23:59:59.123+02:00";
  timeval time{5, 6};
  const auto refused = [&](std::size_t at, char wrong) {
    std::string text = good;
    text[at] = wrong;
    return !stringToTimeval(text.c_str(), 29, &time);
  };
  for (std::size_t at = 0; at < good.size(); ++at) {
    for (const char wrong : {'x', '/', '.', '\0'}) {
      EXPECT_TRUE(wrong == good[at] || refused(at, wrong)) << at << wrong;
    }
  }
  EXPECT_TRUE(refused(10, ' ') && refused(11, '3') && refused(24, '3') && refused(27, '6'));
  for (const unsigned length : {0U, 28U, 30U}) {
    EXPECT_FALSE(stringToTimeval(good.c_str(), length, &time));
  }
  EXPECT_TRUE(time.tv_sec == 5 && time.tv_usec == 6);
}

TEST(TimeText, OddMicrosecondsKeepSixteenBits) {
  const std::pair<int, const char*> rows[] = {
      {999'999, "999"}, {1'000'000, "000"}, {-1, "000"}, {-1000, "535"}, {INT_MAX, "331"},
  };
  for (const auto& [microseconds, ms] : rows) {
    const timeval time{0, microseconds};
    EXPECT_EQ(timevalToString(&time), format("1970-01-01T00:00:00.%s+00:00", ms));
  }
  if (sizeof(time_t) == 4) return;
  const timeval never{static_cast<time_t>(LLONG_MAX), 0};
  EXPECT_EQ(timevalToString(&never), ".000+00:00");
}

TEST(HostByName, FirstAddressOfTheFourthVersion) {
  writeFile("/etc/nsswitch.conf", "hosts: files\n");
  writeFile("/etc/hosts",
            "10.1.2.3 two\n10.1.2.4 two\n2001:db8::1 six both\n10.100.200.255 both\n");
  EXPECT_EQ(getHostByName("127.0.0.1"), "127.0.0.1");
  EXPECT_EQ(getHostByName("two"), "10.1.2.3");
  EXPECT_EQ(getHostByName("both"), "10.100.200.255");
  for (const char* name : {"six", "none", "", "::1"}) EXPECT_EQ(getHostByName(name), "") << name;
}

constexpr char kTimesyncFile[] = "/etc/last_timesync_monotonic_ts";

TEST(OsdTime, CountsFromBootUntilSynchronised) {
  const long long before = nowMs() / 1000;
  const std::string text = generateOsdTimeString("%H");
  EXPECT_THAT(text, MatchesRegex("[0-9]+ days [0-2][0-9]:[0-5][0-9]:[0-5][0-9]"));
  long long days = 0, hours = 0, minutes = 0, seconds = 0;
  std::sscanf(text.c_str(), "%lld days %lld:%lld:%lld", &days, &hours, &minutes, &seconds);
  const long long shown = ((days * 24 + hours) * 60 + minutes) * 60 + seconds;
  EXPECT_LE(before, shown);
  EXPECT_LE(shown, nowMs() / 1000);

  writeFile(kTimesyncFile, "0");
  EXPECT_THAT(generateOsdTimeString(nullptr), MatchesRegex("[0-9]+ days .*"));
  EXPECT_TRUE(logged(kError, "Timesync timestamp file contents invalid: '0'"));
  std::filesystem::remove(kTimesyncFile);
}

TEST(OsdTime, IsLocalOnceSynchronised) {
  writeFile(kTimesyncFile, "1");
  for (const char* zone : {"AAA-5:30", "BBB8"}) {
    setenv("TZ", zone, 1);
    EXPECT_EQ(generateOsdTimeString("%Z"), std::string(zone, 3));
  }
  for (const char* fmt : {"", static_cast<const char*>(nullptr)}) {
    EXPECT_TRUE(eventually(
        [&] { return generateOsdTimeString(fmt) == generateOsdTimeString("%Y-%m-%d  %H:%M:%S"); }));
  }
  EXPECT_EQ(generateOsdTimeString(std::string(255, 'x').c_str()), std::string(255, 'x'));
  EXPECT_EQ(generateOsdTimeString(std::string(256, 'x').c_str()), "");
  unsetenv("TZ");
  std::filesystem::remove(kTimesyncFile);
}

std::string validHostname(const std::string& kernelName) {
  setenv("VEXO_CAMERA_INFO", VEXO_BINARY_DIR "/platform/host/boards/3B25.json", 1);
  EXPECT_EQ(sethostname(kernelName.data(), kernelName.size()), 0);
  const std::string valid = getValidHostname();
  EXPECT_TRUE(logged(kDebug, "Original hostname \"" + kernelName + "\""));
  return valid;
}

TEST(Hostname, IsMadeValid) {
  const std::string longest(63, 'x');
  struct {
    std::string kernelName, modified, again, valid;
  } const rows[] = {
      {"mycam", "mycam", "", "mycam"},
      {"  my  cam -", "my-cam", "", "my-cam"},
      {"\t-My\tCam\v1\n", "My-Cam-1", "", "my-cam-1"},
      {"Stra\u00DFe K\u00FCche", "Stra\u00DFe-K\u00FCche", "", "xn--strasse-kche-llb"},
      {"\u6444\u50CF\u5934", "\u6444\u50CF\u5934", "", "xn--o1q97ryrj"},
      {"ab- c", "ab--c", "ab\u2013\u2013c", "xn--abc-3n0aa"},
      {"a - b", "a---b", "a\u2013\u2013\u2013b", "xn--ab-41taa"},
      {"x.-y", "x.-y", "x.\u2013y", "x.xn--y-5gn"},
      {"", "", "", ""},
      {" -- - ", "", "", ""},
      {longest, longest, "", longest},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(validHostname(row.kernelName), row.valid);
    EXPECT_TRUE(logged(kDebug, "Modified hostname \"" + row.modified + "\""));
    if (row.again.empty()) continue;
    EXPECT_TRUE(logged(kDebug, "Modified hostname \"" + row.again + "\""));
  }
}

TEST(Hostname, OfSixtyFourBytesIsRefused) {
  const std::string longest(64, 'x');
  EXPECT_EQ(sethostname(longest.data(), longest.size()), 0);
  EXPECT_EQ(getValidHostname(), "");
  EXPECT_TRUE(logged(kError, "Failed to get hostname", ENAMETOOLONG));
}

TEST(Hostname, FallsBackToTheDescription) {
  struct {
    std::string kernelName, converted, reason;
  } const rows[] = {
      {"caf\xE9", "caf\xE9", "IDN2_ENCODING_ERROR(-200):string encoding error"},
      {"ab- " + std::string(59, 'x'), "ab\u2013\u2013" + std::string(59, 'x'),
       "IDN2_PUNYCODE_BIG_OUTPUT(-203):punycode encoded data will be too large"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(validHostname(row.kernelName), "Camera-3B25-250e");
    EXPECT_TRUE(logged(kWarning, "idn2_to_ascii_8z conversion fail from string \"" + row.converted +
                                     "\", ret[" + row.reason + "]"));
  }
}

TEST(Hostname, FallbackNeedsAnAddress) {
  validHostname("\xFF");
  Variant& description = CameraInfo::instance().description();
  const Variant before = description;
  description = Variant::Map{{"name", "x"}};
  EXPECT_THROW(validHostname("\xFF"), std::out_of_range);
  EXPECT_EQ(description["hwaddr"], "");
  description = before;
  forgetLog();
}

}  // namespace
